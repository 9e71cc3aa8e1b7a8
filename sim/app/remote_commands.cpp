#include "app/remote_commands.h"

#include <sys/stat.h>

#include <ostream>

#include <kr/error.h>

#include <krsim/remote/robot_side.h>
#include <krsim/remote/tracker_side.h>
#include <krsim/report/output_files.h>
#include <krsim/run/run_loop.h>
#include <krsim/run/run_setup.h>

#include "app/option_values.h"
#include "app/run_command.h"

namespace KR {
namespace Sim {

namespace {

/// The longest wait for the other side a command accepts: a day [s].
constexpr double kMaxWaitS = 86400.0;

void addWait(CLI::App& command, SessionTimes& times) {
  command.add_option_function<std::string>(
      "--wait",
      [&times](const std::string& text) {
        const double s = parseNumber("--wait", text);
        if (!(s > 0.0 && s <= kMaxWaitS))
          throw UsageError("--wait expects a number of seconds above 0 and up to 86400");
        times.waitS = s;
      },
      "how long to wait for the other side before giving up [s] (default: 60)");
}

/// A side that ends before or instead of its run: one line, its exit code.
int ended(const SessionEnd& e, std::ostream& err) {
  err << "krtracker-sim: " << e.what() << "\n";
  return e.code;
}

}  // namespace

void RemoteTrackerCommand::addOptions(CLI::App& command) {
  command.footer("");
  command.add_option("--json", json,
                     "write the tracking service's JSON summary there (default: "
                     "out/remote-tracker.json)");
  addWait(command, times);
}

int RemoteTrackerCommand::run(std::ostream& out, std::ostream& err) {
  TrackerSideOptions options;
  options.times = times;
  if (json.empty())
    ::mkdir("out", 0755);  // the default output's folder, as a run's
  else
    options.json = json;
  try {
    checkOutputFile("--json", options.json);
  } catch (const KRError& e) {
    throw UsageError(e.message());
  }
  StopSignals stopSignals;
  try {
    return runRemoteTrackingService(options, out);
  } catch (const SessionEnd& e) {
    return ended(e, err);
  }
}

void RemoteRobotCommand::addOptions(CLI::App& command) {
  command.footer("");
  command.add_option("scenario", config.scenario,
                     "scenario to run: a name of --list or a YAML file (default: ball)");
  addRunOptions(command, config);
  addWait(command, times);
}

int RemoteRobotCommand::run(std::ostream& out, std::ostream& err) {
  config.transport = "dds";
  config.realtime = true;
  Scenario scenario;
  try {
    config.validate();
    scenario = prepareScenario(config);
  } catch (const KRError& e) {
    throw UsageError(e.message());
  } catch (const InputError& e) {
    throw UsageError(e.what());
  }
  StopSignals stopSignals;
  RobotSide side(config, scenario, times, out);
  side.adapt(scenario);
  try {
    PreparedRun run(config, scenario, side.modules());
    side.waitForTracker();
    SingleRunHooks hooks;
    hooks.stop = [&side] { return side.stopReason(); };
    hooks.ended = [&side](const std::string& status) { side.tellTracker(status); };
    hooks.stoppedCode = kExitPeerLost;
    const int code = run.play(config, scenario, hooks, out);
    side.close();
    return code;
  } catch (const SessionEnd& e) {
    return ended(e, err);
  } catch (const std::exception& e) {
    // The run failed on this side (the one line follows): the tracking service hears why.
    side.tellTracker(std::string("failed: ") + e.what());
    throw;
  }
}

}  // namespace Sim
}  // namespace KR
