#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <krtracker/tools/tools.h>

#include "tracker/tracker_fixture.h"

namespace {

using namespace krtest;

const Calls kHead = {"_MotionMove.stopMove()", "_NavigationMove.stopMove()",
                     "_WholeBodyLooker.stopLooker()", "_HeadLooker.setImplParam([1, 10])",
                     "_HeadLooker.start()"};
const Calls kWholeBody = {"_MotionMove.stopMove()", "_NavigationMove.stopMove()",
                          "_HeadLooker.stopLooker()", "_WholeBodyLooker.start()"};
const Calls kNavigate = {"_WholeBodyLooker.stopLooker()",       "_MotionMove.stopMove()",
                         "_HeadLooker.setImplParam([1, 10])",   "_HeadLooker.start()",
                         "_NavigationMove.setParam([\"cfg\"])", "_NavigationMove.start()"};
const Calls kMove = {"_WholeBodyLooker.stopLooker()", "_NavigationMove.stopWithoutStopMove()",
                     "_HeadLooker.setImplParam([1, 10])", "_HeadLooker.start()",
                     "_MotionMove.start()"};
const Calls kMoveWholeBody = {"_HeadLooker.stopLooker()", "_NavigationMove.stopMove()",
                              "_WholeBodyLooker.start()", "_MotionMove.start()"};

TEST(GenericTrackerModes, UpdateModeRunsTheSequenceOfTheModeAndStopsAtAFailure) {
  struct Case {
    std::string mode;
    Calls sequence;
    std::string failing;  // "Module.method" that throws, or empty
  };
  const std::vector<Case> cases = {{"Head", kHead, ""},
                                   {"WholeBody", kWholeBody, ""},
                                   {"Navigate", kNavigate, ""},
                                   {"Move", kMove, ""},
                                   {"MoveWholeBody", kMoveWholeBody, ""},
                                   {"Bogus", {}, ""},
                                   {"Head", kHead, "_NavigationMove.stopMove"},
                                   {"WholeBody", kWholeBody, "_HeadLooker.stopLooker"},
                                   {"Navigate", kNavigate, "_HeadLooker.start"},
                                   {"Move", kMove, "_HeadLooker.setImplParam"},
                                   {"MoveWholeBody", kMoveWholeBody, "_WholeBodyLooker.start"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.mode + " failing " + c.failing);
    ko::log::ScopedCapture log;
    TrackerHarness harness("rover.xml");
    krtest::TrackerProbe& tracker = harness.build();
    tracker.setMoveConfig(KRValue{"cfg"});
    tracker.track("Face");
    tracker.forceMode(c.mode);
    harness.take();
    log.clear();

    Calls expected = c.sequence;
    if (!c.failing.empty()) {
      const std::size_t dot = c.failing.find('.');
      harness.module(c.failing.substr(0, dot)).throwOn(c.failing.substr(dot + 1));
      auto it = std::find_if(expected.begin(), expected.end(), [&](const std::string& call) {
        return call.rfind(c.failing + "(", 0) == 0;
      });
      ASSERT_NE(it, expected.end());
      expected.erase(it + 1, expected.end());
    }
    Records logs;
    if (c.mode == "MoveWholeBody" && !c.failing.empty()) {
      // The one sequence that lets its failure through.
      EXPECT_THROW(tracker.updateModeLocked(), std::runtime_error);
    } else {
      tracker.updateModeLocked();
      if (!c.failing.empty())
        logs = {rec(Level::error, "xUpdateMode", "boom")};
      if (c.mode == "Bogus") {
        logs = {rec(Level::warning, "xUpdateMode", "Tracker mode: Bogus is not valid")};
      }
    }
    EXPECT_EQ(harness.take(), expected);
    EXPECT_EQ(trackerRecords(log), logs);

    // Inactive, nothing is reconfigured.
    tracker.stop();
    harness.take();
    tracker.updateModeLocked();
    EXPECT_EQ(harness.take(), Calls{});
  }
}

TEST(GenericTrackerModes, SetModeValidatesAndReconfiguresAnActiveTracker) {
  const std::string deprecated = "Tracker mode: MoveSafely is deprecated. Use Move mode instead.";
  const std::string kiboList = " is not valid. Must be: [Head, WholeBody, Move]";
  struct Case {
    const char* robot;
    std::string initial, requested, final;
    std::string warning;
    Calls calls;
  };
  const std::vector<Case> cases = {
      {"kibo.xml", "Head", "Head", "Head", "", {}},
      {"kibo.xml", "Head", "head", "Head", "Mode : head" + kiboList, {}},
      {"kibo.xml", "Head", "Navigate", "Head", "Mode : Navigate" + kiboList, {}},
      {"kibo.xml", "Head", "MoveWholeBody", "Head", "Mode : MoveWholeBody" + kiboList, {}},
      {"rover.xml", "Head", "Navigate", "Navigate", "", kNavigate},
      {"kibo.xml", "Head", "WholeBody", "WholeBody", "", kWholeBody},
      {"kibo.xml", "Head", "MoveSafely", "Move", deprecated, kMove},
      {"kibo.xml", "Move", "MoveSafely", "Move", deprecated, kMove}};
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.robot) + " " + c.initial + " -> " + c.requested);
    ko::log::ScopedCapture log;
    TrackerHarness harness(c.robot);
    krtest::TrackerProbe& tracker = harness.build();
    tracker.setMoveConfig(KRValue{"cfg"});
    tracker.setMode(c.initial);
    tracker.track("Face");
    harness.take();
    log.clear();

    tracker.setMode(c.requested);
    EXPECT_EQ(tracker.getMode(), c.final);
    EXPECT_EQ(harness.take(), c.calls);
    Records logs;
    if (!c.warning.empty())
      logs = {rec(Level::warning, "setMode", c.warning)};
    EXPECT_EQ(trackerRecords(log), logs);
  }
}

