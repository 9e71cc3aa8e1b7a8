#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <krtracker/config/krgenerictrackerconfig.h>

#include "support/error_of.h"
#include "tracker/tracker_fixture.h"

namespace {

using namespace krtest;

TEST(GenericTrackerLimits, VelocityIsBoundedByTheSlowerHeadJoint) {
  // Kibo's head joints: 7.3 and 6.6 rad/s; Rover's: 6.8 and 6.2 rad/s.
  struct Case {
    const char* robot;
    float velocity;
    std::string error;
  };
  const std::vector<Case> cases = {
      {"kibo.xml", 0.001f, ""},
      {"kibo.xml", 6.6f, ""},
      {"kibo.xml", 0.0009f, "Invalid velocity: \"0.0009\". Could be: ]0; 6.6]"},
      {"kibo.xml", 6.61f, "Invalid velocity: \"6.61\". Could be: ]0; 6.6]"},
      {"rover.xml", 6.2f, ""},
      {"rover.xml", 6.3f, "Invalid velocity: \"6.3\". Could be: ]0; 6.2]"},
      {"rover.xml", -1.0f, "Invalid velocity: \"-1\". Could be: ]0; 6.2]"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.robot) + " " + std::to_string(c.velocity));
    TrackerHarness harness(c.robot);
    krtest::TrackerProbe& tracker = harness.build();
    EXPECT_EQ(errorOf([&] { tracker.setMaximumVelocity(c.velocity); }), c.error);
    EXPECT_EQ(tracker.getMaximumVelocity(), c.error.empty() ? c.velocity : 1.0f);
    EXPECT_EQ(harness.take(), Calls{});
  }
}

TEST_F(TrackerTest, AccelerationRangeAndLimitsReachTheHeadLookerAtTheNextModeUpdate) {
  struct Case {
    float acceleration;
    std::string error;
  };
  for (const Case& c : {Case{0.001f, ""}, Case{20.0f, ""},
                        Case{20.0001f, "Invalid acceleration: \"20.0001\". Could be: ]0; 20]"},
                        Case{0.0f, "Invalid acceleration: \"0\". Could be: ]0; 20]"}}) {
    SCOPED_TRACE(c.acceleration);
    tracker->setMaximumAcceleration(10.0f);
    EXPECT_EQ(errorOf([&] { tracker->setMaximumAcceleration(c.acceleration); }), c.error);
    EXPECT_EQ(tracker->getMaximumAcceleration(), c.error.empty() ? c.acceleration : 10.0f);
  }
  tracker->setMaximumVelocity(2.5f);
  tracker->setMaximumAcceleration(5.0f);
  EXPECT_EQ(take(), Calls{});
  tracker->track("Face");
  const Calls calls = take();
  EXPECT_NE(std::find(calls.begin(), calls.end(), "_HeadLooker.setImplParam([2.5, 5])"),
            calls.end());
}

TEST_F(TrackerTest, DetectionDistanceMustExceedAMillimetre) {
  tracker->setMaximumDistanceDetection(0.001f);
  tracker->setMaximumDistanceDetection(-2.0f);
  EXPECT_EQ(take(), Calls{});
  EXPECT_EQ(tracker->getMaximumDistanceDetection(), std::numeric_limits<float>::max());
  EXPECT_EQ(records(), (Records{rec(Level::warning, "setMaximumDistanceDetection",
                                    "pMaxDistance: 0.001 must be strictly positive."),
                                rec(Level::warning, "setMaximumDistanceDetection",
                                    "pMaxDistance: -2 must be strictly positive.")}));
  log.clear();

  tracker->setMaximumDistanceDetection(0.0011f);
  module("_Smoother").throwOn("setMaxDistance");
  tracker->setMaximumDistanceDetection(4.5f);  // kept although the smoother refuses it
  EXPECT_EQ(take(), (Calls{"_Smoother.setMaxDistance(0.0011)", "_Smoother.setMaxDistance(4.5)"}));
  EXPECT_EQ(tracker->getMaximumDistanceDetection(), 4.5f);
  EXPECT_EQ(records(), (Records{rec(Level::error, "setMaximumDistanceDetection", "boom")}));
}

TEST_F(TrackerTest, SearchFlagsDriveTheSearcher) {
  tracker->toggleSearch(false);
  tracker->toggleSearch(true);  // inactive: the wish only
  EXPECT_EQ(take(), Calls{});
  EXPECT_TRUE(tracker->isSearchEnabled());

  tracker->track("Face");
  Calls calls = take();
  ASSERT_GE(calls.size(), 4u);
  EXPECT_EQ(calls[2], "_RoundSearcher.startEvent()");  // before the mode update
  EXPECT_EQ(calls[3], "_MotionMove.stopMove()");
  EXPECT_TRUE(tracker->fSearcherRunning);

  tracker->toggleSearch(false);
  tracker->toggleSearch(true);
  EXPECT_EQ(take(), (Calls{"_RoundSearcher.stopSearcher()", "_RoundSearcher.startEvent()",
                           "_Smoother._raiseSearchEvent()"}));

  // A searcher that cannot start is not running, so nothing raises the search event.
  tracker->toggleSearch(false);
  take();
  module("_RoundSearcher").throwOn("startEvent");
  tracker->toggleSearch(true);
  EXPECT_EQ(take(), Calls{"_RoundSearcher.startEvent()"});
  EXPECT_FALSE(tracker->fSearcherRunning);
  EXPECT_EQ(records(),
            (Records{rec(Level::error, "xStartSearcher", "Could not start Searcher: boom")}));

  // restart retries, and the search event failure is logged with its text alone.
  module("_RoundSearcher").reset("startEvent");
  module("_Smoother").throwOn("_raiseSearchEvent", "no event");
  log.clear();
  tracker->restart();
  calls = take();
  EXPECT_EQ(Calls(calls.begin() + 1, calls.begin() + 3),
            (Calls{"_RoundSearcher.startEvent()", "_Smoother._raiseSearchEvent()"}));
  EXPECT_EQ(records(), (Records{rec(Level::error, "xRestartSearcher", "no event")}));
}

