#include <krtracker/generictracker/generictracker.h>

#include <algorithm>
#include <limits>
#include <sstream>
#include <stdexcept>

#include <ko/log.h>
#include <kr/model/modelutils.h>
#include <kr/target/targets.h>
#include <kr/value/valueutils.h>

#include <krtracker/config/krgenerictrackerconfig.h>
#include <krtracker/generictracker/submodules.h>
#include <krtracker/generictracker/trackerinternal.h>
#include <krtracker/tools/namer/namer.h>
#include <krtracker/tools/tools.h>

namespace KR {
namespace Tracker {

const std::string HeadMode = "Head";
const std::string WholeBodyMode = "WholeBody";
const std::string MoveSafelyMode = "MoveSafely";
const std::string MoveMotionMode = "Move";
const std::string NavigateMode = "Navigate";
const std::string MoveWBMode = "MoveWholeBody";

namespace {

using namespace internal;

// Registers the log category when the library is loaded.
const bool kCategoryRegistered = [] {
  ko::log::registerCategory(kLogCategory);
  return true;
}();

KRValue zeroRelativePosition() {
  return KRValue(std::vector<float>(6, 0.0f));
}

}  // namespace

// ---- construction --------------------------------------------------------------------------

GenericTracker::GenericTracker(std::shared_ptr<KRBroker> pBroker)
    : fMode(HeadMode),
      fLogName(kLogCategory),
      fMaxDistanceDetection(std::numeric_limits<float>::max()),
      fLimits{{kLimits[0], kLimits[1], kLimits[2]}} {
  (void)kCategoryRegistered;
  xInitProxies(pBroker);

  std::unique_ptr<Model::Robot> robot;
  try {
    std::shared_ptr<KRProxy> robotModel = pBroker->getProxy("KRRobotModel", 0);
    const std::string description = robotModel->call<std::string>("getConfig");
    robot = Model::ModelUtils::robotFromXml(description);
  } catch (const std::exception& e) {
    ko::log::warning(fLogName, "GenericTracker",
                     std::string("KRRobotModel is not found: ") + e.what());
    throw;
  }

  fCanLookBehind = robot->canLookBehind();
  fCanPointAt = robot->canPointAt();
  fCanNavigate = robot->getRobotType() == 1;
  robot->fillTrackerModel(fModel);

  fAvailableModes.push_back(HeadMode);
  fAvailableModes.push_back(WholeBodyMode);
  fAvailableModes.push_back(MoveMotionMode);
  if (robot->getRobotType() == 1) {
    fAvailableModes.push_back(NavigateMode);
  }

  xSetTarget(zeroRelativePosition());
}

GenericTracker::~GenericTracker() {
  // The steps of stop(); a destructor must not throw.
  try {
    stop();
  } catch (const std::exception& e) {
    ko::log::error(fLogName, "~GenericTracker", e.what());
  } catch (...) {
    ko::log::error(fLogName, "~GenericTracker", "unknown exception while stopping");
  }
}

void GenericTracker::xInitProxies(const std::shared_ptr<KRBroker>& pBroker) {
  fMotionProxy = pBroker->getProxy("KRMotion", 0);
  fSmootherProxy = pBroker->getProxy(kSmootherModule, 0);
  fMotionMoveProxy = pBroker->getProxy(kMotionMoveModule, 0);
  fNavigationMoveProxy = pBroker->getProxy(kNavigationMoveModule, 0);
  fRoundSearcherProxy = pBroker->getProxy(kRoundSearcherModule, 0);
  fHeadLookerProxy = pBroker->getProxy(kHeadLookerModule, 0);
  fWholeBodyLookerProxy = pBroker->getProxy(kWholeBodyLookerModule, 0);
  fArmsLookerProxy = pBroker->getProxy(kArmsLookerModule, 0);
  fTargetManagerProxy = pBroker->getProxy(kTargetManagerModule, 0);
  // The memory service is optional: only the stop events need it.
  guarded<std::runtime_error>(
      "xInitProxies", [&] { fMemoryProxy = pBroker->getProxy("KRMemory", 0); },
      "Could not get proxy to KRMemory: ");
}

// ---- lifecycle -----------------------------------------------------------------------------

void GenericTracker::initialize() {
  setRelativePosition(zeroRelativePosition());

  const std::string current = xGetTargetName();
  for (const std::string& name : getRegisteredTargets()) {
    if (name != current) {
      unregisterTarget(name);
    }
  }

  setEffector(kEffectorNone);
  setMaximumDistanceDetection(std::numeric_limits<float>::max());
  for (std::size_t i = 0; i < kLimits.size(); ++i) {
    fLimits[i] = kLimits[i];
  }
  setMode(HeadMode);
  setMoveConfig(KRValue());

  guarded("initialize", [&] { fRoundSearcherProxy->call("initialize"); });

  {
    std::lock_guard<std::mutex> lock(fTargetCoordinatesMutex);
    fTargetCoordinates.clear();
  }

  fSearchEnabled = false;
  if (fSearcherRunning) {
    xStopSearcher();
  }
  setMoveEvent("");
  setTimeOut(3000);
  resetConfig();

  guarded("initialize", [&] {
    fSmootherProxy->call("_setMoveHysteresis", std::vector<float>{0.1f, 0.1f, 0.02f});
  });
}

void GenericTracker::start() {
  // Marked active before the target check, so that a start without a target still makes
  // further starts no-ops until stop().
  if (fActive.exchange(true)) {
    return;
  }
  if (xGetTargetName().empty()) {
    ko::log::warning(fLogName, "start", kTextNoTargetAtStart);
    return;
  }
  if (fSearchEnabled && !fSearcherRunning) {
    xStartSearcher();
  }
  {
    std::lock_guard<std::mutex> lock(fModeMutex);
    xUpdateMode();
  }
  {
    std::lock_guard<std::mutex> lock(fEffectorMutex);
    xStartArmLooker();
  }
  guarded("start", [&] { fTargetManagerProxy->call("start"); });
  xStartSmoother();
}

void GenericTracker::xStopAll() {
  xStopSearcher();
  try {
    fSmootherProxy->call("stopSmoother");
    fTargetManagerProxy->call("stopManager");
    fHeadLookerProxy->call("stopLooker");
    fArmsLookerProxy->call("stopLooker");
    fWholeBodyLookerProxy->call("stopLooker");
    fMotionMoveProxy->call("stopMove");
    fNavigationMoveProxy->call("stopMove");
  } catch (const std::exception&) {
    // All or nothing on purpose: the first failure ends the stop sequence, silently.
  }
}

void GenericTracker::stop() {
  xStopAll();
  xSetTargetName("");
  fActive = false;
  fIsEventTracking = false;
}

void GenericTracker::exit() {
  stop();
  fSmootherProxy->call("exit");
  fMotionMoveProxy->call("exit");
  fNavigationMoveProxy->call("exit");
  fRoundSearcherProxy->call("exit");
  fHeadLookerProxy->call("exit");
  fWholeBodyLookerProxy->call("exit");
  fArmsLookerProxy->call("exit");
  fTargetManagerProxy->call("exit");
}

void GenericTracker::pause() {
  xStopHeadTracking();
  xStopArmLooker();
}

void GenericTracker::restart() {
  if (!fActive) {
    return;
  }
  const std::string name = xGetTargetName();
  if (name.empty()) {
    ko::log::warning(fLogName, "restart", kTextNoTargetAtRestart);
    return;
  }
  guarded("restart", [&] {
    if (fIsEventTracking) {
      fTargetManagerProxy->call("setActiveEvent", name);
    } else {
      fTargetManagerProxy->call("setActiveTarget", name);
    }
  });
  if (fSearchEnabled && !fSearcherRunning) {
    xStartSearcher();
    xRestartSearcher();
  }
  // Effector lock first, then the mode lock; never both at once.
  {
    std::lock_guard<std::mutex> lock(fEffectorMutex);
    xStartArmLooker();
  }
  {
    std::lock_guard<std::mutex> lock(fModeMutex);
    xUpdateMode();
  }
}

bool GenericTracker::isActive() const {
  return fActive;
}

}  // namespace Tracker
}  // namespace KR
