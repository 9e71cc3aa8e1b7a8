#include <krsim/tracking/tracker_service.h>

#include <exception>
#include <string>
#include <vector>

#include <kr/error.h>
#include <kr/math/types.h>
#include <kr/value/conversions.h>

#include <krsim/tracking/common.h>

namespace KR {
namespace Sim {

using Tracker::GenericTracker;

TrackerService::TrackerService(const std::shared_ptr<KR::KRBroker>& broker)
    : KRModule(kTrackerServiceModule), fTracker(std::make_unique<GenericTracker>(broker)) {
  fTracker->initialize();
  xBindMethods();
}

TrackerService::~TrackerService() = default;

void TrackerService::xBindMethods() {
  GenericTracker* t = fTracker.get();

  // Lifecycle.
  bind("initialize", &GenericTracker::initialize, t);
  bind("start", &GenericTracker::start, t);
  bind("stop", &GenericTracker::stop, t);
  bind("stopTracker", &GenericTracker::stop, t);
  bind("pause", &GenericTracker::pause, t);
  bind("restart", &GenericTracker::restart, t);
  bind("exit", &GenericTracker::exit, t);
  bind("isActive", &GenericTracker::isActive, t);

  // Targets.
  bind("registerTarget", &GenericTracker::registerTarget, t);
  bind("unregisterTarget", &GenericTracker::unregisterTarget, t);
  bind("unregisterTargets", &GenericTracker::unregisterTargets, t);
  bind("unregisterAllTargets", &GenericTracker::unregisterAllTargets, t);
  bind("getSupportedTargets", &GenericTracker::getSupportedTargets, t);
  bind("getRegisteredTargets", &GenericTracker::getRegisteredTargets, t);
  bind("getActiveTarget", &GenericTracker::getActiveTarget, t);
  bind("track", &GenericTracker::track, t);
  bind("trackEvent", &GenericTracker::trackEvent, t);
  bind("setTargetCoordinates", &GenericTracker::setTargetCoordinates, t);
  bind("getTargetCoordinates", &GenericTracker::getTargetCoordinates, t);
  bind("getTargetPosition", &GenericTracker::getTargetPosition, t);
  bind("getEventName", &GenericTracker::getEventName, t);
  bind("getSecondEventName", &GenericTracker::getSecondEventName, t);

  // Modes and moves.
  bind("setMode", &GenericTracker::setMode, t);
  bind("getMode", &GenericTracker::getMode, t);
  bind("getAvailableModes", &GenericTracker::getAvailableModes, t);
  bind("setMoveConfig", &GenericTracker::setMoveConfig, t);
  bind("getMoveConfig", &GenericTracker::getMoveConfig, t);
  bind("setRelativePosition", &GenericTracker::setRelativePosition, t);
  bind("getRelativePosition", &GenericTracker::getRelativePosition, t);
  bind("setMoveHysteresis", &GenericTracker::setMoveHysteresis, t);
  bind("getMoveHysteresis", &GenericTracker::getMoveHysteresis, t);
  bind("setMoveEvent", &GenericTracker::setMoveEvent, t);
  bind("getRobotPosition", &GenericTracker::getRobotPosition, t);

  // Effectors.
  bind("setEffector", &GenericTracker::setEffector, t);
  bind("getEffector", &GenericTracker::getEffector, t);
  bind("addEffector", &GenericTracker::addEffector, t);
  bind("removeEffector", &GenericTracker::removeEffector, t);

  // Speeds, smoother and searcher.
  bind("setMaximumVelocity", &GenericTracker::setMaximumVelocity, t);
  bind("getMaximumVelocity", &GenericTracker::getMaximumVelocity, t);
  bind("setMaximumAcceleration", &GenericTracker::setMaximumAcceleration, t);
  bind("getMaximumAcceleration", &GenericTracker::getMaximumAcceleration, t);
  bind("setTimeOut", &GenericTracker::setTimeOut, t);
  bind("getTimeOut", &GenericTracker::getTimeOut, t);
  bind("setExtractorPeriod", &GenericTracker::setExtractorPeriod, t);
  bind("getExtractorPeriod", &GenericTracker::getExtractorPeriod, t);
  bind("setMaximumDistanceDetection", &GenericTracker::setMaximumDistanceDetection, t);
  bind("getMaximumDistanceDetection", &GenericTracker::getMaximumDistanceDetection, t);
  bind("setSearcherFractionMaxSpeed", &GenericTracker::setSearcherFractionMaxSpeed, t);
  bind("getSearcherFractionMaxSpeed", &GenericTracker::getSearcherFractionMaxSpeed, t);
  bind("searcherSetUseWholeBodyLookAt", &GenericTracker::searcherSetUseWholeBodyLookAt, t);
  bind("toggleSearch", &GenericTracker::toggleSearch, t);
  bind("isSearchEnabled", &GenericTracker::isSearchEnabled, t);

  // One-shot looks and points.
  bindRaw("lookAt", [t](const std::vector<KRValue>& a) {
    if (a.size() == 4) {
      t->lookAt(fromKRValue<std::vector<float>>(a[0], "argument"),
                fromKRValue<Math::FRAME>(a[1], "argument"), fromKRValue<float>(a[2], "argument"),
                fromKRValue<bool>(a[3], "argument"));
    } else if (a.size() == 5) {
      t->lookAt(fromKRValue<std::vector<float>>(a[0], "argument"),
                fromKRValue<Math::FRAME>(a[1], "argument"), fromKRValue<int>(a[2], "argument"),
                fromKRValue<float>(a[3], "argument"), fromKRValue<bool>(a[4], "argument"));
    } else {
      throw KRError(kTrackerServiceModule, "lookAt",
                    "expects (position, frame, fraction, wholeBody) or (position, frame, "
                    "effectorId, fraction, wholeBody), not " +
                        std::to_string(a.size()) + " arguments");
    }
    return KRValue();
  });
  bind("lookAtAndMove", &GenericTracker::lookAtAndMove, t);
  bind("pointAt", &GenericTracker::pointAt, t);
  bind("stopLookAt", &GenericTracker::stopLookAt, t);
  bind("stopPointAt", &GenericTracker::stopPointAt, t);

  // Configuration table.
  bind("setTrackerConfig", &GenericTracker::setTrackerConfig, t);
  bind("getTrackerConfig", [t]() {
    KRValue::Array pairs;
    for (const auto& entry : t->getTrackerConfig()) {
      pairs.push_back(KRValue{KRValue(entry.first), KRValue(entry.second)});
    }
    return KRValue(std::move(pairs));
  });
  bind("getTrackerConfigStr", &GenericTracker::getTrackerConfigStr, t);
}

}  // namespace Sim
}  // namespace KR
