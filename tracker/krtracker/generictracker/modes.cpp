// GenericTracker's modes (head, whole body, move, navigate) and its move configuration.

#include <krtracker/generictracker/generictracker.h>

#include <string>
#include <vector>

#include <ko/log.h>
#include <kr/target/targets.h>
#include <kr/value/valueutils.h>

#include <krtracker/generictracker/trackerinternal.h>
#include <krtracker/tools/tools.h>

namespace KR {
namespace Tracker {

using namespace internal;

// ---- modes and move configuration ----------------------------------------------------------

void GenericTracker::setMode(const std::string& pMode) {
  std::lock_guard<std::mutex> lock(fModeMutex);
  // Compared with the requested name: "MoveSafely" while in "Move" reconfigures again.
  if (pMode == fMode) {
    return;
  }
  std::string mode = pMode;
  if (mode == MoveSafelyMode) {
    ko::log::warning(
        fLogName, "setMode",
        "Tracker mode: " + mode + " is deprecated. Use " + MoveMotionMode + " mode instead.");
    mode = MoveMotionMode;
  }
  if (!xIsValidMode(mode)) {
    std::string list;
    for (std::size_t i = 0; i < fAvailableModes.size(); ++i) {
      if (i > 0) {
        list += ", ";
      }
      list += fAvailableModes[i];
    }
    ko::log::warning(fLogName, "setMode",
                     "Mode : " + mode + " is not valid. Must be: [" + list + "]");
    return;
  }
  fMode = mode;
  xUpdateMode();
}

std::string GenericTracker::getMode() const {
  return xGetMode();
}

std::string GenericTracker::xGetMode() const {
  std::lock_guard<std::mutex> lock(fModeMutex);
  return fMode;
}

std::vector<std::string> GenericTracker::getAvailableModes() const {
  return fAvailableModes;
}

bool GenericTracker::xIsValidMode(const std::string& pMode) const {
  return std::find(fAvailableModes.begin(), fAvailableModes.end(), pMode) != fAvailableModes.end();
}

void GenericTracker::xUpdateMode() {
  if (!fActive) {
    return;
  }
  const std::string& mode = fMode;  // the caller holds fModeMutex

  if (mode == MoveWBMode) {
    // Kept although setMode never selects it; this sequence alone lets failures through.
    fHeadLookerProxy->call("stopLooker");
    fNavigationMoveProxy->call("stopMove");
    fWholeBodyLookerProxy->call("start");
    fMotionMoveProxy->call("start");
    return;
  }

  guarded("xUpdateMode", [&] {
    if (mode == HeadMode) {
      fMotionMoveProxy->call("stopMove");
      fNavigationMoveProxy->call("stopMove");
      fWholeBodyLookerProxy->call("stopLooker");
      xStartHeadLooker();
    } else if (mode == WholeBodyMode) {
      fMotionMoveProxy->call("stopMove");
      fNavigationMoveProxy->call("stopMove");
      fHeadLookerProxy->call("stopLooker");
      fWholeBodyLookerProxy->call("start");
    } else if (mode == NavigateMode) {
      fWholeBodyLookerProxy->call("stopLooker");
      fMotionMoveProxy->call("stopMove");
      xStartHeadLooker();
      fNavigationMoveProxy->call("setParam", xGetMoveConfig());
      fNavigationMoveProxy->call("start");
    } else if (mode == MoveMotionMode) {
      // The navigation mover keeps its own move running here.
      fWholeBodyLookerProxy->call("stopLooker");
      fNavigationMoveProxy->call("stopWithoutStopMove");
      xStartHeadLooker();
      fMotionMoveProxy->call("start");
    } else {
      ko::log::warning(fLogName, "xUpdateMode", "Tracker mode: " + mode + " is not valid");
    }
  });
}

void GenericTracker::setMoveConfig(const KRValue& pConfig) {
  {
    std::lock_guard<std::mutex> lock(fMoveConfigMutex);
    fMoveConfig = pConfig;
  }
  guarded("setMoveConfig", [&] { fMotionMoveProxy->call("setParam", pConfig); });
  if (xGetMode() == NavigateMode) {
    guarded("setMoveConfig", [&] { fNavigationMoveProxy->call("setParam", pConfig); });
  }
}

KRValue GenericTracker::getMoveConfig() const {
  return xGetMoveConfig();
}

KRValue GenericTracker::xGetMoveConfig() const {
  std::lock_guard<std::mutex> lock(fMoveConfigMutex);
  return fMoveConfig;
}

void GenericTracker::setRelativePosition(const KRValue& pPosition) {
  // Three elements are enough to be accepted.
  if (!pPosition.isValid() || !pPosition.isArray() || pPosition.size() < 3) {
    ko::log::warning(fLogName, "setRelativePosition",
                     std::string("Relative position is not valid. Could be ") +
                         "[coordX, coordY, coordWz, " + "thresholdX, thresholdY, thresholdWz].");
    return;
  }
  xSetTarget(pPosition);
  if (fActive) {
    guarded("setRelativePosition", [&] { fSmootherProxy->call("setTarget", xGetTarget()); });
  }
}

KRValue GenericTracker::getRelativePosition() const {
  return xGetTarget();
}

void GenericTracker::setMoveHysteresis(const std::vector<float>& pHysteresis) {
  fSmootherProxy->call("_setMoveHysteresis", pHysteresis);
}

std::vector<float> GenericTracker::getMoveHysteresis() {
  return fSmootherProxy->call<std::vector<float>>("_getMoveHysteresis");
}

void GenericTracker::setMoveEvent(const std::string& pEventName) {
  guarded("setMoveEvent", [&] { fSmootherProxy->call("_setMoveEvent", pEventName); });
}

std::vector<float> GenericTracker::getRobotPosition() {
  if (xGetTargetName() != Target::TargetLandMarks) {
    return {};
  }
  const KRValue position = fSmootherProxy->call<KRValue>("getPosition");
  if (!isArrayOfSize(position, 6)) {
    return {};
  }
  return extractVectorFloatsFromKRValue(position, fLogName, "position");
}

}  // namespace Tracker
}  // namespace KR
