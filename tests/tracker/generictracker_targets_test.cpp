#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/error_of.h"
#include "tracker/tracker_fixture.h"

namespace {

using namespace krtest;

TEST_F(TrackerTest, TrackOfTheTrackedTargetOnlySaysSo) {
  startTracking("Face");
  tracker->track("Face");
  tracker->trackEvent("Face");
  EXPECT_EQ(take(), Calls{});
  EXPECT_EQ(records(),
            (Records{rec(Level::verbose, "track", "Target name: Face is already tracked."),
                     rec(Level::verbose, "trackEvent", "Event name: Face is already tracked.")}));
}

TEST_F(TrackerTest, TrackOfAnUnregisteredTargetIsRefusedAfterSettingTheLandmarksFlag) {
  startTracking("Face");
  module("_KRTargetManager").answer("isTargetManaged", false);
  tracker->track(KR::Tracker::Target::TargetLandMarks);
  EXPECT_EQ(take(), Calls{"_KRTargetManager.isTargetManaged(\"LandMarks\")"});
  EXPECT_EQ(records(), (Records{rec(Level::warning, "track",
                                    "Target name: LandMarks is not registered. Register the "
                                    "target before track.")}));
  EXPECT_EQ(tracker->getActiveTarget(), "Face");
  EXPECT_FALSE(tracker->fNotLandMarks);
}

TEST_F(TrackerTest, TrackStopsAtAFailingTargetManager) {
  expectTrackStopsAtAFailingTargetManager(*this);
}

TEST_F(TrackerTest, TrackWhileActiveSwitchesTheSmootherWithoutStoppingIt) {
  startTracking("Face");
  tracker->track("Ball");
  EXPECT_EQ(take(),
            (Calls{"_KRTargetManager.isTargetManaged(\"Ball\")",
                   "_KRTargetManager.setActiveTarget(\"Ball\")", "_KRTargetManager.getEventName()",
                   "_Smoother.setTarget([0, 0, 0, 0, 0, 0])", "_Smoother.restart(\"evt\")"}));
  EXPECT_EQ(tracker->getActiveTarget(), "Ball");
}

TEST_F(TrackerTest, TrackEventGoesOnWhenTheTargetManagerFails) {
  expectTrackEventGoesOnWhenTheTargetManagerFails(*this);
  tracker->trackEvent("OtherEvent");
  EXPECT_EQ(take().back(), "_Smoother.restart(\"evt\")");
}

TEST_F(TrackerTest, LandmarksFeedTheSmootherTwoEventsAndTheIds) {
  const KRValue coordinates{KRValue{1.0f, 2.0f, 0.5f}, KRValue{1.0f, -2.0f, 0.5f}};
  // The ids are asked twice: the second time to recompute the coordinates.
  Calls head = trackStartCalls("LandMarks");
  head.insert(head.end(), {"_KRTargetManager.getSecondEventName()",
                           "_KRTargetManager.getTargetIds(\"LandMarks\")",
                           "_KRTargetManager.getTargetIds(\"LandMarks\")"});
  const std::string badIds = "setTargetCoordinates -> coordinates not set not get valid ids.";
  struct Case {
    std::vector<int> ids;
    Calls tail;
    Records logs;
  };
  const std::vector<Case> cases = {
      {{3},
       {"_Smoother.stopSmoother()", "_Smoother.setTarget([0, 0, 0, 0, 0, 0])",
        "_Smoother.startEvent(\"evt\", \"evt2\")"},
       {rec(Level::warning, "xSetCoordinates", badIds)}},
      {{3, 9},
       {"_Smoother.setTargetIds(3, 9)", "_Smoother.setMap([[3, [1, 2, 0.5]], [9, [1, -2, 0.5]]])",
        "_Smoother.stopSmoother()", "_Smoother.setTarget([0, 0, 0, 0, 0, 0])",
        "_Smoother.setTargetIds(3, 9)", "_Smoother.startEvent(\"evt\", \"evt2\")"},
       {}},
      {{3, 9, 12},
       {"_Smoother.stopSmoother()", "_Smoother.setTarget([0, 0, 0, 0, 0, 0])",
        "_Smoother.setTargetIds(3, 9)", "_Smoother.startEvent(\"evt\", \"evt2\")"},
       {rec(Level::warning, "xSetCoordinates", badIds)}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.ids.size());
    module("_KRTargetManager").answer("getTargetIds", c.ids);
    tracker->setTargetCoordinates(coordinates);
    tracker->track(KR::Tracker::Target::TargetLandMarks);
    Calls expected = head;
    expected.insert(expected.end(), c.tail.begin(), c.tail.end());
    EXPECT_EQ(take(), expected);
    EXPECT_EQ(records(), c.logs);
    tracker->stop();
    take();
    log.clear();
  }
}

TEST_F(TrackerTest, LandmarksRestartAndTheInvalidSmootherMode) {
  startTracking("Face");
  tracker->track(KR::Tracker::Target::TargetLandMarks);
  const Calls calls = take();
  EXPECT_EQ(Calls(calls.begin() + 2, calls.end()),
            (Calls{"_KRTargetManager.getEventName()", "_KRTargetManager.getSecondEventName()",
                   "_KRTargetManager.getTargetIds(\"LandMarks\")",
                   "_Smoother.setTarget([0, 0, 0, 0, 0, 0])", "_Smoother.setTargetIds(4, 7)",
                   "_Smoother.restart(\"evt\", \"evt2\")"}));

  // The landmarks flag without the landmarks target: start throws, restart only logs.
  startTracking("Face");
  tracker->fNotLandMarks = false;
  EXPECT_EQ(krtest::errorOf([&] { tracker->xStartSmoother(); }),
            "KRTracker.GenericTracker::start: Tracker is not initialized correctly.");
  tracker->xRestartSmoother();
  EXPECT_EQ(take(), Calls{});
  EXPECT_EQ(records(), (Records{rec(Level::error, "xRestartSmoother", "Invalid Smoother mode.")}));
}

TEST_F(TrackerTest, TargetCoordinatesMustBeAPair) {
  const std::string refused =
      "setTargetCoordinates -> coordinates are not valid. The format is: [[x, y, z], [x, y, z]].";
  const KRValue pair{KRValue{1, 2, 3}, "anything"};
  for (const KRValue& bad : {KRValue(), KRValue(2.0f), KRValue{1, 2, 3}, KRValue{1}}) {
    SCOPED_TRACE(bad.toString());
    tracker->setTargetCoordinates(pair);
    tracker->setTargetCoordinates(bad);
    EXPECT_EQ(tracker->getTargetCoordinates(), pair);
    EXPECT_EQ(records(), (Records{rec(Level::warning, "setTargetCoordinates", refused)}));
    log.clear();
  }
  // While active the coordinates reach the smoother only for the landmarks target.
  startTracking("Face");
  tracker->setTargetCoordinates(pair);
  EXPECT_EQ(take(), Calls{});
  startTracking(KR::Tracker::Target::TargetLandMarks);
  tracker->setTargetCoordinates(pair);
  EXPECT_EQ(take(),
            (Calls{"_KRTargetManager.getTargetIds(\"LandMarks\")", "_Smoother.setTargetIds(4, 7)",
                   "_Smoother.setMap([[4, [1, 2, 3]], [7, \"anything\"]])"}));
}

TEST_F(TrackerTest, TargetPositionIsConvertedFromTheTorsoFrame) {
  module("_KRTargetManager").answer("getActiveTargetPosition", std::vector<float>{});
  EXPECT_EQ(tracker->getTargetPosition(KR::Math::FRAME_WORLD), std::vector<float>{});
  EXPECT_EQ(take(), Calls{"_KRTargetManager.getActiveTargetPosition()"});

  // The torso stands 0.5 m above the world origin.
  module("KRMotion")
      .answer("getTransform", std::vector<float>{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0.5f});
  module("_KRTargetManager").answer("getActiveTargetPosition", std::vector<float>{1, 2, 3});
  EXPECT_EQ(tracker->getTargetPosition(KR::Math::FRAME_WORLD), (std::vector<float>{1, 2, 3.5f}));
  EXPECT_EQ(take(), (Calls{"_KRTargetManager.getActiveTargetPosition()",
                           "KRMotion.getTransform(\"Torso\", 1, true)"}));

  module("_KRTargetManager").throwOn("getActiveTargetPosition");
  EXPECT_EQ(tracker->getTargetPosition(KR::Math::FRAME_TORSO), std::vector<float>{});
  EXPECT_EQ(records(), (Records{rec(Level::error, "getTargetPosition", "boom")}));
}

}  // namespace
