#include "app/remote_commands.h"

#include <kr/error.h>

#include <krsim/remote/two_process.h>
#include <krsim/run/run_setup.h>

#include "app/option_values.h"

namespace KR {
namespace Sim {

void RemoteTrackerCommand::addOptions(CLI::App& command) {
  command.footer("");
}

int RemoteTrackerCommand::run(std::ostream& out, std::ostream& err) const {
  return runRemoteTrackingService(out, err);
}

void RemoteRobotCommand::addOptions(CLI::App& command) {
  command.footer("");
  command.add_option("scenario", config.scenario, "built-in scenario (default: ball)");
  command.add_option("--physics", config.physics,
                     "physics backend: mujoco or kinematic (default: mujoco)");
}

int RemoteRobotCommand::run(std::ostream& out, std::ostream& err) {
  config.transport = "dds";
  Scenario scenario;
  try {
    config.validate();
    scenario = prepareScenario(config);
  } catch (const KRError& e) {
    throw UsageError(e.message());
  } catch (const InputError& e) {
    throw UsageError(e.what());
  }
  return runRemoteRobot(config, std::move(scenario), out, err);
}

}  // namespace Sim
}  // namespace KR
