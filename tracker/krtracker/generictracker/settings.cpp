// GenericTracker's speed limits, search and detection settings, and the configuration table.

#include <krtracker/generictracker/generictracker.h>

#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <ko/log.h>
#include <kr/value/valueutils.h>

#include <krtracker/config/krgenerictrackerconfig.h>
#include <krtracker/generictracker/trackerinternal.h>
#include <krtracker/tools/tools.h>

namespace KR {
namespace Tracker {

using namespace internal;

namespace {

// A speed limit accepted in [0.001, bound]; otherwise the range error, its interval written
// with 0 as its lower bound, as the clients expect.
float checkedLimit(const char* what, float value, float bound) {
  if (value >= 0.001f && value <= bound) {
    return value;
  }
  std::ostringstream text;
  text << "Invalid " << what << ": \"" << value << "\"."
       << " Could be: ]" << 0 << "; " << bound << "]";
  throw std::runtime_error(text.str());
}

}  // namespace

// ---- speed limits and settings -------------------------------------------------------------

void GenericTracker::setMaximumVelocity(float pVelocity) {
  const float bound = std::min(fModel.head.yaw.maxVelocity, fModel.head.pitch.maxVelocity);
  fLimits[2] = checkedLimit("velocity", pVelocity, bound);
}

float GenericTracker::getMaximumVelocity() const {
  return fLimits[2];
}

void GenericTracker::setMaximumAcceleration(float pAcceleration) {
  fLimits[1] = checkedLimit("acceleration", pAcceleration, 20.0f);
}

float GenericTracker::getMaximumAcceleration() const {
  return fLimits[1];
}

void GenericTracker::setTimeOut(int pTimeOut) {
  guarded("setTimeOut", [&] { fSmootherProxy->call("setTimeOut", pTimeOut); });
}

int GenericTracker::getTimeOut() {
  return guardedOr(0, "getTimeOut", [&] { return fSmootherProxy->call<int>("getTimeOut"); });
}

void GenericTracker::setExtractorPeriod(const std::string& pTarget, int pPeriod) {
  guarded("setExtractorPeriod",
          [&] { fTargetManagerProxy->call("setExtractorPeriod", pTarget, pPeriod); });
}

int GenericTracker::getExtractorPeriod(const std::string& pTarget) {
  return guardedOr(-1, "getExtractorPeriod",
                   [&] { return fTargetManagerProxy->call<int>("getExtractorPeriod", pTarget); });
}

void GenericTracker::setMaximumDistanceDetection(float pDistance) {
  if (!(pDistance > 0.001f)) {
    std::ostringstream text;
    text << "pMaxDistance: " << pDistance << " must be strictly positive.";
    ko::log::warning(fLogName, "setMaximumDistanceDetection", text.str());
    return;
  }
  fMaxDistanceDetection = pDistance;
  guarded("setMaximumDistanceDetection",
          [&] { fSmootherProxy->call("setMaxDistance", pDistance); });
}

float GenericTracker::getMaximumDistanceDetection() const {
  return fMaxDistanceDetection;
}

void GenericTracker::setSearcherFractionMaxSpeed(float pFraction) {
  guarded("setSearcherFractionMaxSpeed",
          [&] { fRoundSearcherProxy->call("setFractionMaxSpeed", pFraction); });
}

float GenericTracker::getSearcherFractionMaxSpeed() {
  return guardedOr(0.0f, "getSearcherFractionMaxSpeed",
                   [&] { return fRoundSearcherProxy->call<float>("getFractionMaxSpeed"); });
}

void GenericTracker::searcherSetUseWholeBodyLookAt(bool pUseWholeBody) {
  guarded("searcherSetUseWholeBodyLookAt",
          [&] { fRoundSearcherProxy->call("setUseWholeBodyLookAt", pUseWholeBody); });
}

void GenericTracker::toggleSearch(bool pEnable) {
  fSearchEnabled = pEnable;
  if (!pEnable) {
    if (fSearcherRunning) {
      xStopSearcher();
    }
  } else if (!fSearcherRunning && fActive) {
    xStartSearcher();
    xRestartSearcher();
  }
}

bool GenericTracker::isSearchEnabled() const {
  return fSearchEnabled;
}

// ---- configuration table -------------------------------------------------------------------

void GenericTracker::setTrackerConfig(const KRValue& pConfig) {
  const std::map<std::string, KRValue> entries =
      extractKeyValueMapFromKRValue(pConfig, "KRTracker: setTrackerConfig");
  for (const auto& entry : entries) {
    const ConfigKey key = getConfigKeyFromStr(entry.first);
    if (key == UNKNOWN_CONFIG_KEY) {
      ko::log::warning(fLogName, "setTrackerConfig",
                       "setTrackerConfig: " + entry.first + " is an unknown key.");
      continue;
    }
    // Stored as given: a value of the wrong kind only fails when the key is read.
    setConfigValue(key, entry.second);
  }
}

std::map<std::string, float> GenericTracker::getTrackerConfig() const {
  return configToMap();
}

std::string GenericTracker::getTrackerConfigStr() const {
  return configToString();
}

}  // namespace Tracker
}  // namespace KR
