// What the sub-modules take from the configuration table: the LOG_ switches that write their
// diagnostic files, and the head threshold of each kind of target.

#include <unistd.h>
#include <filesystem>
#include <fstream>

#include <kr/target/targets.h>
#include <krtracker/config/krgenerictrackerconfig.h>
#include <krtracker/tools/namer/namer.h>
#include <krtracker/types/types/trackinfos.h>

#include "sim/modules_fixture.h"

namespace {

using KR::KRValue;
using KR::Tracker::ConfigKey;
using KR::Tracker::Namer;
namespace Target = KR::Tracker::Target;
namespace fs = std::filesystem;

class ConfigurationTest : public krtest::ModulesTest {
 protected:
  void TearDown() override {
    ModulesTest::TearDown();
    KR::Tracker::resetConfig();
    fs::remove_all(directory);
  }
  /// Lines of a log file, none when it does not exist.
  std::vector<std::string> lines(const std::string& file) {
    std::vector<std::string> out;
    std::ifstream in(directory / file);
    for (std::string line; std::getline(in, line);) {
      out.push_back(line);
    }
    return out;
  }
  const fs::path directory =
      fs::temp_directory_path() / ("krsim-modules-logs-" + std::to_string(::getpid()));
};

TEST_F(ConfigurationTest, EachLogSwitchWritesTheCommandsOfItsModules) {
  const std::vector<std::string> files{"HeadLooker.txt", "WholeBodyLooker.txt", "ArmsLooker.txt",
                                       "MotionMove.txt", "Smoother_input.txt"};
  struct Case {
    ConfigKey key;
    std::string mode;
    std::string effector;
    std::string file;
    std::string header;
  };
  const std::vector<Case> cases{
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
    build();  // the tracker's initialisation resets the table: switch on afterwards
    fs::remove_all(directory);
    fs::create_directories(directory);
    KR::Tracker::setLogDirectory(directory.string() + "/");
    KR::Tracker::setConfigValue(c.key, KRValue(true));
    addTarget("ball", Target::TargetRedBall, {1.6f, 0.4f, 0.6f});
    sim->callTracker("setMode", c.mode);
    sim->callTracker("setEffector", c.effector);
    sim->callTracker("setRelativePosition", KRValue{0.8f, 0.0f, 0.0f, 0.05f, 0.05f, 0.1f});
    track(Target::TargetRedBall);
    sim->runFor(1.0);
    const auto written = lines(c.file);
    ASSERT_GE(written.size(), 2u);
    EXPECT_EQ(written[0], c.header);
    for (const auto& other : files) {
      if (other != c.file) {
        EXPECT_FALSE(fs::exists(directory / other)) << other;
      }
    }
    ModulesTest::TearDown();
    KR::Tracker::resetConfig();
  }
}

TEST_F(ConfigurationTest, TheLookersGetTheHeadThresholdOfTheTargetsKindUnlessTheEventHasOne) {
  build();
  addTarget("ann", Target::TargetFace, {1.2f, 0.0f, 0.6f});
  KR::Sim::TargetScript ball;
  ball.name = "ball";
  ball.kind = Target::TargetRedBall;
  ball.path = KR::Sim::Path::fixed({1.0f, 0.2f, 0.5f});
  ball.headThreshold = 0.2f;
  sim->world().addTarget(ball);
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
