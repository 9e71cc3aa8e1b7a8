#include <algorithm>
#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <ko/log.h>
#include <kr/error.h>
#include <krtracker/config/krgenerictrackerconfig.h>
#include <krtracker/tools/tools.h>
#include <krtracker/types/types/trackinfos.h>
#include <support/fake_module.h>

#include "tracker_fixture.h"

namespace {

using namespace KR;
namespace tools = KR::Tracker::tools;
using ko::log::Level, ko::log::Record, KR::Tracker::types::TrackInfos;

class EventsTest : public krtest::MotionTest {
 protected:
  void SetUp() override {
    Tracker::resetConfig();
    Tracker::setConfigValue(Tracker::HEAD_THRESHOLD, KRValue(0.125f));
    scriptMotion();
  }
  void scriptMotion() {
    // Robot at (1, 2) heading 0.5 rad; torso 0.3 m up, turned a quarter to the left.
    fake_->answer("getRobotPosition", KRValue(std::vector<float>{1.0f, 2.0f, 0.5f}));
    fake_->answer("getPosition",
                  KRValue(std::vector<float>{1.0f, 2.0f, 0.3f, 0.0f, 0.0f, Math::kPi2}));
  }
  void TearDown() override { Tracker::resetConfig(); }

  bool convert(const KRValue& event, TrackInfos& out) {
    return tools::convertTrackerEventToTrackInfo(event, "EventsTest", "RedBallEvent", motion_, out);
  }

  ko::log::ScopedCapture capture_;
};

TEST_F(EventsTest, WorldLayoutMeasuresFromTheRobot) {
  TrackInfos out;
  ASSERT_TRUE(
      convert(KRValue{KRValue{3.0f, 5.0f, 0.5f, 0.1f, 0.2f, 0.3f}, KRValue{10, 500}, 1}, out));
  EXPECT_TRUE(out.isValid());
  EXPECT_EQ(out.getWorldToObject6D(), Math::Position6D(3.0f, 5.0f, 0.5f, 0.1f, 0.2f, 0.3f));
  EXPECT_NEAR(out.getDistance(), std::sqrt(13.25f), 1e-6f);  // (2, 3, 0.5) from the robot
  EXPECT_EQ(out.getTimestamp(), 10'000'500'000);
  EXPECT_EQ(out.getTrackEffector(), 1);
  EXPECT_EQ(out.getHeadThreshold(), 0.125f);
  EXPECT_EQ(out.toKRValue()[0][2], KRValue(-1));
  EXPECT_EQ(recorder_.calls(), std::vector<std::string>{"KRMotion.getRobotPosition(true)"});
  EXPECT_TRUE(capture_.records().empty());
}

TEST_F(EventsTest, TorsoLayoutIsMovedIntoTheWorld) {
  TrackInfos out;
  const KRValue robotFrame{9, 9, 9, 9, 9, 9};
  ASSERT_TRUE(convert(KRValue{KRValue{1.0f, 0.5f, 0.2f, 0.0f, 0.0f, 0.1f}, robotFrame,
                              KRValue{7, 250000}, 2, 0.05f},
                      out));
  // Torso yaw pi/2 maps (1, 0.5, 0.2) to (-0.5, 1, 0.2), then its position is added.
  const std::vector<float> p = out.getWorldToObject6D().toVector();
  const std::vector<float> expected{0.5f, 3.0f, 0.5f, 0.0f, 0.0f, Math::kPi2 + 0.1f};
  for (std::size_t i = 0; i < 6; ++i)
    EXPECT_NEAR(p[i], expected[i], 1e-6f) << i;
  EXPECT_NEAR(out.getDistance(), std::sqrt(1.3f), 1e-6f);  // all six components of the torso pose
  EXPECT_EQ(out.getTimestamp(), 7'250'000'000);
  EXPECT_EQ(out.getTrackEffector(), 2);
  EXPECT_EQ(out.getHeadThreshold(), 0.05f);
  EXPECT_EQ(recorder_.calls(),
            std::vector<std::string>{R"(KRMotion.getPosition("Torso", 1, true))"});
}

TEST_F(EventsTest, HeadThresholdIsClippedToHalfATurn) {
  const KRValue pose{1.0f, 2.0f, 0.5f, 0.0f, 0.0f, 0.1f};
  for (const auto& [given, expected] : std::vector<std::pair<KRValue, float>>{
           {KRValue(4.0f), Math::kPi}, {KRValue(-0.1f), 0.0f}, {KRValue(1), 1.0f}}) {
    TrackInfos out;
    ASSERT_TRUE(convert(KRValue{pose, KRValue{10, 500}, 0, given}, out)) << given;
    EXPECT_EQ(out.getHeadThreshold(), expected) << given;
  }
}

TEST_F(EventsTest, MalformedEventsAreDroppedWithOneRecord) {
  const KRValue six{1.0f, 2.0f, 0.5f, 0.0f, 0.0f, 0.1f};
  const KRValue time{10, 500};
  const std::string format = "Invalid data format from event: RedBallEvent";
  struct Case {
    std::string name;
    KRValue event;
    std::string text;  // the whole text, or its prefix when the platform's text follows
    bool prefixOnly = false;
    Level level = Level::warning;
    std::function<void(krtest::FakeModule&)> script = nullptr;
  };
  const std::vector<Case> cases{
      {"not an array", KRValue(3), format},
      {"two elements", KRValue{six, time}, format},
      {"element 0 not an array", KRValue{1, time, 0}, format},
      {"element 1 not an array", KRValue{six, 10, 0}, format},
      {"pose and three-element time, no fourth", KRValue{six, KRValue{1, 2, 3}, 0}, format},
      {"torso layout without effector", KRValue{six, six, time}, format},
      {"torso layout, element 2 not an array", KRValue{six, six, 5, 0}, format},
      {"torso layout, pose of five", KRValue{KRValue{1, 2, 3, 4, 5}, six, time, 0}, format},
      {"torso layout, time of three", KRValue{six, six, KRValue{1, 2, 3}, 0}, format},
      {"world pose with a string", KRValue{KRValue{1, 2, "x", 0, 0, 0}, time, 0},
       "Invalid TargetPositionInFrameWorld: ", true},
      {"torso pose with a bool", KRValue{KRValue{1, 2, 3, 0, 0, true}, six, time, 0},
       "Invalid TargetPositionInFrameTorso: ", true},
      {"robot pose with an array", KRValue{six, KRValue{1, 2, 3, 0, six, 0}, time, 0},
       "Invalid TargetPositionInFrameRobot: ", true},
      {"float seconds", KRValue{six, KRValue{10.5f, 500}, 0}, "Invalid TimeStamp: ", true},
      {"string microseconds", KRValue{six, six, KRValue{10, "500"}, 0},
       "Invalid TimeStamp: ", true},
      {"float effector", KRValue{six, time, 1.5f}, "Invalid End effector: ", true},
      {"string threshold", KRValue{six, time, 0, "x"}, "Invalid Head threshold: ", true},
      {"robot position fails", KRValue{six, time, 0}, "boom", false, Level::error,
       [](krtest::FakeModule& m) { m.throwOn("getRobotPosition"); }},
      {"torso position fails", KRValue{six, six, time, 0},
       KRError("KRMotion", "getPosition", "no torso").what(), false, Level::error,
       [](krtest::FakeModule& m) { m.throwKRErrorOn("getPosition", "no torso"); }},
  };
  const TrackInfos previous(Math::Position6D(4, 4, 4, 0, 0, 0), 1, 2, 1, 4.0f, 0.3f);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    capture_.clear();
    if (c.script)
      c.script(*fake_);
    TrackInfos out = previous;
    EXPECT_FALSE(convert(c.event, out));
    EXPECT_EQ(out.toKRValue(), previous.toKRValue());
    const std::vector<Record> records = capture_.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].category, "KRTracker.tools");
    EXPECT_EQ(records[0].level, c.level);
    EXPECT_EQ(records[0].location, "convertTrackerEventToTrackInfo");
    if (c.prefixOnly) {
      EXPECT_EQ(records[0].text.rfind(c.text, 0), 0u) << records[0].text;
      EXPECT_GT(records[0].text.size(), c.text.size()) << "the error's own text is missing";
    } else {
      EXPECT_EQ(records[0].text, c.text);
    }
    fake_->reset();
    scriptMotion();
  }
}

