// What the sub-modules take from the configuration table: safe reads that fall back instead of
// throwing, the LOG_ switches that write their diagnostic files, and the head threshold of each
// kind of target.

#include <unistd.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include <krsim/tracking/config_reads.h>
#include <krtracker/config/krgenerictrackerconfig.h>
#include <krtracker/types/types/trackinfos.h>

#include "sim/tracking/tracking_fixture.h"

namespace {

using namespace krtest;

namespace fs = std::filesystem;
namespace T = KR::Tracker;

class ConfigReadsTest : public ::testing::Test {
 protected:
  void TearDown() override { T::resetConfig(); }
};

TEST_F(ConfigReadsTest, AValueOfTheWrongKindGivesTheFallbackInsteadOfAnError) {
  T::setConfigValue(T::LOG_HEAD_COMMAND, KRValue(true));
  EXPECT_TRUE(KR::Sim::configSwitch(T::LOG_HEAD_COMMAND));
  T::setConfigValue(T::LOG_HEAD_COMMAND, KRValue("yes"));
  EXPECT_FALSE(KR::Sim::configSwitch(T::LOG_HEAD_COMMAND));

  T::setConfigValue(T::WHOLEBODY_THRESHOLD, KRValue(0.1f));
  EXPECT_EQ(KR::Sim::configFloat(T::WHOLEBODY_THRESHOLD, 0.25f), 0.1f);
  T::setConfigValue(T::WHOLEBODY_THRESHOLD, KRValue("wide"));
  EXPECT_EQ(KR::Sim::configFloat(T::WHOLEBODY_THRESHOLD, 0.25f), 0.25f);

  // Gains always come as [kp, ki, kd].
  T::setConfigValue(T::MOVE_X_GAINS, KRValue{2.0f});
  EXPECT_EQ(KR::Sim::configGains(T::MOVE_X_GAINS), (std::vector<float>{2.0f, 0.0f, 0.0f}));
  T::setConfigValue(T::MOVE_X_GAINS, KRValue{1.0f, 2.0f, 3.0f, 4.0f});
  EXPECT_EQ(KR::Sim::configGains(T::MOVE_X_GAINS), (std::vector<float>{1.0f, 2.0f, 3.0f}));
  T::setConfigValue(T::MOVE_X_GAINS, KRValue("fast"));
  EXPECT_EQ(KR::Sim::configGains(T::MOVE_X_GAINS), (std::vector<float>{0.0f, 0.0f, 0.0f}));
}

TEST_F(ConfigReadsTest, EachKindHasItsHeadThresholdAndAnyOtherTheGenericOne) {
  const struct {
    std::string kind;
    T::ConfigKey key;
  } cases[] = {
      {Target::TargetRedBall, T::REDBALL_HEAD_THRESHOLD},
      {Target::TargetFace, T::FACE_HEAD_THRESHOLD},
      {Target::TargetLandMarks, T::LANDMARK_HEAD_THRESHOLD},
      {Target::TargetPeople, T::PEOPLE_HEAD_THRESHOLD},
      {Target::TargetSound, T::SOUND_HEAD_THRESHOLD},
      {"Cat", T::HEAD_THRESHOLD},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.kind);
    T::resetConfig();
    T::setConfigValue(T::HEAD_THRESHOLD, KRValue(0.3f));
    T::setConfigValue(c.key, KRValue(0.07f));
    EXPECT_EQ(KR::Sim::headThresholdForKind(c.kind), 0.07f);
    // A value of the wrong kind gives the generic threshold, and a bad generic one 0.
    T::setConfigValue(c.key, KRValue("narrow"));
    const float generic = c.key == T::HEAD_THRESHOLD ? 0.0f : 0.3f;
    EXPECT_EQ(KR::Sim::headThresholdForKind(c.kind), generic);
  }
}

class ConfigurationTest : public TrackingTest {
 protected:
  void TearDown() override {
    TrackingTest::TearDown();
    KR::Tracker::resetConfig();
    fs::remove_all(directory);
  }
  const fs::path directory =
      fs::temp_directory_path() / ("krsim-modules-logs-" + std::to_string(::getpid()));
};

TEST_F(ConfigurationTest, EachLogSwitchWritesTheCommandsOfItsModules) {
  const std::vector<std::string> files{"HeadLooker.txt", "WholeBodyLooker.txt", "ArmsLooker.txt",
                                       "MotionMove.txt", "Smoother_input.txt"};
  const struct {
    KR::Tracker::ConfigKey key;
    std::string mode;
    std::string effector;
    std::string file;
    std::string header;
  } cases[] = {
      {KR::Tracker::LOG_HEAD_COMMAND, "Head", "None", "HeadLooker.txt", "#Time HeadYaw HeadPitch#"},
      {KR::Tracker::LOG_HEAD_COMMAND, "WholeBody", "None", "WholeBodyLooker.txt",
       "#Time HeadYaw HeadPitch#"},
      {KR::Tracker::LOG_ARM_COMMAND, "Head", "LArm", "ArmsLooker.txt",
       "#Time LShoulderPitch LShoulderRoll LElbowYaw LElbowRoll LWristYaw#"},
      {KR::Tracker::LOG_MOVE_COMMAND, "Move", "None", "MotionMove.txt", "#Time X Y Theta#"},
      {KR::Tracker::LOG_INPUT_DATA, "Head", "None", "Smoother_input.txt",
       "WorldToObjectX WorldToObjectY WorldToObjectZ WorldToObjectWx WorldToObjectWy "
       "WorldToObjectWz Distance HeadThreshold SourceId TrackEffector Timestamp isValid "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    TearDown();
    build();  // the tracker's initialisation resets the table: switch on afterwards
    fs::create_directories(directory);
    KR::Tracker::setLogDirectory(directory.string() + "/");
    KR::Tracker::setConfigValue(c.key, KRValue(true));
    addTarget("ball", Target::TargetRedBall, {1.6f, 0.4f, 0.6f});
    sim->callTracker("setMode", c.mode);
    sim->callTracker("setEffector", c.effector);
    sim->callTracker("setRelativePosition", kRelative);
    track(Target::TargetRedBall);
    sim->runFor(1.0);
    std::istringstream written(krtest::readFile((directory / c.file).string()));
    std::string header;
    std::getline(written, header);
    EXPECT_EQ(header, c.header);
    std::string line;
    EXPECT_TRUE(std::getline(written, line)) << "no line after the header";
    for (const auto& other : files) {
      if (other != c.file) {
        EXPECT_FALSE(fs::exists(directory / other)) << other;
      }
    }
  }
}

TEST_F(ConfigurationTest, TheLookersGetTheHeadThresholdOfTheTargetsKindUnlessTheEventHasOne) {
  addTarget("ann", Target::TargetFace, {1.2f, 0.0f, 0.6f});
  addPath("ball", Target::TargetRedBall, Path::fixed({1.0f, 0.2f, 0.5f}), 0.2f);
  KR::Tracker::setConfigValue(KR::Tracker::FACE_HEAD_THRESHOLD, KRValue(0.07f));
  auto lookerThreshold = [&]() {
    return KR::Tracker::types::TrackInfos(sim->memory().getData(Namer::getNameLooker()))
        .getHeadThreshold();
  };
  track(Target::TargetFace);
  sim->runFor(0.3);
  EXPECT_FLOAT_EQ(lookerThreshold(), 0.07f);
  track(Target::TargetRedBall);
  sim->runFor(0.3);
  EXPECT_FLOAT_EQ(lookerThreshold(), 0.2f);
}

}  // namespace
