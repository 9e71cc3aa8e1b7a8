#pragma once
// The process-wide table of tracker configuration values, its typed getters, and the
// diagnostic log files written under its directory.

#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <map>
#include <shared_mutex>
#include <string>
#include <vector>

#include <kr/value/krvalue.h>

namespace KR {
namespace Tracker {

/// Configuration keys; the value is the key's position in the table.
enum ConfigKey : int {
  HEAD_THRESHOLD = 0,
  FACE_HEAD_THRESHOLD = 1,
  REDBALL_HEAD_THRESHOLD = 2,
  LANDMARK_HEAD_THRESHOLD = 3,
  PEOPLE_HEAD_THRESHOLD = 4,
  SOUND_HEAD_THRESHOLD = 5,
  COMPASS_HEAD_THRESHOLD = 6,
  ARMS_THRESHOLD = 7,
  WHOLEBODY_THRESHOLD = 8,
  LOG_HEAD_COMMAND = 9,
  LOG_ARM_COMMAND = 10,
  LOG_MOVE_COMMAND = 11,
  LOG_INPUT_DATA = 12,
  HEAD_WZ_LIMIT = 13,
  MOVE_X_GAINS = 14,
  MOVE_Y_GAINS = 15,
  MOVE_THETA_GAINS = 16,
  MOVE_LOW_PRIORITY = 17,
  UNKNOWN_CONFIG_KEY = 18,  // answer of the name lookup for an absent name; never stored
};

/// The table. Its maps are ordered: the value map iterates in key order (0 to 17), the name
/// map in byte order of the names. An internal reader/writer lock makes concurrent readers and
/// writers of the global table free of data races; it changes nothing of what is returned.
/// The float and bool getters read lock-free copies of the entries instead (see fFast).
class KRGenericTrackerConfig {
 public:
  /// The defaults: directory "/tmp/tarvo/", the integer 300, eighteen keys.
  KRGenericTrackerConfig();
  KRGenericTrackerConfig(const KRGenericTrackerConfig& o);
  KRGenericTrackerConfig& operator=(const KRGenericTrackerConfig& o);

  std::string fLogDirectory;
  std::int32_t fMaxSize;  // 300; read by nothing, kept with the table
  std::map<std::string, ConfigKey> fNameMap;
  std::map<ConfigKey, KRValue> fValueMap;

  /// The lock that every accessor of the global table takes, except the fast getters.
  mutable std::shared_mutex fMutex;

  /// One word per key, read without a lock by the float and bool getters: the kind of a
  /// stored float or bool and its bits, or "other" (the getters then take the lock). Writers
  /// change fValueMap only through setConfigValue, resetConfig or the assignment, which
  /// refresh the word under the lock.
  std::array<std::atomic<std::uint64_t>, UNKNOWN_CONFIG_KEY> fFast;
  /// Refreshes every word from fValueMap; the caller holds fMutex exclusively.
  void refreshFast();
};

/// Log directory of the diagnostic files under the home directory: home + "/diagnosis/".
extern const std::string kDiagnosisLogDirectory;

/// The global table, built at library load. Code that may run during static initialisation
/// must go through getConfig() instead.
extern KRGenericTrackerConfig& gTrackerConfig;

/// The global table (built on first use, so safe during static initialisation).
inline KRGenericTrackerConfig* getConfig() {
  static KRGenericTrackerConfig instance;
  return &instance;
}
/// Replaces the global table by a freshly built default table.
void resetConfig();

/// Exact, case-sensitive lookup; UNKNOWN_CONFIG_KEY (18) when absent.
ConfigKey getConfigKeyFromStr(const std::string& name);
/// The name of a key; empty when none.
std::string getStrFromConfigKey(ConfigKey key);

namespace detail {
/// The kind held in the high half of a word of KRGenericTrackerConfig::fFast; the low half
/// holds the bits of the float or bool.
enum FastKind : std::uint32_t { kFastOther = 0, kFastFloat = 1, kFastBool = 2 };
/// Every case of getConfigFloatValue but a stored float: ints, other kinds, errors.
float getConfigFloatValueSlow(ConfigKey key);
}  // namespace detail

/// Read in every control cycle, hence inline: a stored float comes from its lock-free word,
/// with no lock, no copy of the value and no call.
inline float getConfigFloatValue(ConfigKey key) {
  if (static_cast<unsigned int>(key) < static_cast<unsigned int>(UNKNOWN_CONFIG_KEY)) {
    const std::uint64_t word = getConfig()->fFast[key].load(std::memory_order_acquire);
    if (word >> 32 == detail::kFastFloat) {
      const auto bits = static_cast<std::uint32_t>(word);
      float value = 0.0f;
      std::memcpy(&value, &bits, sizeof value);
      return value;
    }
  }
  return detail::getConfigFloatValueSlow(key);
}
std::vector<float> getConfigFloatVectorValue(ConfigKey key);
bool getConfigBoolValue(ConfigKey key);

/// Stores a value under a key without examining its kind (used by setTrackerConfig).
void setConfigValue(ConfigKey key, const KRValue& value);
/// The log directory of the global table (thread-safe copy).
std::string getLogDirectory();
/// Changes the log directory of the global table, until the next resetConfig.
void setLogDirectory(const std::string& directory);

/// Eighteen lines "NAME: value" in key order, values printed with showpos, showpoint and
/// precision 4.
std::string configToString();
/// Name to float for float, int and bool values; other kinds are left out with a line on
/// standard error.
std::map<std::string, float> configToMap();
/// The same map, other kinds left out silently: for programs that copy the table rather than
/// show it to a person.
std::map<std::string, float> configNumbers();

// ---- diagnostic log files ----------------------------------------------------------------

/// Creates the file or empties it; a failure is silent.
void createLogFile(const std::string& path);
/// Appends text; on failure writes "<caller> - could not open: <path>" to standard error.
void logToFile(const std::string& path, const std::string& text, const std::string& callerName);

namespace tools {
/// Appends "time a1 a2 ..." to <log directory><fileName>; on the first call (firstCall true)
/// truncates the file, writes the header "#Time n1 n2 ...#" and clears firstCall. Empty or
/// mismatched lists write nothing.
void logAnglesToFile(const std::vector<float>& angles, const std::vector<std::string>& names,
                     const std::string& fileName, float time, bool& firstCall);
}  // namespace tools

}  // namespace Tracker
}  // namespace KR
