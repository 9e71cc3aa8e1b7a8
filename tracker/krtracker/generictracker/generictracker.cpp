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

bool isArrayOfSize(const KRValue& v, std::size_t n) {
  return v.isValid() && v.isArray() && v.size() == n;
}

KRValue zeroRelativePosition() {
  return KRValue(std::vector<float>(6, 0.0f));
}

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

// ---- effectors -----------------------------------------------------------------------------

void GenericTracker::xExpectEffector(const std::string& pEffector) const {
  if (pEffector == kEffectorLArm || pEffector == kEffectorRArm || pEffector == kEffectorArms ||
      pEffector == kEffectorNone) {
    return;
  }
  throw std::runtime_error(std::string("Invalid effector name: \"") + pEffector + "\"." +
                           kTextEffectorChoices);
}

void GenericTracker::setEffector(const std::string& pEffector) {
  xExpectEffector(pEffector);
  std::lock_guard<std::mutex> lock(fEffectorMutex);
  if (pEffector == fEffector) {
    return;
  }
  if (pEffector != kEffectorNone) {
    // No stop first: a change of arm reconfigures and restarts the looker.
    fEffector = pEffector;
    if (fActive) {
      xStartArmLooker();
    }
    return;
  }
  // "None" is stored as the empty string, and stops the looker even while inactive.
  fEffector.clear();
  guarded("setEffector", [&] { fArmsLookerProxy->call("stopLooker"); });
}

std::string GenericTracker::getEffector() const {
  return xGetEffector();
}

std::string GenericTracker::xGetEffector() const {
  std::lock_guard<std::mutex> lock(fEffectorMutex);
  return fEffector.empty() ? std::string(kEffectorNone) : fEffector;
}

void GenericTracker::addEffector(const std::string& pEffector) {
  ko::log::warning(
      fLogName, "addEffector",
      std::string("DEPRECATED Function: addEffector(). ") + "Use setEffector() instead.");
  xExpectEffector(pEffector);
  std::lock_guard<std::mutex> lock(fEffectorMutex);
  if (pEffector == fEffector) {
    return;
  }
  if (fEffector == kEffectorLArm || fEffector == kEffectorRArm) {
    fEffector = kEffectorArms;
  } else if (fEffector != kEffectorArms) {
    // Stored as given: adding "None" to no effector stores the word "None".
    fEffector = pEffector;
  }
  if (fActive) {
    xStartArmLooker();
  }
}

void GenericTracker::removeEffector(const std::string& pEffector) {
  ko::log::warning(fLogName, "removeEffector",
                   std::string("DEPRECATED Function: removeEffector(). ") +
                       "Use setEffector(\"None\") instead.");
  xExpectEffector(pEffector);
  const bool wholeBody = (xGetMode() == WholeBodyMode);
  std::lock_guard<std::mutex> lock(fEffectorMutex);
  guarded("removeEffector", [&] {
    if (fEffector == pEffector) {
      fEffector.clear();
      fArmsLookerProxy->call("stopLooker");
    } else if (fEffector == kEffectorArms && pEffector == kEffectorLArm) {
      fEffector = kEffectorRArm;
      fArmsLookerProxy->call("setImplParam", KRValue{fEffector, wholeBody});
    } else if (fEffector == kEffectorArms && pEffector == kEffectorRArm) {
      fEffector = kEffectorLArm;
      fArmsLookerProxy->call("setImplParam", KRValue{fEffector, wholeBody});
    } else if (pEffector == kEffectorArms) {
      fEffector.clear();
      fArmsLookerProxy->call("stopLooker");
    }
  });
}

void GenericTracker::xStartArmLooker() {
  // The caller holds fEffectorMutex; xGetMode takes fModeMutex after it.
  if (fEffector.empty()) {
    return;
  }
  const KRValue params{fEffector, xGetMode() == WholeBodyMode};
  guarded("xStartArmLooker", [&] {
    fArmsLookerProxy->call("setImplParam", params);
    fArmsLookerProxy->call("start");
  });
}

