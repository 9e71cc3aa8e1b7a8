#include <functional>
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

// Operations that forward one call to a sub-module: the call sent, the result with the answer
// scripted and with the call failing ("boom"), and where that failure is logged (empty: it
// reaches the caller). Operations without a result give an invalid value.
TEST_F(TrackerTest, ForwardersSendOneCallAndLogOrPassOnItsFailure) {
  using T = TrackerProbe;
  using Strings = std::vector<std::string>;
  struct Forwarder {
    std::function<KRValue(T&)> op;
    std::string call, location;
    KRValue result = KRValue(), failed = KRValue();
  };
  const std::vector<Forwarder> forwarders = {
      {[](T& t) { return t.setTimeOut(250), KRValue(); }, "_Smoother.setTimeOut(250)",
       "setTimeOut"},
      {[](T& t) { return KRValue(t.getTimeOut()); }, "_Smoother.getTimeOut()", "getTimeOut", 250,
       0},
      {[](T& t) { return t.setExtractorPeriod("Face", 90), KRValue(); },
       "_KRTargetManager.setExtractorPeriod(\"Face\", 90)", "setExtractorPeriod"},
      {[](T& t) { return KRValue(t.getExtractorPeriod("Face")); },
       "_KRTargetManager.getExtractorPeriod(\"Face\")", "getExtractorPeriod", 90, -1},
      {[](T& t) { return t.setSearcherFractionMaxSpeed(0.4f), KRValue(); },
       "_RoundSearcher.setFractionMaxSpeed(0.4)", "setSearcherFractionMaxSpeed"},
      {[](T& t) { return KRValue(t.getSearcherFractionMaxSpeed()); },
       "_RoundSearcher.getFractionMaxSpeed()", "getSearcherFractionMaxSpeed", 0.4f, 0.0f},
      {[](T& t) { return t.searcherSetUseWholeBodyLookAt(true), KRValue(); },
       "_RoundSearcher.setUseWholeBodyLookAt(true)", "searcherSetUseWholeBodyLookAt"},
      {[](T& t) { return t.registerTarget("Face", KRValue{0.1f}), KRValue(); },
       "_KRTargetManager.addTarget(\"Face\", [0.1])", "registerTarget"},
      {[](T& t) { return t.unregisterTarget("Face"), KRValue(); },
       "_KRTargetManager.removeTarget(\"Face\")", "unregisterTarget"},
      {[](T& t) {
         return t.unregisterTargets({"Face", "Ball"}), KRValue();
       },
       "_KRTargetManager.removeTargets([\"Face\", \"Ball\"])", "unregisterTargets"},
      {[](T& t) { return KRValue(t.getSupportedTargets()); },
       "_KRTargetManager.getSupportedTargets()", "getSupportedTargets", Strings{"Face"}, Strings{}},
      {[](T& t) { return KRValue(t.getRegisteredTargets()); },
       "_KRTargetManager.getRegisteredTargets()", "getRegisteredTargets", Strings{"Ball"},
       Strings{}},
      {[](T& t) { return KRValue(t.getEventName()); }, "_KRTargetManager.getEventName()",
       "xGetEventName", "evt", ""},
      {[](T& t) { return KRValue(t.getSecondEventName()); },
       "_KRTargetManager.getSecondEventName()", "xGetEventName", "evt2", ""},
      {[](T& t) { return t.setMoveEvent("MoveEvt"), KRValue(); },
       "_Smoother._setMoveEvent(\"MoveEvt\")", "setMoveEvent"},
      {[](T& t) {
         return t.setMoveHysteresis({0.2f, 0.3f}), KRValue();
       },
       "_Smoother._setMoveHysteresis([0.2, 0.3])", ""},
      {[](T& t) { return KRValue(t.getMoveHysteresis()); }, "_Smoother._getMoveHysteresis()", "",
       std::vector<float>{0.2f, 0.3f}},
      {[](T& t) { return t.stopLookAt(), KRValue(); }, "KRMotion._stopLookAt(true)", "stopLookAt"},
      {[](T& t) { return t.stopPointAt(), KRValue(); }, "KRMotion._stopPointAt(true)",
       "stopPointAt"},
  };
  module("_Smoother").answer("getTimeOut", 250);
  module("_Smoother").answer("_getMoveHysteresis", std::vector<float>{0.2f, 0.3f});
  module("_KRTargetManager").answer("getExtractorPeriod", 90);
  module("_KRTargetManager").answer("getSupportedTargets", Strings{"Face"});
  module("_KRTargetManager").answer("getRegisteredTargets", Strings{"Ball"});
  module("_RoundSearcher").answer("getFractionMaxSpeed", 0.4f);
  for (const Forwarder& f : forwarders) {
    SCOPED_TRACE(f.call);
    EXPECT_EQ(f.op(*tracker), f.result);
    EXPECT_EQ(take(), Calls{f.call});
    const std::size_t dot = f.call.find('.');
    FakeModule& m = module(f.call.substr(0, dot));
    const std::string method = f.call.substr(dot + 1, f.call.find('(') - dot - 1);
    m.throwOn(method);
    if (f.location.empty()) {
      EXPECT_EQ(errorOf<std::runtime_error>([&] { f.op(*tracker); }), "boom");
      EXPECT_EQ(records(), Records{});
    } else {
      EXPECT_EQ(f.op(*tracker), f.failed);
      EXPECT_EQ(records(), (Records{rec(Level::error, f.location, "boom")}));
    }
    m.reset(method);
    take();
    log.clear();
  }
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