TEST_F(TrackerTest, ForwardersReturnTheirFailureValue) {
  module("_Smoother").answer("getTimeOut", 250);
  module("_KRTargetManager").answer("getExtractorPeriod", 90);
  module("_RoundSearcher").answer("getFractionMaxSpeed", 0.4f);
  tracker->setTimeOut(250);
  tracker->setExtractorPeriod("Face", 90);
  tracker->setSearcherFractionMaxSpeed(0.4f);
  tracker->searcherSetUseWholeBodyLookAt(true);
  EXPECT_EQ(tracker->getTimeOut(), 250);
  EXPECT_EQ(tracker->getExtractorPeriod("Face"), 90);
  EXPECT_EQ(tracker->getSearcherFractionMaxSpeed(), 0.4f);
  EXPECT_EQ(take(),
            (Calls{"_Smoother.setTimeOut(250)", "_KRTargetManager.setExtractorPeriod(\"Face\", 90)",
                   "_RoundSearcher.setFractionMaxSpeed(0.4)",
                   "_RoundSearcher.setUseWholeBodyLookAt(true)", "_Smoother.getTimeOut()",
                   "_KRTargetManager.getExtractorPeriod(\"Face\")",
                   "_RoundSearcher.getFractionMaxSpeed()"}));

  for (const char* m : {"setTimeOut", "getTimeOut"})
    module("_Smoother").throwOn(m);
  for (const char* m : {"setExtractorPeriod", "getExtractorPeriod"})
    module("_KRTargetManager").throwOn(m);
  for (const char* m : {"setFractionMaxSpeed", "getFractionMaxSpeed", "setUseWholeBodyLookAt"})
    module("_RoundSearcher").throwOn(m);
  tracker->setTimeOut(1);
  tracker->setExtractorPeriod("Face", 1);
  tracker->setSearcherFractionMaxSpeed(0.5f);
  tracker->searcherSetUseWholeBodyLookAt(false);
  EXPECT_EQ(tracker->getTimeOut(), 0);
  EXPECT_EQ(tracker->getExtractorPeriod("Face"), -1);
  EXPECT_EQ(tracker->getSearcherFractionMaxSpeed(), 0.0f);
  EXPECT_EQ(records(), (Records{rec(Level::error, "setTimeOut", "boom"),
                                rec(Level::error, "setExtractorPeriod", "boom"),
                                rec(Level::error, "setSearcherFractionMaxSpeed", "boom"),
                                rec(Level::error, "searcherSetUseWholeBodyLookAt", "boom"),
                                rec(Level::error, "getTimeOut", "boom"),
                                rec(Level::error, "getExtractorPeriod", "boom"),
                                rec(Level::error, "getSearcherFractionMaxSpeed", "boom")}));
}

TEST_F(TrackerTest, TrackerConfigWritesKnownKeysAndWarnsAboutOthers) {
  using namespace KR::Tracker;
  const KRValue config{KRValue{"FOO", 1.0f}, KRValue{"HEAD_THRESHOLD", 2},
                       KRValue{"head_threshold", 3.0f}, KRValue{"LOG_HEAD_COMMAND", true}};
  tracker->setTrackerConfig(config);
  EXPECT_EQ(
      records(),
      (Records{rec(Level::warning, "setTrackerConfig", "setTrackerConfig: FOO is an unknown key."),
               rec(Level::warning, "setTrackerConfig",
                   "setTrackerConfig: head_threshold is an unknown key.")}));
  EXPECT_EQ(getConfigFloatValue(HEAD_THRESHOLD), 2.0f);
  const std::map<std::string, float> map = tracker->getTrackerConfig();
  EXPECT_EQ(map.size(), 15u);
  EXPECT_EQ(map.at("HEAD_THRESHOLD"), 2.0f);
  EXPECT_EQ(map.at("LOG_HEAD_COMMAND"), 1.0f);
  const std::string text = tracker->getTrackerConfigStr();
  EXPECT_EQ(text.rfind("HEAD_THRESHOLD: +2\n", 0), 0u) << text;
  EXPECT_NE(text.find("LOG_HEAD_COMMAND: true\n"), std::string::npos);

  // A value that is not name/value pairs is refused as a whole.
  EXPECT_THROW(tracker->setTrackerConfig(KRValue(1.0f)), std::exception);
  EXPECT_EQ(getConfigFloatValue(HEAD_THRESHOLD), 2.0f);

  tracker->initialize();
  EXPECT_FLOAT_EQ(getConfigFloatValue(HEAD_THRESHOLD), 0.05235988f);
  EXPECT_FALSE(getConfigBoolValue(LOG_HEAD_COMMAND));
}

}  // namespace