TEST_F(TrackerTest, ModeAndEffectorChosenWhileInactiveApplyAtStart) {
  tracker->setMode("WholeBody");
  tracker->setEffector("LArm");
  EXPECT_EQ(take(), Calls{});
  tracker->track("Face");
  Calls expected = {"_KRTargetManager.isTargetManaged(\"Face\")",
                    "_KRTargetManager.setActiveTarget(\"Face\")"};
  expected.insert(expected.end(), kWholeBody.begin(), kWholeBody.end());
  expected.insert(expected.end(), {"_ArmsLooker.setImplParam([\"LArm\", true])",
                                   "_ArmsLooker.start()", "_KRTargetManager.start()"});
  const Calls calls = take();
  EXPECT_EQ(Calls(calls.begin(), calls.begin() + expected.size()), expected);
}

TEST(GenericTrackerModes, MoveConfigGoesToNavigationOnlyInNavigateMode) {
  TrackerHarness harness("rover.xml");
  krtest::TrackerProbe& tracker = harness.build();
  tracker.setMoveConfig(KRValue{1});
  tracker.setMode("Navigate");  // inactive: stored only
  tracker.setMoveConfig(KRValue{2});
  EXPECT_EQ(harness.take(), (Calls{"_MotionMove.setParam([1])", "_MotionMove.setParam([2])",
                                   "_NavigationMove.setParam([2])"}));
  EXPECT_EQ(tracker.getMoveConfig(), KRValue{2});

  ko::log::ScopedCapture log;
  harness.module("_MotionMove").throwOn("setParam");
  harness.module("_NavigationMove").throwOn("setParam", "nav");
  tracker.setMoveConfig(KRValue{3});
  EXPECT_EQ(tracker.getMoveConfig(), KRValue{3});
  EXPECT_EQ(trackerRecords(log), (Records{rec(Level::error, "setMoveConfig", "boom"),
                                          rec(Level::error, "setMoveConfig", "nav")}));
}

TEST_F(TrackerTest, RelativePositionNeedsAnArrayOfAtLeastThree) {
  const std::string refused =
      "Relative position is not valid. Could be [coordX, coordY, coordWz, thresholdX, "
      "thresholdY, thresholdWz].";
  for (const KRValue& bad : {KRValue(), KRValue(1.0f), KRValue{1, 2}}) {
    SCOPED_TRACE(bad.toString());
    tracker->setRelativePosition(bad);
    EXPECT_EQ(tracker->getRelativePosition(), KRValue(std::vector<float>(6, 0.0f)));
    EXPECT_EQ(records(), (Records{rec(Level::warning, "setRelativePosition", refused)}));
    log.clear();
  }
  tracker->setRelativePosition(KRValue{1, 2, 3});
  EXPECT_EQ(tracker->getRelativePosition(), (KRValue{1, 2, 3}));
  EXPECT_EQ(take(), Calls{});

  startTracking();
  module("_Smoother").throwOn("setTarget");
  tracker->setRelativePosition(KRValue{0.5f, 0, 0, 0.1f, 0.1f, 0.1f});
  EXPECT_EQ(take(), Calls{"_Smoother.setTarget([0.5, 0, 0, 0.1, 0.1, 0.1])"});
  EXPECT_EQ(records(), (Records{rec(Level::error, "setRelativePosition", "boom")}));
}

TEST_F(TrackerTest, RobotPositionComesFromTheLandmarksOnly) {
  module("_Smoother").answer("getPosition", KRValue{1, 2, 3, 4, 5, 6});
  startTracking("Face");
  EXPECT_EQ(tracker->getRobotPosition(), std::vector<float>{});
  EXPECT_EQ(take(), Calls{});
  startTracking(KR::Tracker::Target::TargetLandMarks);
  EXPECT_EQ(tracker->getRobotPosition(), (std::vector<float>{1, 2, 3, 4, 5, 6}));
  module("_Smoother").answer("getPosition", KRValue{1, 2, 3, 4, 5});
  EXPECT_EQ(tracker->getRobotPosition(), std::vector<float>{});
  EXPECT_EQ(take(), (Calls{"_Smoother.getPosition()", "_Smoother.getPosition()"}));
  module("_Smoother").throwOn("getPosition");
  EXPECT_THROW(tracker->getRobotPosition(), std::runtime_error);
}

TEST(GenericTrackerTools, NullMoveCommandIsStrictlyBelowTheThreshold) {
  using KR::Math::Pose2D;
  using KR::Tracker::tools::isNullMoveCommand;
  EXPECT_FALSE(isNullMoveCommand(Pose2D(0.01f, -0.01f, 0.0f), 0.02f));
  EXPECT_TRUE(isNullMoveCommand(Pose2D(0.01f, -0.01f, 0.0f), 0.0201f));
  EXPECT_FALSE(isNullMoveCommand(Pose2D(0.0f, 0.0f, -0.05f), 0.04f));
  EXPECT_FALSE(isNullMoveCommand(Pose2D(), 0.0f));
}

}  // namespace
