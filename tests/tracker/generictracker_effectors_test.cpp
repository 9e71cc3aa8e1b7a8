#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/error_of.h"
#include "tracker/tracker_fixture.h"

namespace {

using namespace krtest;

const Calls kNoCall = {};
const Calls kStopLooker = {"_ArmsLooker.stopLooker()"};
Calls startLooker(const std::string& effector, bool wholeBody = false) {
  return {
      "_ArmsLooker.setImplParam([\"" + effector + "\", " + (wholeBody ? "true" : "false") + "])",
      "_ArmsLooker.start()"};
}

struct EffectorCase {
  std::string stored;  // "" for none, "None" for the word (only addEffector stores it)
  bool active;
  std::string name;
  std::string after;
  Calls calls;
};

using Setter = void (KR::Tracker::GenericTracker::*)(const std::string&);

class EffectorTest : public TrackerTest {
 protected:
  const ko::log::Record kAddWarning =
      rec(Level::warning, "addEffector",
          "DEPRECATED Function: addEffector(). Use setEffector() instead.");
  const ko::log::Record kRemoveWarning =
      rec(Level::warning, "removeEffector",
          "DEPRECATED Function: removeEffector(). Use setEffector(\"None\") instead.");

  void prepare(const EffectorCase& c) {
    if (c.stored == "None") {
      tracker->addEffector("None");
    } else if (!c.stored.empty()) {
      tracker->setEffector(c.stored);
    }
    if (c.active)
      startTracking();
    take();
    log.clear();
  }
  void reset() {
    tracker->stop();
    tracker->setEffector("LArm");  // also clears a stored word "None"
    tracker->setEffector("None");
    tracker->setMode("Head");
  }
};

// The three setters, each over its table; the deprecated two warn on every call.
TEST_F(EffectorTest, SetAddAndRemoveEffector) {
  struct Operation {
    const char* name;
    Setter setter;
    Records logs;
    std::vector<EffectorCase> cases;
  };
  const Operation operations[] = {
      {"setEffector",
       &KR::Tracker::GenericTracker::setEffector,
       {},
       {
           {"", false, "LArm", "LArm", kNoCall},
           {"", true, "LArm", "LArm", startLooker("LArm")},
           {"LArm", true, "RArm", "RArm", startLooker("RArm")},  // no stop first
           {"LArm", true, "LArm", "LArm", kNoCall},
           {"", false, "None", "", kStopLooker},  // not caught by the equality test
           {"Arms", true, "None", "", kStopLooker},
       }},
      {"addEffector",
       &KR::Tracker::GenericTracker::addEffector,
       {kAddWarning},
       {
           {"", true, "RArm", "RArm", startLooker("RArm")},
           {"", true, "None", "None", startLooker("None")},  // the word itself is stored
           {"LArm", true, "RArm", "Arms", startLooker("Arms")},
           {"LArm", false, "None", "Arms", kNoCall},
           {"RArm", true, "RArm", "RArm", kNoCall},
           {"Arms", true, "LArm", "Arms", startLooker("Arms")},
           {"None", false, "LArm", "LArm", kNoCall},
       }},
      {"removeEffector",  // reduces without looking at the state
       &KR::Tracker::GenericTracker::removeEffector,
       {kRemoveWarning},
       {
           {"Arms", false, "Arms", "", kStopLooker},
           {"Arms", false, "LArm", "RArm", {"_ArmsLooker.setImplParam([\"RArm\", false])"}},
           {"Arms", true, "RArm", "LArm", {"_ArmsLooker.setImplParam([\"LArm\", false])"}},
           {"LArm", false, "Arms", "", kStopLooker},
           {"LArm", false, "RArm", "LArm", kNoCall},
           {"LArm", true, "LArm", "", kStopLooker},
           {"", false, "None", "", kNoCall},
           {"None", false, "None", "", kStopLooker},
       }},
  };
  for (const Operation& op : operations) {
    for (const EffectorCase& c : op.cases) {
      SCOPED_TRACE(std::string(op.name) + "(" + c.name + ") on '" + c.stored + "'" +
                   (c.active ? " active" : ""));
      prepare(c);
      (tracker->*op.setter)(c.name);
      EXPECT_EQ(tracker->storedEffector(), c.after);
      if (op.setter == &KR::Tracker::GenericTracker::setEffector) {
        EXPECT_EQ(tracker->getEffector(), c.after.empty() ? "None" : c.after);
      }
      EXPECT_EQ(take(), c.calls);
      EXPECT_EQ(records(), op.logs);
      reset();
    }
  }
  // The whole-body flag follows the mode, read before the effector is reduced.
  tracker->setMode("WholeBody");
  tracker->setEffector("Arms");
  take();
  tracker->removeEffector("LArm");
  EXPECT_EQ(take(), Calls{"_ArmsLooker.setImplParam([\"RArm\", true])"});
}

TEST_F(EffectorTest, InvalidNamesThrowBeforeAnythingChanges) {
  tracker->setEffector("LArm");
  startTracking();
  const std::vector<std::pair<Setter, Records>> setters = {
      {&KR::Tracker::GenericTracker::setEffector, {}},
      {&KR::Tracker::GenericTracker::addEffector, {kAddWarning}},
      {&KR::Tracker::GenericTracker::removeEffector, {kRemoveWarning}},
  };
  for (const auto& setter : setters) {
    for (const std::string& bad : {std::string("larm"), std::string("")}) {
      EXPECT_EQ(krtest::errorOf([&] { (tracker->*setter.first)(bad); }),
                "Invalid effector name: \"" + bad + "\". Could be: Arms, LArm, RArm or None.");
      EXPECT_EQ(tracker->getEffector(), "LArm");
      EXPECT_EQ(take(), Calls{});
      EXPECT_EQ(records(), setter.second);
      log.clear();
    }
  }
}

TEST_F(EffectorTest, ArmsLookerFailuresAreLoggedUnderTheOperation) {
  module("_ArmsLooker").throwOn("setImplParam");
  startTracking();
  tracker->setEffector("LArm");
  EXPECT_EQ(take(), Calls{"_ArmsLooker.setImplParam([\"LArm\", false])"});  // no start
  tracker->removeEffector("Arms");                                          // empties it
  module("_ArmsLooker").throwOn("stopLooker", "stuck");
  tracker->setEffector("None");
  tracker->setEffector("RArm");
  tracker->removeEffector("RArm");
  EXPECT_EQ(tracker->getEffector(), "None");
  EXPECT_EQ(records(), (Records{rec(Level::error, "xStartArmLooker", "boom"), kRemoveWarning,
                                rec(Level::error, "setEffector", "stuck"),
                                rec(Level::error, "xStartArmLooker", "boom"), kRemoveWarning,
                                rec(Level::error, "removeEffector", "stuck")}));
}

TEST_F(EffectorTest, StopArmLookerRaisesTheEventOnlyWithAnEffector) {
  tracker->xStopArmLooker();
  EXPECT_EQ(take(), kStopLooker);
  tracker->setEffector("Arms");
  take();
  module("_ArmsLooker").throwOn("stopLooker");
  module("KRMemory").throwOn("raiseEvent", "no memory");
  tracker->xStopArmLooker();
  EXPECT_EQ(take(), (Calls{"_ArmsLooker.stopLooker()",
                           "KRMemory.raiseEvent(\"KRTracker/ArmTracking/Stopped\", true)"}));
  EXPECT_EQ(records(),
            (Records{rec(Level::error, "xStopArmLooker", "Stop Arms Looker failed: boom"),
                     rec(Level::error, "xStopArmLooker", "Raise event failed: no memory")}));
  EXPECT_EQ(tracker->getEffector(), "Arms");
}

TEST_F(TrackerTest, StopHeadTrackingRunsEveryStepDespiteFailures) {
  const Calls all = {"_RoundSearcher.stopSearcher()", "_HeadLooker.stopLooker()",
                     "_WholeBodyLooker.stopLooker()",
                     "KRMemory.raiseEvent(\"KRTracker/HeadTracking/Stopped\", true)"};
  struct Case {
    const char* module;
    const char* method;
    const char* prefix;
  };
  for (const Case& c : {Case{"_RoundSearcher", "stopSearcher", "Stop Searcher failed: "},
                        Case{"_HeadLooker", "stopLooker", "Stop Head Looker failed: "},
                        Case{"_WholeBodyLooker", "stopLooker", "Stop Whole Body Looker failed: "},
                        Case{"KRMemory", "raiseEvent", "Raise event failed: "}}) {
    SCOPED_TRACE(c.module);
    tracker->fSearcherRunning = true;
    module(c.module).throwOn(c.method);
    tracker->xStopHeadTracking();
    EXPECT_EQ(take(), all);
    EXPECT_EQ(records(),
              (Records{rec(Level::error, "xStopHeadTracking", std::string(c.prefix) + "boom")}));
    // Only a successful stop clears the running flag.
    EXPECT_EQ(tracker->fSearcherRunning, std::string(c.module) == "_RoundSearcher");
    module(c.module).reset(c.method);
    log.clear();
  }
}

}  // namespace
