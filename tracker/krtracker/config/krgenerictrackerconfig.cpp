#include <krtracker/config/krgenerictrackerconfig.h>

#include <cstring>
#include <fstream>
#include <iostream>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <utility>

#include <ko/os.h>
#include <kr/value/valueutils.h>

namespace KR {
namespace Tracker {

namespace {

constexpr double kPi = 3.14159265358979323846;

// Computed in double and rounded once, so each default is the float nearest the exact angle.
constexpr float degreesToRadians(double degrees) {
  return static_cast<float>(degrees * kPi / 180.0);
}

const char* const kFloatGetter = "KRTracker.getConfigFloatValue";
const char* const kBoolGetter = "KRTracker.getConfigBoolValue";
const char* const kToMap = "KRTracker.configToMap";
const char* const kValueName = "KRValue";

using detail::FastKind;
using detail::kFastBool;
using detail::kFastFloat;
using detail::kFastOther;

std::uint64_t fastWord(const KRValue& value) {
  if (const float* f = value.getIf<float>()) {
    std::uint32_t bits = 0;
    std::memcpy(&bits, f, sizeof bits);
    return (std::uint64_t{kFastFloat} << 32) | bits;
  }
  if (value.isBool()) {
    return (std::uint64_t{kFastBool} << 32) | (value.asBool() ? 1u : 0u);
  }
  return std::uint64_t{kFastOther} << 32;
}

FastKind kindOf(std::uint64_t word) {
  return static_cast<FastKind>(word >> 32);
}

bool hasFastWord(ConfigKey key) {
  return static_cast<unsigned int>(key) < static_cast<unsigned int>(UNKNOWN_CONFIG_KEY);
}

// The word of a key of the global table, read without a lock; "other" for a key out of range.
std::uint64_t readFast(ConfigKey key) {
  if (!hasFastWord(key)) {
    return std::uint64_t{kFastOther} << 32;
  }
  return getConfig()->fFast[static_cast<std::size_t>(key)].load(std::memory_order_acquire);
}

struct DefaultEntry {
  ConfigKey key;
  const char* name;
  KRValue value;
};

// One row per key, in key order.
std::vector<DefaultEntry> defaultEntries() {
  return {
      {HEAD_THRESHOLD, "HEAD_THRESHOLD", degreesToRadians(3.0)},
      {FACE_HEAD_THRESHOLD, "FACE_HEAD_THRESHOLD", degreesToRadians(2.5)},
      {REDBALL_HEAD_THRESHOLD, "REDBALL_HEAD_THRESHOLD", degreesToRadians(1.5)},
      {LANDMARK_HEAD_THRESHOLD, "LANDMARK_HEAD_THRESHOLD", degreesToRadians(2.0)},
      {PEOPLE_HEAD_THRESHOLD, "PEOPLE_HEAD_THRESHOLD", degreesToRadians(5.0)},
      {SOUND_HEAD_THRESHOLD, "SOUND_HEAD_THRESHOLD", degreesToRadians(5.0)},
      {COMPASS_HEAD_THRESHOLD, "COMPASS_HEAD_THRESHOLD", degreesToRadians(5.0)},
      {ARMS_THRESHOLD, "ARMS_THRESHOLD", degreesToRadians(2.5)},
      {WHOLEBODY_THRESHOLD, "WHOLEBODY_THRESHOLD", degreesToRadians(5.0)},
      {LOG_HEAD_COMMAND, "LOG_HEAD_COMMAND", false},
      {LOG_ARM_COMMAND, "LOG_ARM_COMMAND", false},
      {LOG_MOVE_COMMAND, "LOG_MOVE_COMMAND", false},
      {LOG_INPUT_DATA, "LOG_INPUT_DATA", false},
      {HEAD_WZ_LIMIT, "HEAD_WZ_LIMIT", static_cast<float>(2.0 * kPi)},
      {MOVE_X_GAINS, "MOVE_X_GAINS", KRValue{1.1f, 0.0f, 0.0f}},
      {MOVE_Y_GAINS, "MOVE_Y_GAINS", KRValue{0.9f, 0.0f, 0.0f}},
      {MOVE_THETA_GAINS, "MOVE_THETA_GAINS", KRValue{0.5f, 0.0f, 0.0f}},
      {MOVE_LOW_PRIORITY, "MOVE_LOW_PRIORITY", false},
  };
}

// First name (in name order) mapped to key; empty when none.
std::string nameOf(const std::map<std::string, ConfigKey>& names, ConfigKey key) {
  for (const auto& entry : names) {
    if (entry.second == key) {
      return entry.first;
    }
  }
  return std::string();
}

// A copy of the stored value. A missing entry is created empty, as indexing the map does; the
// extraction that follows then refuses it.
KRValue readValue(ConfigKey key) {
  KRGenericTrackerConfig& config = *getConfig();
  {
    std::shared_lock<std::shared_mutex> lock(config.fMutex);
    const auto it = config.fValueMap.find(key);
    if (it != config.fValueMap.end()) {
      return it->second;
    }
  }
  std::unique_lock<std::shared_mutex> lock(config.fMutex);
  return config.fValueMap[key];
}

// Consistent copies of both maps, so that formatting runs without the lock.
void snapshot(std::map<std::string, ConfigKey>& names, std::map<ConfigKey, KRValue>& values) {
  const KRGenericTrackerConfig& config = *getConfig();
  std::shared_lock<std::shared_mutex> lock(config.fMutex);
  names = config.fNameMap;
  values = config.fValueMap;
}

}  // namespace

KRGenericTrackerConfig::KRGenericTrackerConfig() : fLogDirectory("/tmp/tarvo/"), fMaxSize(300) {
  for (auto& entry : defaultEntries()) {
    fNameMap.emplace(entry.name, entry.key);
    fValueMap.emplace(entry.key, std::move(entry.value));
  }
  refreshFast();
}

KRGenericTrackerConfig::KRGenericTrackerConfig(const KRGenericTrackerConfig& o) {
  std::shared_lock<std::shared_mutex> lock(o.fMutex);
  fLogDirectory = o.fLogDirectory;
  fMaxSize = o.fMaxSize;
  fNameMap = o.fNameMap;
  fValueMap = o.fValueMap;
  refreshFast();
}

KRGenericTrackerConfig& KRGenericTrackerConfig::operator=(const KRGenericTrackerConfig& o) {
  if (this == &o) {
    return *this;
  }
  // Copy out under the source's lock, then swap in under ours: never both locks at once.
  KRGenericTrackerConfig copy(o);
  std::unique_lock<std::shared_mutex> lock(fMutex);
  fLogDirectory = std::move(copy.fLogDirectory);
  fMaxSize = copy.fMaxSize;
  fNameMap = std::move(copy.fNameMap);
  fValueMap = std::move(copy.fValueMap);
  refreshFast();
  return *this;
}

void KRGenericTrackerConfig::refreshFast() {
  for (std::size_t key = 0; key < fFast.size(); ++key) {
    const auto it = fValueMap.find(static_cast<ConfigKey>(key));
    const std::uint64_t word =
        it == fValueMap.end() ? std::uint64_t{kFastOther} << 32 : fastWord(it->second);
    fFast[key].store(word, std::memory_order_release);
  }
}

KRGenericTrackerConfig& gTrackerConfig = *getConfig();

const std::string kDiagnosisLogDirectory = ko::os::home() + "/diagnosis/";

void resetConfig() {
  *getConfig() = KRGenericTrackerConfig();
}

ConfigKey getConfigKeyFromStr(const std::string& name) {
  const KRGenericTrackerConfig& config = *getConfig();
  std::shared_lock<std::shared_mutex> lock(config.fMutex);
  const auto it = config.fNameMap.find(name);
  return it == config.fNameMap.end() ? UNKNOWN_CONFIG_KEY : it->second;
}

std::string getStrFromConfigKey(ConfigKey key) {
  const KRGenericTrackerConfig& config = *getConfig();
  std::shared_lock<std::shared_mutex> lock(config.fMutex);
  return nameOf(config.fNameMap, key);
}

namespace detail {

float getConfigFloatValueSlow(ConfigKey key) {
  if (key == UNKNOWN_CONFIG_KEY) {
    throw std::runtime_error(std::string(kFloatGetter) + ": unknown config key.");
  }
  return extractFloat(readValue(key), kFloatGetter, kValueName);
}

}  // namespace detail

std::vector<float> getConfigFloatVectorValue(ConfigKey key) {
  // The vector getter reports an unknown key under the float getter's name.
  if (key == UNKNOWN_CONFIG_KEY) {
    throw std::runtime_error(std::string(kFloatGetter) + ": unknown config key.");
  }
  return extractVectorFloatsFromKRValue(readValue(key), kFloatGetter, kValueName);
}

bool getConfigBoolValue(ConfigKey key) {
  if (key == UNKNOWN_CONFIG_KEY) {
    throw std::runtime_error(std::string(kBoolGetter) + ": unknown config key.");
  }
  const std::uint64_t word = readFast(key);
  if (kindOf(word) == kFastBool) {
    return (word & 1u) != 0;
  }
  const KRValue value = readValue(key);
  if (!value.isBool()) {
    throw std::runtime_error(std::string(kBoolGetter) + ": config value is not a bool.");
  }
  return value.asBool();
}

void setConfigValue(ConfigKey key, const KRValue& value) {
  if (key == UNKNOWN_CONFIG_KEY) {
    throw std::runtime_error("KRTracker.setConfigValue: unknown config key.");
  }
  KRGenericTrackerConfig& config = *getConfig();
  std::unique_lock<std::shared_mutex> lock(config.fMutex);
  KRValue& stored = config.fValueMap[key];
  stored = value;
  if (hasFastWord(key)) {
    config.fFast[static_cast<std::size_t>(key)].store(fastWord(stored), std::memory_order_release);
  }
}

std::string getLogDirectory() {
  const KRGenericTrackerConfig& config = *getConfig();
  std::shared_lock<std::shared_mutex> lock(config.fMutex);
  return config.fLogDirectory;
}

void setLogDirectory(const std::string& directory) {
  KRGenericTrackerConfig& config = *getConfig();
  std::unique_lock<std::shared_mutex> lock(config.fMutex);
  config.fLogDirectory = directory;
}

std::string configToString() {
  std::map<std::string, ConfigKey> names;
  std::map<ConfigKey, KRValue> values;
  snapshot(names, values);

  std::ostringstream out;
  out.setf(std::ios::showpos | std::ios::showpoint | std::ios::left);
  out.unsetf(std::ios::fixed | std::ios::scientific);
  out.precision(4);
  for (const auto& entry : values) {
    out << nameOf(names, entry.first) << ": " << entry.second << std::endl;
  }
  return out.str();
}

namespace {

std::map<std::string, float> numbersOf(bool sayUnsupported) {
  std::map<std::string, ConfigKey> names;
  std::map<ConfigKey, KRValue> values;
  snapshot(names, values);

  std::map<std::string, float> result;
  for (const auto& entry : values) {
    const std::string name = nameOf(names, entry.first);
    const KRValue& value = entry.second;
    if (value.isNumber()) {
      result[name] = extractFloat(value, kToMap, kValueName);
    } else if (value.isBool()) {
      result[name] = value.asBool() ? 1.0f : 0.0f;
    } else if (sayUnsupported) {
      std::cerr << kToMap << ": unsupported value for " << name << " config\n";
    }
  }
  return result;
}

}  // namespace

std::map<std::string, float> configToMap() {
  return numbersOf(true);
}

std::map<std::string, float> configNumbers() {
  return numbersOf(false);
}

void createLogFile(const std::string& path) {
  std::ofstream file(path, std::ios::out | std::ios::trunc);
}

void logToFile(const std::string& path, const std::string& text, const std::string& callerName) {
  std::ofstream file(path, std::ios::out | std::ios::app);
  if (!file.is_open()) {
    std::cerr << callerName << " - could not open: " << path << std::endl;
    return;
  }
  file << text;
}

namespace tools {

void logAnglesToFile(const std::vector<float>& angles, const std::vector<std::string>& names,
                     const std::string& fileName, float time, bool& firstCall) {
  if (angles.empty() || names.empty() || angles.size() != names.size()) {
    return;
  }
  const std::string path = getLogDirectory() + fileName;

  std::ostringstream text;
  if (firstCall) {
    createLogFile(path);
    firstCall = false;
    text << "#Time";
    for (const auto& name : names) {
      text << ' ' << name;
    }
    text << "#\n";
  }
  text << time;
  for (const float angle : angles) {
    text << ' ' << angle;
  }
  text << '\n';
  logToFile(path, text.str(), "logAnglesToFile");
}

}  // namespace tools

}  // namespace Tracker
}  // namespace KR