TEST_F(EventsTest, WarningsFollowTheCategoryLevel) {
  const Level before = ko::log::getLevel("KRTracker.tools");
  ko::log::setLevel("KRTracker.tools", Level::error);
  TrackInfos out;
  EXPECT_FALSE(convert(KRValue{KRValue{1, 2}, KRValue{3, 4}}, out));
  EXPECT_FALSE(convert(KRValue{KRValue{1, 2, 3, 0, 0, "x"}, KRValue{3, 4}, 0}, out));
  ko::log::setLevel("KRTracker.tools", before);
  EXPECT_TRUE(capture_.records().empty());
}

TEST_F(EventsTest, ResourcesAreTakenWhenNoneIsFree) {
  struct Case {
    std::vector<std::string> names;
    std::vector<std::string> free;  // resources the service reports as available
    bool emptyQueryAnswer;
    bool taken;
    std::vector<std::string> calls;
  };
  const std::string ask = "KRMotion.areResourcesAvailable(";
  const std::vector<Case> cases{
      {{}, {}, false, true, {ask + "[])"}},
      {{}, {}, true, false, {ask + "[])"}},
      {{"HeadYaw", "LArm"},
       {},
       false,
       true,
       {ask + R"(["HeadYaw", "LArm"]))", ask + R"(["HeadYaw"]))", ask + R"(["LArm"]))"}},
      {{"HeadYaw", "LArm", "RArm"},
       {"LArm"},
       false,
       false,
       {ask + R"(["HeadYaw", "LArm", "RArm"]))", ask + R"(["HeadYaw"]))", ask + R"(["LArm"]))"}},
  };
  for (const Case& c : cases) {
    recorder_.clear();
    // The whole set is available only when all of it is free.
    fake_->answerWith("areResourcesAvailable", [&c](const std::vector<KRValue>& args) {
      const KRValue& names = args.at(0);
      if (names.size() == 0)
        return KRValue(c.emptyQueryAnswer);
      for (std::size_t i = 0; i < names.size(); ++i) {
        if (std::find(c.free.begin(), c.free.end(), names[i].asString()) == c.free.end())
          return KRValue(false);
      }
      return KRValue(true);
    });
    EXPECT_EQ(tools::areAllResourcesTaken(motion_, c.names), c.taken);
    EXPECT_EQ(recorder_.calls(), c.calls);
  }
  EXPECT_TRUE(capture_.records().empty());

  fake_->throwKRErrorOn("areResourcesAvailable", "motion down");
  EXPECT_FALSE(tools::areAllResourcesTaken(motion_, {"HeadYaw"}));
  EXPECT_EQ(
      capture_.records(),
      (std::vector<Record>{{"KRTracker.tools", Level::error, "areAllResourcesTaken",
                            KRError("KRMotion", "areResourcesAvailable", "motion down").what()}}));
}

}  // namespace
