// GenericTracker's targets: registering them with the target manager, choosing the one to
// track, and the coordinates and event names of a target.

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

// ---- targets -------------------------------------------------------------------------------

void GenericTracker::registerTarget(const std::string& pTarget, const KRValue& pParams) {
  guarded("registerTarget", [&] { fTargetManagerProxy->call("addTarget", pTarget, pParams); });
}

void GenericTracker::unregisterTarget(const std::string& pTarget) {
  guarded("unregisterTarget", [&] { fTargetManagerProxy->call("removeTarget", pTarget); });
}

void GenericTracker::unregisterTargets(const std::vector<std::string>& pTargets) {
  guarded("unregisterTargets", [&] { fTargetManagerProxy->call("removeTargets", pTargets); });
}

void GenericTracker::unregisterAllTargets() {
  xSetTargetName("");
  guarded("unregisterAllTargets", [&] { fTargetManagerProxy->call("removeAllTargets"); });
}

std::vector<std::string> GenericTracker::getSupportedTargets() {
  return guardedOr(std::vector<std::string>(), "getSupportedTargets", [&] {
    return fTargetManagerProxy->call<std::vector<std::string>>("getSupportedTargets");
  });
}

std::vector<std::string> GenericTracker::getRegisteredTargets() {
  return guardedOr(std::vector<std::string>(), "getRegisteredTargets", [&] {
    return fTargetManagerProxy->call<std::vector<std::string>>("getRegisteredTargets");
  });
}

std::string GenericTracker::getActiveTarget() const {
  return xGetTargetName();
}

void GenericTracker::track(const std::string& pTarget) {
  if (pTarget == xGetTargetName()) {
    ko::log::verbose(fLogName, "track", "Target name: " + pTarget + " is already tracked.");
    return;
  }
  // Set before the registration check, and kept when the request is refused.
  fNotLandMarks = (pTarget != Target::TargetLandMarks);

  // Unlike the other forwarders, a failure here ends the request.
  bool managed = false;
  if (!guarded("track",
               [&] { managed = fTargetManagerProxy->call<bool>("isTargetManaged", pTarget); })) {
    return;
  }
  if (!managed) {
    ko::log::warning(
        fLogName, "track",
        "Target name: " + pTarget + " is not registered." + " Register the target before track.");
    return;
  }
  if (!guarded("track", [&] { fTargetManagerProxy->call("setActiveTarget", pTarget); })) {
    return;
  }

  xSetTargetName(pTarget);
  fIsEventTracking = false;
  if (!fActive) {
    start();
  } else {
    xRestartSmoother();
  }
}

void GenericTracker::trackEvent(const std::string& pEventName) {
  if (pEventName == xGetTargetName()) {
    ko::log::verbose(fLogName, "trackEvent", "Event name: " + pEventName + " is already tracked.");
    return;
  }
  xSetTargetName(pEventName);
  fIsEventTracking = true;
  fNotLandMarks = true;

  // Unlike track(), a failure here does not stop the request.
  guarded("trackEvent", [&] { fTargetManagerProxy->call("setActiveEvent", pEventName); });

  if (!fActive) {
    start();
  } else {
    xRestartSmoother();
  }
}

void GenericTracker::setTargetCoordinates(const KRValue& pCoordinates) {
  if (!isArrayOfSize(pCoordinates, 2)) {
    ko::log::warning(fLogName, "setTargetCoordinates",
                     std::string("setTargetCoordinates -> coordinates are not valid.") +
                         " The format is: [[x, y, z], [x, y, z]].");
    return;
  }
  {
    std::lock_guard<std::mutex> lock(fTargetCoordinatesMutex);
    fTargetCoordinates = pCoordinates;
  }
  if (fActive) {
    xSetCoordinates();
  }
}

KRValue GenericTracker::getTargetCoordinates() const {
  return xGetTargetCoordinates();
}

KRValue GenericTracker::xGetTargetCoordinates() const {
  std::lock_guard<std::mutex> lock(fTargetCoordinatesMutex);
  return fTargetCoordinates;
}

std::vector<float> GenericTracker::getTargetPosition(Math::FRAME pFrame) {
  const std::vector<float> position = guardedOr(std::vector<float>(), "getTargetPosition", [&] {
    return fTargetManagerProxy->call<std::vector<float>>("getActiveTargetPosition");
  });
  if (position.empty()) {
    return position;
  }
  // The target manager answers in the torso frame.
  const Math::Position3D inTorso(position);
  return tools::convertTorsoFrameToDesiredFrame(fMotionProxy, inTorso, pFrame).toVector();
}

std::string GenericTracker::getEventName() const {
  return xGetEventName(false);
}

std::string GenericTracker::getSecondEventName() const {
  return xGetEventName(true);
}

std::string GenericTracker::xGetEventName(bool pSecond) const {
  return guardedOr(std::string(), "xGetEventName", [&] {
    return fTargetManagerProxy->call<std::string>(pSecond ? "getSecondEventName" : "getEventName");
  });
}

void GenericTracker::xSetTargetName(const std::string& pName) {
  std::lock_guard<std::mutex> lock(fTargetNameMutex);
  fTargetName = pName;
}

std::string GenericTracker::xGetTargetName() const {
  std::lock_guard<std::mutex> lock(fTargetNameMutex);
  return fTargetName;
}

void GenericTracker::xSetTarget(const KRValue& pRelativePosition) {
  std::lock_guard<std::mutex> lock(fTargetMutex);
  fRelativePosition = pRelativePosition;
}

KRValue GenericTracker::xGetTarget() const {
  std::lock_guard<std::mutex> lock(fTargetMutex);
  return fRelativePosition;
}

void GenericTracker::xSetCoordinates() {
  const std::string name = xGetTargetName();
  if (name != Target::TargetLandMarks) {
    return;
  }
  const KRValue coordinates = xGetTargetCoordinates();
  if (!isArrayOfSize(coordinates, 2)) {
    return;
  }
  guarded("xSetCoordinates", [&] {
    const std::vector<int> ids = fTargetManagerProxy->call<std::vector<int>>("getTargetIds", name);
    if (ids.size() != 2) {
      ko::log::warning(
          fLogName, "xSetCoordinates",
          std::string("setTargetCoordinates -> coordinates not") + " set not get valid ids.");
      return;
    }
    const KRValue map{KRValue{ids[0], coordinates[0]}, KRValue{ids[1], coordinates[1]}};
    fSmootherProxy->call("setTargetIds", ids[0], ids[1]);
    fSmootherProxy->call("setMap", map);
  });
}

}  // namespace Tracker
}  // namespace KR
