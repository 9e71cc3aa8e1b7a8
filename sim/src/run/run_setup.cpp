#include <krsim/run/run_setup.h>

#include <kr/error.h>

#include <krsim/robot/physics/factory.h>
#include <krsim/run/simulation.h>

namespace KR {
namespace Sim {

namespace {

/// A mode the robot lacks is refused before anything runs, not replaced by another.
void checkModes(const RunConfig& config, const Scenario& scenario) {
  const std::string modes = config.mode.empty() ? scenario.modeText : config.mode;
  const Model::Robot& robot = *scenario.robot->robot;
  if (modes.find("Navigate") != std::string::npos && robot.getRobotType() != 1) {
    throw KRError("krsim", "RunConfig",
                  "mode Navigate needs a robot of type 1; " + robot.getName() + " is of type " +
                      std::to_string(robot.getRobotType()));
  }
}

void checkPhysics(const RunConfig& config) {
  try {
    checkPhysicsBackendName(config.physics);
  } catch (const KRError& e) {
    throw KRError("krsim", "RunConfig", "--physics: " + e.message());
  }
}

/// A call to the tracker with one text argument, at time 0.
Action callAtStart(const std::string& method, const std::string& argument) {
  return {0.0, method + "(\"" + argument + "\")",
          [method, argument](Simulation& s) { s.callTracker(method, argument); }};
}

}  // namespace

Scenario prepareEmptyScenario(const RunConfig& config) {
  Scenario scenario;
  scenario.name = "empty";
  scenario.description = "an empty world: targets and calls come from the caller";
  scenario.robot = RobotDescription::load(config.robot.empty() ? "kibo" : config.robot);
  scenario.duration = config.duration.value_or(RunConfig::kMaxDurationS);
  scenario.openEnded = true;
  scenario.modeText = config.mode.empty() ? "Head" : config.mode;
  if (!config.mode.empty())
    scenario.actions.push_back(callAtStart("setMode", config.mode));
  if (!config.effector.empty())
    scenario.actions.push_back(callAtStart("setEffector", config.effector));
  checkModes(config, scenario);
  checkPhysics(config);
  return scenario;
}

Scenario prepareScenario(const RunConfig& config) {
  ScenarioOptions options;
  if (!config.robot.empty())
    options.robot = RobotDescription::load(config.robot);
  options.mode = config.mode;
  options.effector = config.effector;
  options.duration = config.duration.value_or(0.0);
  options.seed = config.seed;
  Scenario scenario = makeScenario(config.scenario, options);
  checkModes(config, scenario);
  checkPhysics(config);
  return scenario;
}

}  // namespace Sim
}  // namespace KR
