#include <krsim/tracking/tracker_service.h>

#include <exception>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <kr/error.h>
#include <kr/math/types.h>
#include <kr/value/conversions.h>
#include <krtracker/config/krgenerictrackerconfig.h>

namespace KR {
namespace Sim {

using Tracker::GenericTracker;

namespace {

/// "lookAt"'s arguments in either form: (position, frame, fraction, wholeBody) or (position,
/// frame, effectorId, fraction, wholeBody). KRError for another count or an argument that
/// does not convert ("argument N must be ...").
struct LookAtArguments {
  explicit LookAtArguments(const std::vector<KRValue>& a) {
    if (a.size() != 4 && a.size() != 5)
      throw KRError(kTrackerServiceModule, "lookAt",
                    "expects 4 or 5 arguments, got " + std::to_string(a.size()));
    const bool withEffector = a.size() == 5;
    position = fromKRValue<std::vector<float>>(a[0], "argument 1");
    frame = fromKRValue<Math::FRAME>(a[1], "argument 2");
    if (withEffector)
      effectorId = fromKRValue<int>(a[2], "argument 3");
    fraction = fromKRValue<float>(a[a.size() - 2], withEffector ? "argument 4" : "argument 3");
    wholeBody = fromKRValue<bool>(a.back(), withEffector ? "argument 5" : "argument 4");
  }

