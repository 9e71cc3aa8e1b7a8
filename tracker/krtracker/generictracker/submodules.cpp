// GenericTracker's sub-modules started and stopped: the arms looker behind the effector
// choice, the smoother, the searcher and the head looker.

#include <krtracker/generictracker/generictracker.h>

#include <string>
#include <vector>

#include <ko/log.h>
#include <kr/target/targets.h>
#include <kr/value/valueutils.h>

#include <krtracker/generictracker/submodules.h>
#include <krtracker/generictracker/trackerinternal.h>
#include <krtracker/tools/namer/namer.h>
#include <krtracker/tools/tools.h>

namespace KR {
namespace Tracker {

using namespace internal;

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

}  // namespace Tracker
}  // namespace KR
