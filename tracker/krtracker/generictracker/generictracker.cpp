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

const char* const kLogCategory = "KRTracker.GenericTracker";

// Registers the log category when the library is loaded.
const bool kCategoryRegistered = [] {
  ko::log::registerCategory(kLogCategory);
  return true;
}();

const char* const kEffectorArms = "Arms";
const char* const kEffectorLArm = "LArm";
const char* const kEffectorRArm = "RArm";
const char* const kEffectorNone = "None";

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
  fSmootherProxy = pBroker->getProxy("_Smoother", 0);
  fMotionMoveProxy = pBroker->getProxy("_MotionMove", 0);
  fNavigationMoveProxy = pBroker->getProxy("_NavigationMove", 0);
  fRoundSearcherProxy = pBroker->getProxy("_RoundSearcher", 0);
  fHeadLookerProxy = pBroker->getProxy("_HeadLooker", 0);
  fWholeBodyLookerProxy = pBroker->getProxy("_WholeBodyLooker", 0);
  fArmsLookerProxy = pBroker->getProxy("_ArmsLooker", 0);
  fTargetManagerProxy = pBroker->getProxy("_KRTargetManager", 0);
  // The memory service is optional: only the stop events need it.
  try {
    fMemoryProxy = pBroker->getProxy("KRMemory", 0);
  } catch (const std::runtime_error& e) {
    ko::log::error(fLogName, "xInitProxies",
                   std::string("Could not get proxy to KRMemory: ") + e.what());
  }
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

  try {
    fRoundSearcherProxy->call("initialize");
  } catch (const std::exception& e) {
    ko::log::error(fLogName, "initialize", e.what());
  }

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

  try {
    fSmootherProxy->call("_setMoveHysteresis", std::vector<float>{0.1f, 0.1f, 0.02f});
  } catch (const std::exception& e) {
    ko::log::error(fLogName, "initialize", e.what());
  }
}

void GenericTracker::start() {
  // Marked active before the target check, so that a start without a target still makes
  // further starts no-ops until stop().
  if (fActive.exchange(true)) {
    return;
  }
  if (xGetTargetName().empty()) {
    ko::log::warning(fLogName, "start",
                     "Tracker is not initialized. Register a target name please.");
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
  try {
    fTargetManagerProxy->call("start");
  } catch (const std::exception& e) {
    ko::log::error(fLogName, "start", e.what());
  }
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
    ko::log::warning(fLogName, "restart",
                     "Do not restart tracking because target name is not valid.");
    return;
  }
  try {
    if (fIsEventTracking) {
      fTargetManagerProxy->call("setActiveEvent", name);
    } else {
      fTargetManagerProxy->call("setActiveTarget", name);
    }
  } catch (const std::exception& e) {
    ko::log::error(fLogName, "restart", e.what());
  }
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
  try {
    fTargetManagerProxy->call("addTarget", pTarget, pParams);
  } catch (const std::exception& e) {
    ko::log::error(fLogName, "registerTarget", e.what());
  }
}

void GenericTracker::unregisterTarget(const std::string& pTarget) {
  try {
    fTargetManagerProxy->call("removeTarget", pTarget);
  } catch (const std::exception& e) {
    ko::log::error(fLogName, "unregisterTarget", e.what());
  }
}

void GenericTracker::unregisterTargets(const std::vector<std::string>& pTargets) {
  try {
    fTargetManagerProxy->call("removeTargets", pTargets);
  } catch (const std::exception& e) {
    ko::log::error(fLogName, "unregisterTargets", e.what());
  }
}

void GenericTracker::unregisterAllTargets() {
  xSetTargetName("");
  try {
    fTargetManagerProxy->call("removeAllTargets");
  } catch (const std::exception& e) {
    ko::log::error(fLogName, "unregisterAllTargets", e.what());
  }
}

std::vector<std::string> GenericTracker::getSupportedTargets() {
  try {
    return fTargetManagerProxy->call<std::vector<std::string>>("getSupportedTargets");
  } catch (const std::exception& e) {
    ko::log::error(fLogName, "getSupportedTargets", e.what());
  }
  return {};
}

