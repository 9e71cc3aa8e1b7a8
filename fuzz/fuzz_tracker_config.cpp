// setTrackerConfig with any KRValue, then every typed getter on every key. The only errors are
// the documented ones: the pair extraction's KRError, the getters' runtime errors with their
// exact texts, and the platform extraction's KRError for a value of the wrong kind. What was
// set is what the getters return.

#include <cmath>
#include <cstdint>
#include <fstream>
#include <map>
#include <memory>
#include <shared_mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <kr/error.h>
#include <kr/value/valueutils.h>
#include <krtracker/config/krgenerictrackerconfig.h>
#include <krtracker/generictracker/generictracker.h>
#include <krtracker/generictracker/submodules.h>

#include "fuzz_support.h"
#include "krvalue_gen.h"

using KR::KRValue;
namespace T = KR::Tracker;

namespace {

std::unique_ptr<T::GenericTracker> gTracker;

std::string robotDescription() {
  std::ifstream in(std::string(KRTRACKER_ROBOTS_DIR) + "/kibo.xml");
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// A broker whose sub-modules accept everything: setTrackerConfig calls none of them.
void buildTracker() {
  static std::shared_ptr<KR::KRBroker> broker = KR::KRBroker::create();
  const std::string description = robotDescription();
  std::vector<std::string> names{"KRMotion", "KRMemory", "KRRobotModel"};
  names.insert(names.end(), T::kSubModules.begin(), T::kSubModules.end());
  for (const std::string& name : names) {
    broker->addModule(std::make_shared<krfuzz::ScriptedModule>(
        name, [description](const std::string& method, const std::vector<KRValue>&) {
          return method == "getConfig" ? KRValue(description) : KRValue();
        }));
  }
  gTracker = std::make_unique<T::GenericTracker>(broker);
}

bool isNumbers(const KRValue& v) {
  if (!v.isArray()) {
    return false;
  }
  for (const KRValue& e : v.asArray()) {
    if (!e.isNumber()) {
      return false;
    }
  }
  return true;
}

bool sameFloat(float a, float b) {
  return a == b || (std::isnan(a) && std::isnan(b));
}

template <class F>
void expectError(F&& get, const std::string& text, const std::string& context) {
  try {
    get();
  } catch (const std::runtime_error& e) {
    FUZZ_CHECK(e.what() == text, context + ": " + e.what());
    return;
  }
  FUZZ_CHECK(false, context + ": no error, expected " + text);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  krfuzz::quietLogs();
  buildTracker();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  krfuzz::FuzzInput in(data, size);
  const KRValue config = krfuzz::makeValue(in);
  T::resetConfig();

  std::map<std::string, KRValue> pairs;
  bool wellFormed = true;
  try {
    pairs = KR::extractKeyValueMapFromKRValue(config, "reference");
  } catch (const KR::KRError&) {
    wellFormed = false;
  }
  try {
    gTracker->setTrackerConfig(config);
    FUZZ_CHECK(wellFormed, "accepted " + config.toString());
  } catch (const KR::KRError& e) {
    FUZZ_CHECK(!wellFormed, std::string("refused well-formed pairs: ") + e.what());
    return 0;
  }

  // What each key holds now: its default, or the last value given for its name.
  std::map<T::ConfigKey, KRValue> stored;
  {
    const T::KRGenericTrackerConfig& defaults = *T::getConfig();
    std::shared_lock<std::shared_mutex> lock(defaults.fMutex);
    stored = defaults.fValueMap;
  }
  for (const auto& pair : pairs) {
    const T::ConfigKey key = T::getConfigKeyFromStr(pair.first);
    if (key != T::UNKNOWN_CONFIG_KEY) {
      FUZZ_CHECK(T::getStrFromConfigKey(key) == pair.first, pair.first);
      stored[key] = pair.second;
    }
  }

  const std::map<std::string, float> asMap = gTracker->getTrackerConfig();
  (void)gTracker->getTrackerConfigStr();
  for (const auto& entry : stored) {
    const T::ConfigKey key = entry.first;
    const KRValue& value = entry.second;
    const std::string name = T::getStrFromConfigKey(key);
    const std::string context = name + " holding " + value.toString();

    try {
      const float f = T::getConfigFloatValue(key);
      FUZZ_CHECK(value.isNumber() && sameFloat(f, value.asFloat()), context);
    } catch (const KR::KRError&) {
      FUZZ_CHECK(!value.isNumber(), context + ": the float getter refused it");
    }
    try {
      const std::vector<float> v = T::getConfigFloatVectorValue(key);
      FUZZ_CHECK(isNumbers(value) && v.size() == value.size(), context);
      for (std::size_t i = 0; i < v.size(); ++i) {
        FUZZ_CHECK(sameFloat(v[i], value[i].asFloat()), context);
      }
    } catch (const KR::KRError&) {
      FUZZ_CHECK(!isNumbers(value), context + ": the vector getter refused it");
    }
    try {
      const bool b = T::getConfigBoolValue(key);
      FUZZ_CHECK(value.isBool() && b == value.asBool(), context);
    } catch (const std::runtime_error& e) {
      FUZZ_CHECK(!value.isBool() && std::string(e.what()) ==
                                        "KRTracker.getConfigBoolValue: config value is not a bool.",
                 context + ": " + e.what());
    }
    // The map holds exactly the numbers and the bools.
    FUZZ_CHECK((asMap.count(name) != 0) == (value.isNumber() || value.isBool()), context);
  }
  expectError([] { T::getConfigFloatValue(T::UNKNOWN_CONFIG_KEY); },
              "KRTracker.getConfigFloatValue: unknown config key.", "float getter");
  expectError([] { T::getConfigFloatVectorValue(T::UNKNOWN_CONFIG_KEY); },
              "KRTracker.getConfigFloatValue: unknown config key.", "vector getter");
  expectError([] { T::getConfigBoolValue(T::UNKNOWN_CONFIG_KEY); },
              "KRTracker.getConfigBoolValue: unknown config key.", "bool getter");
  return 0;
}
