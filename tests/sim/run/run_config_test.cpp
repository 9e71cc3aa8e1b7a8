// RunConfig: validate() naming the option, the value's fault and
// the accepted range; prepareScenario loads the robot once and hands it down to the run.

#include <kr/error.h>
#include <krsim/run/run_config.h>
#include <krsim/run/run_setup.h>
#include <krsim/run/scenario_run.h>

#include "sim/helpers.h"
#include "support/error_of.h"

namespace {

using KR::Sim::RunConfig;

TEST(RunConfigTest, ValidateRefusesEachSettingOutOfItsRange) {
  const struct {
    const char* name;
    std::function<void(RunConfig&)> set;
    std::string message;
  } cases[] = {
      {"noise", [](RunConfig& c) { c.noise = -0.1f; },
       "--noise expects a non-negative number of metres"},
      {"zero duration", [](RunConfig& c) { c.duration = 0.0; },
       "--duration expects a positive number of seconds"},
      {"long duration", [](RunConfig& c) { c.duration = 1e9; },
       "--duration 1e+09 is beyond the longest run, 604800 s"},
      {"mode", [](RunConfig& c) { c.mode = "Walk"; },
       "--mode expects one of Head, WholeBody, Move, Navigate, not 'Walk'"},
      {"effector", [](RunConfig& c) { c.effector = "Leg"; },
       "--effector expects one of Arms, LArm, RArm, None, not 'Leg'"},
      {"compare", [](RunConfig& c) { c.compare = "latency"; },
       "--compare expects one of compensation, not 'latency'"},
      {"camera rate", [](RunConfig& c) { c.camera.cameraRateHz = 0.0; },
       "--camera-rate expects a frame rate above 0 and up to 1000 Hz"},
      {"fast camera", [](RunConfig& c) { c.camera.cameraRateHz = 1001.0; },
       "--camera-rate expects a frame rate above 0 and up to 1000 Hz"},
      {"latency", [](RunConfig& c) { c.camera.latencyS = 10.5; },
       "--latency expects from 0 to 10 seconds"},
      {"NaN latency", [](RunConfig& c) { c.camera.latencyS = std::nan(""); },
       "--latency expects from 0 to 10 seconds"},
      {"dropout", [](RunConfig& c) { c.camera.dropout = 1.5; },
       "--dropout expects a probability from 0 to 1"},
      {"seeds",
       [](RunConfig& c) {
         c.seeds = KR::Sim::SeedRange{5, 2};
       },
       "--seeds expects a range A-B of integers with A <= B and at most 10000 seeds, not '5-2'"},
  };
  EXPECT_NO_THROW(RunConfig().validate());
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    RunConfig config;
    c.set(config);
    EXPECT_EQ(krtest::krErrorOf([&] { config.validate(); }).message(), c.message);
  }
}

// The robot asked for is read once: the scenario, the robot-model service and the motion
// service all hold that one parsed robot, and the service serves the file's bytes.
TEST(RunConfigTest, TheRobotIsLoadedOnceAndHandedDown) {
  RunConfig config;
  config.robot = "rover";
  config.physics = "kinematic";
  const KR::Sim::Scenario scenario = KR::Sim::prepareScenario(config);
  ASSERT_TRUE(scenario.robot);
  EXPECT_EQ(scenario.robot->robot->getName(), "Rover");
  EXPECT_EQ(scenario.robot->text, krtest::readRobotFile("rover.xml"));

  KR::Sim::SimulationConfig sim;
  static_cast<KR::Sim::SimulationSettings&>(sim) = config;
  KR::Sim::ScenarioRun run(scenario, sim);
  EXPECT_EQ(&run.simulation().robot(), scenario.robot->robot.get());
  const auto model = run.simulation().broker().getProxy("KRRobotModel", 0);
  EXPECT_EQ(model->call<std::string>("getConfig"), scenario.robot->text);
}

TEST(RunConfigTest, PrepareRefusesAModeTheRobotLacksAndAnUnknownBackend) {
  RunConfig navigate;
  navigate.mode = "Navigate";
  navigate.robot = "kibo";
  EXPECT_EQ(krtest::krErrorOf([&] { KR::Sim::prepareScenario(navigate); }).message(),
            "mode Navigate needs a robot of type 1; Kibo is of type 0");
  RunConfig bullet;
  bullet.physics = "bullet";
  EXPECT_EQ(krtest::krErrorOf([&] { KR::Sim::prepareScenario(bullet); }).message(),
            "--physics: unknown physics backend \"bullet\" (accepted: kinematic, mujoco)");
}

}  // namespace