std::vector<std::string> GenericTracker::getRegisteredTargets() {
  try {
    return fTargetManagerProxy->call<std::vector<std::string>>("getRegisteredTargets");
  } catch (const std::exception& e) {
    ko::log::error(fLogName, "getRegisteredTargets", e.what());
  }
  return {};
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

  bool managed = false;
  try {
    managed = fTargetManagerProxy->call<bool>("isTargetManaged", pTarget);
  } catch (const std::exception& e) {
    ko::log::error(fLogName, "track", e.what());
    return;
  }
  if (!managed) {
    ko::log::warning(
        fLogName, "track",
        "Target name: " + pTarget + " is not registered." + " Register the target before track.");
    return;
  }
  try {
    fTargetManagerProxy->call("setActiveTarget", pTarget);
  } catch (const std::exception& e) {
    ko::log::error(fLogName, "track", e.what());
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
  try {
    fTargetManagerProxy->call("setActiveEvent", pEventName);
  } catch (const std::exception& e) {
    ko::log::error(fLogName, "trackEvent", e.what());
  }

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
  std::vector<float> position;
  try {
    position = fTargetManagerProxy->call<std::vector<float>>("getActiveTargetPosition");
  } catch (const std::exception& e) {
    ko::log::error(fLogName, "getTargetPosition", e.what());
    position.clear();
  }
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
  std::string name;
  try {
    name = fTargetManagerProxy->call<std::string>(pSecond ? "getSecondEventName" : "getEventName");
  } catch (const std::exception& e) {
    ko::log::error(fLogName, "xGetEventName", e.what());
    name.clear();
  }
  return name;
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
  try {
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
  } catch (const std::exception& e) {
    ko::log::error(fLogName, "xSetCoordinates", e.what());
  }
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

  try {
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
  } catch (const std::exception& e) {
    ko::log::error(fLogName, "xUpdateMode", e.what());
  }
}

void GenericTracker::setMoveConfig(const KRValue& pConfig) {
  {
    std::lock_guard<std::mutex> lock(fMoveConfigMutex);
    fMoveConfig = pConfig;
  }
  try {
    fMotionMoveProxy->call("setParam", pConfig);
  } catch (const std::exception& e) {
    ko::log::error(fLogName, "setMoveConfig", e.what());
  }
  if (xGetMode() == NavigateMode) {
    try {
      fNavigationMoveProxy->call("setParam", pConfig);
    } catch (const std::exception& e) {
      ko::log::error(fLogName, "setMoveConfig", e.what());
    }
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
    try {
      fSmootherProxy->call("setTarget", xGetTarget());
    } catch (const std::exception& e) {
      ko::log::error(fLogName, "setRelativePosition", e.what());
    }
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
  try {
    fSmootherProxy->call("_setMoveEvent", pEventName);
  } catch (const std::exception& e) {
    ko::log::error(fLogName, "setMoveEvent", e.what());
  }
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
                           " Could be: Arms, LArm, RArm or None.");
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
  try {
    fArmsLookerProxy->call("stopLooker");
  } catch (const std::exception& e) {
    ko::log::error(fLogName, "setEffector", e.what());
  }
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
  try {
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
  } catch (const std::exception& e) {
    ko::log::error(fLogName, "removeEffector", e.what());
  }
}

void GenericTracker::xStartArmLooker() {
  // The caller holds fEffectorMutex; xGetMode takes fModeMutex after it.
  if (fEffector.empty()) {
    return;
  }
  const KRValue params{fEffector, xGetMode() == WholeBodyMode};
  try {
    fArmsLookerProxy->call("setImplParam", params);
    fArmsLookerProxy->call("start");
  } catch (const std::exception& e) {
    ko::log::error(fLogName, "xStartArmLooker", e.what());
  }
}

void GenericTracker::xStopArmLooker() {
  try {
    fArmsLookerProxy->call("stopLooker");
  } catch (const std::runtime_error& e) {
    ko::log::error(fLogName, "xStopArmLooker", std::string("Stop Arms Looker failed: ") + e.what());
  }
  bool hasEffector = false;
  {
    std::lock_guard<std::mutex> lock(fEffectorMutex);
    hasEffector = !fEffector.empty();
  }
  if (hasEffector && fMemoryProxy) {
    try {
      fMemoryProxy->call("raiseEvent", Namer::getNameArmStopped(), KRValue(true));
    } catch (const std::runtime_error& e) {
      ko::log::error(fLogName, "xStopArmLooker", std::string("Raise event failed: ") + e.what());
    }
  }
}

// ---- smoother, searcher and head looker ----------------------------------------------------

void GenericTracker::xStartSmoother() {
  const std::string name = xGetTargetName();
  if (fNotLandMarks) {
    try {
      const std::string event = fTargetManagerProxy->call<std::string>("getEventName");
      fSmootherProxy->call("stopSmoother");
      fSmootherProxy->call("setTarget", xGetTarget());
      fSmootherProxy->call("startEvent", event);
    } catch (const std::exception& e) {
      ko::log::error(fLogName, "xStartSmoother", e.what());
    }
  } else if (name == Target::TargetLandMarks) {
    try {
      const std::string event = fTargetManagerProxy->call<std::string>("getEventName");
      const std::string second = fTargetManagerProxy->call<std::string>("getSecondEventName");
      const std::vector<int> ids =
          fTargetManagerProxy->call<std::vector<int>>("getTargetIds", name);
      xSetCoordinates();
      fSmootherProxy->call("stopSmoother");
      fSmootherProxy->call("setTarget", xGetTarget());
      if (ids.size() >= 2) {
        fSmootherProxy->call("setTargetIds", ids[0], ids[1]);
      }
      fSmootherProxy->call("startEvent", event, second);
    } catch (const std::exception& e) {
      ko::log::error(fLogName, "xStartSmoother", e.what());
    }
  } else {
    throw std::runtime_error(fLogName + "::start" + ": Tracker is not initialized correctly.");
  }
}

void GenericTracker::xRestartSmoother() {
  const std::string name = xGetTargetName();
  if (fNotLandMarks) {
    try {
      const std::string event = fTargetManagerProxy->call<std::string>("getEventName");
      fSmootherProxy->call("setTarget", xGetTarget());
      fSmootherProxy->call("restart", event);
    } catch (const std::exception& e) {
      ko::log::error(fLogName, "xRestartSmoother", e.what());
    }
  } else if (name == Target::TargetLandMarks) {
    try {
      const std::string event = fTargetManagerProxy->call<std::string>("getEventName");
      const std::string second = fTargetManagerProxy->call<std::string>("getSecondEventName");
      const std::vector<int> ids =
          fTargetManagerProxy->call<std::vector<int>>("getTargetIds", name);
      xSetCoordinates();
      fSmootherProxy->call("setTarget", xGetTarget());
      if (ids.size() >= 2) {
        fSmootherProxy->call("setTargetIds", ids[0], ids[1]);
      }
      fSmootherProxy->call("restart", event, second);
    } catch (const std::exception& e) {
      ko::log::error(fLogName, "xRestartSmoother", e.what());
    }
  } else {
    ko::log::error(fLogName, "xRestartSmoother", "Invalid Smoother mode.");
  }
}

void GenericTracker::xStartSearcher() {
  try {
    fRoundSearcherProxy->call("startEvent");
    fSearcherRunning = true;
  } catch (const std::exception& e) {
    fSearcherRunning = false;
    ko::log::error(fLogName, "xStartSearcher",
                   std::string("Could not start Searcher: ") + e.what());
  }
}

void GenericTracker::xRestartSearcher() {
  if (!fSearcherRunning || !fSearchEnabled) {
    return;
  }
  // The smoother raises the event that sets the searcher going.
  try {
    fSmootherProxy->call("_raiseSearchEvent");
  } catch (const std::runtime_error& e) {
    ko::log::error(fLogName, "xRestartSearcher", e.what());
  }
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
  const KRValue limits{fLimits[2].load(), fLimits[1].load()};  // velocity, acceleration
  fHeadLookerProxy->call("setImplParam", limits);
  fHeadLookerProxy->call("start");
}

void GenericTracker::xStopHeadTracking() {
  try {
    fRoundSearcherProxy->call("stopSearcher");
    fSearcherRunning = false;
  } catch (const std::runtime_error& e) {
    ko::log::error(fLogName, "xStopHeadTracking", std::string("Stop Searcher failed: ") + e.what());
  }
  try {
    fHeadLookerProxy->call("stopLooker");
  } catch (const std::runtime_error& e) {
    ko::log::error(fLogName, "xStopHeadTracking",
                   std::string("Stop Head Looker failed: ") + e.what());
  }
  try {
    fWholeBodyLookerProxy->call("stopLooker");
  } catch (const std::runtime_error& e) {
    ko::log::error(fLogName, "xStopHeadTracking",
                   std::string("Stop Whole Body Looker failed: ") + e.what());
  }
  if (fMemoryProxy) {
    try {
      fMemoryProxy->call("raiseEvent", Namer::getNameHeadStopped(), KRValue(true));
    } catch (const std::runtime_error& e) {
      ko::log::error(fLogName, "xStopHeadTracking", std::string("Raise event failed: ") + e.what());
    }
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
  try {
    fSmootherProxy->call("setTimeOut", pTimeOut);
  } catch (const std::exception& e) {
    ko::log::error(fLogName, "setTimeOut", e.what());
  }
}

int GenericTracker::getTimeOut() {
  try {
    return fSmootherProxy->call<int>("getTimeOut");
  } catch (const std::exception& e) {
    ko::log::error(fLogName, "getTimeOut", e.what());
  }
  return 0;
}

void GenericTracker::setExtractorPeriod(const std::string& pTarget, int pPeriod) {
  try {
    fTargetManagerProxy->call("setExtractorPeriod", pTarget, pPeriod);
  } catch (const std::exception& e) {
    ko::log::error(fLogName, "setExtractorPeriod", e.what());
  }
}

int GenericTracker::getExtractorPeriod(const std::string& pTarget) {
  try {
    return fTargetManagerProxy->call<int>("getExtractorPeriod", pTarget);
  } catch (const std::exception& e) {
    ko::log::error(fLogName, "getExtractorPeriod", e.what());
  }
  return -1;
}

void GenericTracker::setMaximumDistanceDetection(float pDistance) {
  if (!(pDistance > 0.001f)) {
    std::ostringstream text;
    text << "pMaxDistance: " << pDistance << " must be strictly positive.";
    ko::log::warning(fLogName, "setMaximumDistanceDetection", text.str());
    return;
  }
  fMaxDistanceDetection = pDistance;
  try {
    fSmootherProxy->call("setMaxDistance", pDistance);
  } catch (const std::exception& e) {
    ko::log::error(fLogName, "setMaximumDistanceDetection", e.what());
  }
}

float GenericTracker::getMaximumDistanceDetection() const {
  return fMaxDistanceDetection;
}

void GenericTracker::setSearcherFractionMaxSpeed(float pFraction) {
  try {
    fRoundSearcherProxy->call("setFractionMaxSpeed", pFraction);
  } catch (const std::exception& e) {
    ko::log::error(fLogName, "setSearcherFractionMaxSpeed", e.what());
  }
}

float GenericTracker::getSearcherFractionMaxSpeed() {
  try {
    return fRoundSearcherProxy->call<float>("getFractionMaxSpeed");
  } catch (const std::exception& e) {
    ko::log::error(fLogName, "getSearcherFractionMaxSpeed", e.what());
  }
  return 0.0f;
}

void GenericTracker::searcherSetUseWholeBodyLookAt(bool pUseWholeBody) {
  try {
    fRoundSearcherProxy->call("setUseWholeBodyLookAt", pUseWholeBody);
  } catch (const std::exception& e) {
    ko::log::error(fLogName, "searcherSetUseWholeBodyLookAt", e.what());
  }
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