  std::vector<float> position;
  Math::FRAME frame = Math::FRAME_TORSO;
  std::optional<int> effectorId;
  float fraction = 0.0f;
  bool wholeBody = false;
};

void lookAt(GenericTracker& t, const std::vector<KRValue>& a) {
  const LookAtArguments args(a);
  if (args.effectorId) {
    t.lookAt(args.position, args.frame, *args.effectorId, args.fraction, args.wholeBody);
  } else {
    t.lookAt(args.position, args.frame, args.fraction, args.wholeBody);
  }
}

void bindLifecycle(KRModule& service, GenericTracker* t) {
  service.bind("initialize", &GenericTracker::initialize, t);
  service.bind("start", &GenericTracker::start, t);
  service.bind("stop", &GenericTracker::stop, t);
  service.bind("stopTracker", &GenericTracker::stop, t);
  service.bind("pause", &GenericTracker::pause, t);
  service.bind("restart", &GenericTracker::restart, t);
  service.bind("exit", &GenericTracker::exit, t);
  service.bind("isActive", &GenericTracker::isActive, t);
}

void bindTargets(KRModule& service, GenericTracker* t) {
  service.bind("registerTarget", &GenericTracker::registerTarget, t);
  service.bind("unregisterTarget", &GenericTracker::unregisterTarget, t);
  service.bind("unregisterTargets", &GenericTracker::unregisterTargets, t);
  service.bind("unregisterAllTargets", &GenericTracker::unregisterAllTargets, t);
  service.bind("getSupportedTargets", &GenericTracker::getSupportedTargets, t);
  service.bind("getRegisteredTargets", &GenericTracker::getRegisteredTargets, t);
  service.bind("getActiveTarget", &GenericTracker::getActiveTarget, t);
  service.bind("track", &GenericTracker::track, t);
  service.bind("trackEvent", &GenericTracker::trackEvent, t);
  service.bind("setTargetCoordinates", &GenericTracker::setTargetCoordinates, t);
  service.bind("getTargetCoordinates", &GenericTracker::getTargetCoordinates, t);
  service.bind("getTargetPosition", &GenericTracker::getTargetPosition, t);
  service.bind("getEventName", &GenericTracker::getEventName, t);
  service.bind("getSecondEventName", &GenericTracker::getSecondEventName, t);
}

void bindModesAndMoves(KRModule& service, GenericTracker* t) {
  service.bind("setMode", &GenericTracker::setMode, t);
  service.bind("getMode", &GenericTracker::getMode, t);
  service.bind("getAvailableModes", &GenericTracker::getAvailableModes, t);
  service.bind("setMoveConfig", &GenericTracker::setMoveConfig, t);
  service.bind("getMoveConfig", &GenericTracker::getMoveConfig, t);
  service.bind("setRelativePosition", &GenericTracker::setRelativePosition, t);
  service.bind("getRelativePosition", &GenericTracker::getRelativePosition, t);
  service.bind("setMoveHysteresis", &GenericTracker::setMoveHysteresis, t);
  service.bind("getMoveHysteresis", &GenericTracker::getMoveHysteresis, t);
  service.bind("setMoveEvent", &GenericTracker::setMoveEvent, t);
  service.bind("getRobotPosition", &GenericTracker::getRobotPosition, t);
}

void bindEffectors(KRModule& service, GenericTracker* t) {
  service.bind("setEffector", &GenericTracker::setEffector, t);
  service.bind("getEffector", &GenericTracker::getEffector, t);
  service.bind("addEffector", &GenericTracker::addEffector, t);
  service.bind("removeEffector", &GenericTracker::removeEffector, t);
}

void bindSpeedsSmootherAndSearcher(KRModule& service, GenericTracker* t) {
  service.bind("setMaximumVelocity", &GenericTracker::setMaximumVelocity, t);
  service.bind("getMaximumVelocity", &GenericTracker::getMaximumVelocity, t);
  service.bind("setMaximumAcceleration", &GenericTracker::setMaximumAcceleration, t);
  service.bind("getMaximumAcceleration", &GenericTracker::getMaximumAcceleration, t);
  service.bind("setTimeOut", &GenericTracker::setTimeOut, t);
  service.bind("getTimeOut", &GenericTracker::getTimeOut, t);
  service.bind("setExtractorPeriod", &GenericTracker::setExtractorPeriod, t);
  service.bind("getExtractorPeriod", &GenericTracker::getExtractorPeriod, t);
  service.bind("setMaximumDistanceDetection", &GenericTracker::setMaximumDistanceDetection, t);
  service.bind("getMaximumDistanceDetection", &GenericTracker::getMaximumDistanceDetection, t);
  service.bind("setSearcherFractionMaxSpeed", &GenericTracker::setSearcherFractionMaxSpeed, t);
  service.bind("getSearcherFractionMaxSpeed", &GenericTracker::getSearcherFractionMaxSpeed, t);
  service.bind("searcherSetUseWholeBodyLookAt", &GenericTracker::searcherSetUseWholeBodyLookAt, t);
  service.bind("toggleSearch", &GenericTracker::toggleSearch, t);
  service.bind("isSearchEnabled", &GenericTracker::isSearchEnabled, t);
}

void bindLooksAndPoints(KRModule& service, GenericTracker* t) {
  service.bindRaw(
      "lookAt",
      [t](const std::vector<KRValue>& a) {
        lookAt(*t, a);
        return KRValue();
      },
      [](const std::vector<KRValue>& a) { (void)LookAtArguments(a); });
  service.bind("lookAtAndMove", &GenericTracker::lookAtAndMove, t);
  service.bind("pointAt", &GenericTracker::pointAt, t);
  service.bind("stopLookAt", &GenericTracker::stopLookAt, t);
  service.bind("stopPointAt", &GenericTracker::stopPointAt, t);
}

/// [[name, value], ...] in name order.
KRValue configPairs(const std::map<std::string, float>& config) {
  KRValue::Array pairs;
  for (const auto& entry : config)
    pairs.push_back(KRValue{KRValue(entry.first), KRValue(entry.second)});
  return KRValue(std::move(pairs));
}

void bindConfiguration(KRModule& service, GenericTracker* t) {
  service.bind("setTrackerConfig", &GenericTracker::setTrackerConfig, t);
  service.bind("getTrackerConfig", [t]() { return configPairs(t->getTrackerConfig()); });
  service.bind("getTrackerConfigStr", &GenericTracker::getTrackerConfigStr, t);
  // The same pairs without a line on standard error for each value that is not a number: for
  // a process that copies the table after each change rather than shows it.
  service.bind("_copyTrackerConfig", []() { return configPairs(Tracker::configNumbers()); });
}

}  // namespace

void bindTrackerMethods(KRModule& service, Tracker::GenericTracker* t) {
  bindLifecycle(service, t);
  bindTargets(service, t);
  bindModesAndMoves(service, t);
  bindEffectors(service, t);
  bindSpeedsSmootherAndSearcher(service, t);
  bindLooksAndPoints(service, t);
  bindConfiguration(service, t);
}

const KRModule& trackerMethodTable() {
  static const auto kTable = [] {
    auto table = std::make_unique<KRModule>(kTrackerServiceModule);
    bindTrackerMethods(*table, nullptr);
    return table;
  }();
  return *kTable;
}

TrackerService::TrackerService(const std::shared_ptr<KR::KRBroker>& broker)
    : KRModule(kTrackerServiceModule), fTracker(std::make_unique<GenericTracker>(broker)) {
  fTracker->initialize();
  xBindMethods();
}

TrackerService::~TrackerService() = default;

void TrackerService::xBindMethods() {
  bindTrackerMethods(*this, fTracker.get());
}

}  // namespace Sim
}  // namespace KR