void GenericTracker::xStopArmLooker() {
  guarded<std::runtime_error>(
      "xStopArmLooker", [&] { fArmsLookerProxy->call("stopLooker"); }, "Stop Arms Looker failed: ");
  bool hasEffector = false;
  {
    std::lock_guard<std::mutex> lock(fEffectorMutex);
    hasEffector = !fEffector.empty();
  }
  if (hasEffector && fMemoryProxy) {
    guarded<std::runtime_error>(
        "xStopArmLooker",
        [&] { fMemoryProxy->call("raiseEvent", Namer::getNameArmStopped(), KRValue(true)); },
        "Raise event failed: ");
  }
}

// ---- smoother, searcher and head looker ----------------------------------------------------

void GenericTracker::xStartSmoother() {
  xRunSmoother(false);
}

void GenericTracker::xRestartSmoother() {
  xRunSmoother(true);
}

void GenericTracker::xRunSmoother(bool pRestart) {
  // A start stops the smoother first and sends "startEvent"; a restart sends "restart".
  const char* const operation = pRestart ? "xRestartSmoother" : "xStartSmoother";
  const char* const method = pRestart ? "restart" : "startEvent";
  const std::string name = xGetTargetName();
  if (fNotLandMarks) {
    guarded(operation, [&] {
      const std::string event = fTargetManagerProxy->call<std::string>("getEventName");
      if (!pRestart) {
        fSmootherProxy->call("stopSmoother");
      }
      fSmootherProxy->call("setTarget", xGetTarget());
      fSmootherProxy->call(method, event);
    });
  } else if (name == Target::TargetLandMarks) {
    guarded(operation, [&] {
      const std::string event = fTargetManagerProxy->call<std::string>("getEventName");
      const std::string second = fTargetManagerProxy->call<std::string>("getSecondEventName");
      const std::vector<int> ids =
          fTargetManagerProxy->call<std::vector<int>>("getTargetIds", name);
      xSetCoordinates();
      if (!pRestart) {
        fSmootherProxy->call("stopSmoother");
      }
      fSmootherProxy->call("setTarget", xGetTarget());
      if (ids.size() >= 2) {
        fSmootherProxy->call("setTargetIds", ids[0], ids[1]);
      }
      fSmootherProxy->call(method, event, second);
    });
  } else if (pRestart) {
    ko::log::error(fLogName, operation, kTextInvalidSmootherMode);
  } else {
    throw std::runtime_error(fLogName + "::start" + kTextNotInitializedCorrectly);
  }
}

void GenericTracker::xStartSearcher() {
  fSearcherRunning = guarded(
      "xStartSearcher", [&] { fRoundSearcherProxy->call("startEvent"); },
      "Could not start Searcher: ");
}

void GenericTracker::xRestartSearcher() {
  if (!fSearcherRunning || !fSearchEnabled) {
    return;
  }
  // The smoother raises the event that sets the searcher going.
  guarded<std::runtime_error>("xRestartSearcher",
                              [&] { fSmootherProxy->call("_raiseSearchEvent"); });
}

void GenericTracker::xStopSearcher() {
  try {
    fRoundSearcherProxy->call("stopSearcher");
  } catch (const std::exception&) {
    // A searcher that cannot be stopped is considered stopped.
  }
  fSearcherRunning = false;
}

void GenericTracker::xStartHeadLooker() {
  // [velocity, acceleration], as a two-float vector.
  const KRValue limits(std::vector<float>{fLimits[2].load(), fLimits[1].load()});
  fHeadLookerProxy->call("setImplParam", limits);
  fHeadLookerProxy->call("start");
}

void GenericTracker::xStopHeadTracking() {
  const char* const operation = "xStopHeadTracking";
  if (guarded<std::runtime_error>(
          operation, [&] { fRoundSearcherProxy->call("stopSearcher"); },
          "Stop Searcher failed: ")) {
    fSearcherRunning = false;
  }
  guarded<std::runtime_error>(
      operation, [&] { fHeadLookerProxy->call("stopLooker"); }, "Stop Head Looker failed: ");
  guarded<std::runtime_error>(
      operation, [&] { fWholeBodyLookerProxy->call("stopLooker"); },
      "Stop Whole Body Looker failed: ");
  if (fMemoryProxy) {
    guarded<std::runtime_error>(
        operation,
        [&] { fMemoryProxy->call("raiseEvent", Namer::getNameHeadStopped(), KRValue(true)); },
        "Raise event failed: ");
  }
}

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
