#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <krtracker/config/krgenerictrackerconfig.h>

#include "support/error_of.h"
#include "tracker/tracker_fixture.h"

namespace {

using namespace krtest;

// What track("Face") sends from idle in "Head" mode with no effector and no searching.
const Calls kStartFace = [] {
  Calls calls = trackStartCalls("Face");
  calls.insert(calls.end(), {"_Smoother.stopSmoother()", "_Smoother.setTarget([0, 0, 0, 0, 0, 0])",
                             "_Smoother.startEvent(\"evt\")"});
  return calls;
}();

const Calls kStopAll = {
    "_RoundSearcher.stopSearcher()", "_Smoother.stopSmoother()",   "_KRTargetManager.stopManager()",
    "_HeadLooker.stopLooker()",      "_ArmsLooker.stopLooker()",   "_WholeBodyLooker.stopLooker()",
    "_MotionMove.stopMove()",        "_NavigationMove.stopMove()",
};

std::string missingModule(const std::string& name) {
  return "KRBroker::getProxy: no module named \"" + name + "\" in broker KRBroker";
}

// The settings of a new tracker, which initialize restores.
void expectDefaultSettings(const TrackerProbe& t) {
  EXPECT_EQ(t.getMode(), "Head");
  EXPECT_EQ(t.getEffector(), "None");
  EXPECT_EQ(t.getRelativePosition(), KRValue(std::vector<float>(6, 0.0f)));
  EXPECT_FALSE(t.getTargetCoordinates().isValid());
  EXPECT_FALSE(t.getMoveConfig().isValid());
  EXPECT_EQ(t.getMaximumVelocity(), 1.0f);
  EXPECT_EQ(t.getMaximumAcceleration(), 10.0f);
  EXPECT_EQ(t.getMaximumDistanceDetection(), std::numeric_limits<float>::max());
  EXPECT_FALSE(t.isSearchEnabled());
}

TEST(GenericTrackerConstruction, OpensTheNineSubModuleProxiesInOrder) {
  // With modules k..8 all missing, the error names module k: k is asked for before the rest.
  const std::vector<std::string>& names = krtest::trackerModuleNames();
  for (std::size_t k = 0; k < 9; ++k) {
    TrackerHarness harness("kibo.xml", std::vector<std::string>(names.begin() + k, names.end()));
    EXPECT_EQ(krtest::errorOf([&] { harness.build(); }), missingModule(names[k]));
  }
}

TEST(GenericTrackerConstruction, WithoutMemoryLogsAndStillWorks) {
  ko::log::ScopedCapture log;
  TrackerHarness harness("kibo.xml", {"KRMemory"});
  krtest::TrackerProbe& tracker = harness.build();
  EXPECT_EQ(trackerRecords(log),
            (Records{rec(Level::error, "xInitProxies",
                         "Could not get proxy to KRMemory: " + missingModule("KRMemory"))}));
  tracker.setEffector("LArm");
  tracker.track("Face");
  harness.take();
  tracker.pause();  // no stop events without the memory service
  EXPECT_EQ(harness.take(), (Calls{"_RoundSearcher.stopSearcher()", "_HeadLooker.stopLooker()",
                                   "_WholeBodyLooker.stopLooker()", "_ArmsLooker.stopLooker()"}));
}

TEST(GenericTrackerConstruction, RobotModelFailuresWarnAndThrow) {
  struct Case {
    std::vector<std::string> omit;
    KRValue description;  // served by getConfig; invalid: getConfig fails
    std::string cause;    // after the fixed words; empty: the parser's own text, not compared
  };
  for (const Case& c : {Case{{"KRRobotModel"}, {}, missingModule("KRRobotModel")},
                        Case{{}, {}, "no description"}, Case{{}, "<robot", ""}}) {
    SCOPED_TRACE(c.cause);
    ko::log::ScopedCapture log;
    TrackerHarness harness("kibo.xml", c.omit);
    if (c.description.isValid())
      harness.module("KRRobotModel").answer("getConfig", c.description);
    else if (c.omit.empty())
      harness.module("KRRobotModel").throwOn("getConfig", c.cause);
    EXPECT_THROW(harness.build(), std::exception);
    const Records records = trackerRecords(log);
    ASSERT_EQ(records.size(), 1u);
    if (c.cause.empty())
      EXPECT_EQ(records[0].text.rfind("KRRobotModel is not found: ", 0), 0u);
    else
      EXPECT_EQ(records[0],
                rec(Level::warning, "GenericTracker", "KRRobotModel is not found: " + c.cause));
  }
}

TEST(GenericTrackerConstruction, RobotDescriptionSetsCapabilitiesAndModes) {
  struct Case {
    const char* robot;
    std::vector<std::string> modes;
    bool canNavigate, canLookBehind;
  };
  for (const Case& c :
       {Case{"kibo.xml", {"Head", "WholeBody", "Move"}, false, true},
        Case{"rover.xml", {"Head", "WholeBody", "Move", "Navigate"}, true, false}}) {
    SCOPED_TRACE(c.robot);
    TrackerHarness harness(c.robot);
    krtest::TrackerProbe& tracker = harness.build();
    EXPECT_EQ(tracker.getAvailableModes(), c.modes);
    EXPECT_EQ(tracker.fCanNavigate, c.canNavigate);
    EXPECT_EQ(tracker.fCanLookBehind, c.canLookBehind);
    EXPECT_TRUE(tracker.fCanPointAt);
    EXPECT_EQ(tracker.fModel.head.yaw.name, "HeadYaw");
    EXPECT_FALSE(tracker.isActive());
    EXPECT_EQ(tracker.getActiveTarget(), "");
    expectDefaultSettings(tracker);
  }
}

TEST_F(TrackerTest, StartWithoutTargetWarnsAndStaysActiveUntilStop) {
  tracker->start();
  tracker->start();
  EXPECT_TRUE(tracker->isActive());
  EXPECT_EQ(take(), Calls{});
  EXPECT_EQ(records(),
            (Records{rec(Level::warning, "start",
                         "Tracker is not initialized. Register a target name please.")}));
  tracker->stop();
  EXPECT_FALSE(tracker->isActive());
  EXPECT_EQ(take(), kStopAll);
}

TEST_F(TrackerTest, TrackFromIdleStartsEverySubModuleInOrder) {
  tracker->track("Face");
  EXPECT_EQ(take(), kStartFace);
  EXPECT_TRUE(tracker->isActive());
  EXPECT_EQ(tracker->getActiveTarget(), "Face");
  tracker->start();  // already active
  EXPECT_EQ(take(), Calls{});
}

TEST_F(TrackerTest, PauseStopsHeadAndArmsAndKeepsTheTarget) {
  tracker->setEffector("RArm");
  startTracking();
  tracker->pause();
  EXPECT_EQ(take(), (Calls{"_RoundSearcher.stopSearcher()", "_HeadLooker.stopLooker()",
                           "_WholeBodyLooker.stopLooker()",
                           "KRMemory.raiseEvent(\"KRTracker/HeadTracking/Stopped\", true)",
                           "_ArmsLooker.stopLooker()",
                           "KRMemory.raiseEvent(\"KRTracker/ArmTracking/Stopped\", true)"}));
  EXPECT_TRUE(tracker->isActive());
  EXPECT_EQ(tracker->getActiveTarget(), "Face");

  // restart resumes: the arms looker before the mode, no target manager start, no smoother.
  tracker->restart();
  EXPECT_EQ(take(), (Calls{"_KRTargetManager.setActiveTarget(\"Face\")",
                           "_ArmsLooker.setImplParam([\"RArm\", false])", "_ArmsLooker.start()",
                           "_MotionMove.stopMove()", "_NavigationMove.stopMove()",
                           "_WholeBodyLooker.stopLooker()", "_HeadLooker.setImplParam([1, 10])",
                           "_HeadLooker.start()"}));
  EXPECT_TRUE(tracker->isActive());
}

TEST_F(TrackerTest, RestartReactivatesByTheWayTheTargetWasChosen) {
  tracker->trackEvent("SoundEvent");
  take();
  tracker->restart();
  EXPECT_EQ(take().at(0), "_KRTargetManager.setActiveEvent(\"SoundEvent\")");
  tracker->stop();
  startTracking("Face");
  module("_KRTargetManager").throwOn("setActiveTarget");
  tracker->restart();
  const Calls calls = take();
  EXPECT_EQ(calls.at(0), "_KRTargetManager.setActiveTarget(\"Face\")");
  EXPECT_EQ(calls.back(), "_HeadLooker.start()");  // the sequence went on
  EXPECT_EQ(records(), (Records{rec(Level::error, "restart", "boom")}));
}

TEST_F(TrackerTest, RestartNeedsAnActiveTrackerWithATarget) {
  tracker->restart();
  EXPECT_EQ(take(), Calls{});
  startTracking();
  tracker->unregisterAllTargets();
  EXPECT_EQ(take(), Calls{"_KRTargetManager.removeAllTargets()"});
  EXPECT_TRUE(tracker->isActive());
  tracker->restart();
  EXPECT_EQ(take(), Calls{});
  EXPECT_EQ(records(), (Records{rec(Level::warning, "restart",
                                    "Do not restart tracking because target name is not valid.")}));
}

TEST_F(TrackerTest, ExitStopsThenExitsEachSubModuleAndLetsFailuresThrough) {
  const Calls exits = {"_Smoother.exit()",      "_MotionMove.exit()",     "_NavigationMove.exit()",
                       "_RoundSearcher.exit()", "_HeadLooker.exit()",     "_WholeBodyLooker.exit()",
                       "_ArmsLooker.exit()",    "_KRTargetManager.exit()"};
  startTracking();
  tracker->exit();
  Calls expected = kStopAll;
  expected.insert(expected.end(), exits.begin(), exits.end());
  EXPECT_EQ(take(), expected);
  EXPECT_FALSE(tracker->isActive());

  module("_RoundSearcher").throwOn("exit", "cannot exit");
  EXPECT_EQ(krtest::errorOf([&] { tracker->exit(); }), "cannot exit");
  expected = kStopAll;
  expected.insert(expected.end(), exits.begin(), exits.begin() + 4);
  EXPECT_EQ(take(), expected);
}

TEST_F(TrackerTest, DestructorStopsEverything) {
  startTracking();
  module("_Smoother").throwOn("stopSmoother");
  harness.tracker.reset();
  EXPECT_EQ(take(), (Calls{"_RoundSearcher.stopSearcher()", "_Smoother.stopSmoother()"}));
}

TEST_F(TrackerTest, InitializeRestoresEveryDefaultButKeepsTrackingAndTheTarget) {
  module("_KRTargetManager")
      .answer("getRegisteredTargets", std::vector<std::string>{"Ball", "Face"});
  tracker->setMode("WholeBody");
  tracker->setEffector("LArm");
  tracker->setMaximumVelocity(2.0f);
  tracker->setMaximumAcceleration(3.0f);
  tracker->setTargetCoordinates(KR::KRValue{1, 2});
  tracker->toggleSearch(true);
  startTracking();
  ASSERT_TRUE(tracker->fSearcherRunning);
  KR::Tracker::setConfigValue(KR::Tracker::HEAD_THRESHOLD, KR::KRValue(1.0f));
  module("_RoundSearcher").throwOn("initialize");
  module("_Smoother").throwOn("_setMoveHysteresis", "no hysteresis");

  tracker->initialize();
  // After the limits are reset, Head mode is entered again.
  EXPECT_EQ(
      take(),
      (Calls{"_Smoother.setTarget([0, 0, 0, 0, 0, 0])", "_KRTargetManager.getRegisteredTargets()",
             "_KRTargetManager.removeTarget(\"Ball\")", "_ArmsLooker.stopLooker()",
             "_Smoother.setMaxDistance(3.40282e+38)", "_MotionMove.stopMove()",
             "_NavigationMove.stopMove()", "_WholeBodyLooker.stopLooker()",
             "_HeadLooker.setImplParam([1, 10])", "_HeadLooker.start()",
             "_MotionMove.setParam(invalid)", "_RoundSearcher.initialize()",
             "_RoundSearcher.stopSearcher()", "_Smoother._setMoveEvent(\"\")",
             "_Smoother.setTimeOut(3000)", "_Smoother._setMoveHysteresis([0.1, 0.1, 0.02])"}));
  EXPECT_EQ(records(), (Records{rec(Level::error, "initialize", "boom"),
                                rec(Level::error, "initialize", "no hysteresis")}));
  EXPECT_TRUE(tracker->isActive());
  EXPECT_EQ(tracker->getActiveTarget(), "Face");
  expectDefaultSettings(*tracker);
  EXPECT_FALSE(tracker->fSearcherRunning);
  EXPECT_FLOAT_EQ(KR::Tracker::getConfigFloatValue(KR::Tracker::HEAD_THRESHOLD), 0.05235988f);
}

}  // namespace
