#include "app/cli.h"

#include <algorithm>
#include <ostream>
#include <sstream>

#include <CLI/CLI.hpp>

#include "app/angles_command.h"
#include "app/option_values.h"
#include "app/remote_commands.h"
#include "app/run_command.h"

namespace KR {
namespace Sim {

namespace {

constexpr const char* kProgram = "krtracker-sim";

const char* const kMeasuresHelp =
    "Measures, per phase (README, \"Measures\"):\n"
    "  on target after  time from the phase start, and from each loss (target no longer\n"
    "                   perceived, or reported lost by the tracker), to the camera on target,\n"
    "                   search included; the longest such wait, '-' if one never ended\n"
    "  LoS              line-of-sight error (camera axis to target) over every sample with\n"
    "                   the target visible (in the camera's field of view, not occluded),\n"
    "                   acquisition included: RMS, 95th percentile, max, mean (bias) and\n"
    "                   standard deviation (jitter)\n"
    "  on target [%]    share of the phase with the target visible and the error under the\n"
    "                   phase's threshold (3 degrees unless the scenario says otherwise)\n"
    "  overshoot        step phases: how far the camera swings past the target [deg]\n"
    "  settling         step phases: time until the error stays within 1 degree, '-' if\n"
    "                   it has not stayed there for 0.5 s by the phase end\n"
    "  arms RMS         pointing error of the arms the effector commands\n"
    "  events           the tracker's events per phase, listed below the table\n"
    "Finding, per phase (the table below the summary):\n"
    "  found after      phase start to the first detection of the visible target, and\n"
    "                   the same from the tracker's first TargetLost (0: found before it)\n"
    "  acquisition      target visible to its first detection reaching the tracker\n"
    "  search           time the searcher searched\n"
    "  LoS RMS tracking line-of-sight RMS from the first detection after each appearance\n";

/// The command line and its subcommands, each filling its own typed options.
struct Parser {
  CLI::App app{
      "Runs the tracker on a simulated robot and reports how well it followed its "
      "target.",
      kProgram};
  CLI::App* angles = nullptr;
  CLI::App* remoteTracker = nullptr;
  CLI::App* remoteRobot = nullptr;
  RunCommand run;
  AnglesCommand ang;
  RemoteTrackerCommand tracker;
  RemoteRobotCommand robot;

  Parser() {
    app.footer(std::string("Without --csv and --plot, the CSV, the plot and the JSON summary go "
                           "to out/<scenario>.{csv,png,json}.\n\n") +
               kMeasuresHelp);
    run.addOptions(app);
    angles = app.add_subcommand(
        "angles", "print the joint angles that the library computes for a point, one per line");
    ang.addOptions(*angles);
    // A run over DDS on loopback in two processes (make demo-remote starts both).
    remoteTracker = app.add_subcommand(
        "remote-tracker", "the tracking service alone, serving the robot side of remote-robot");
    remoteRobot = app.add_subcommand(
        "remote-robot",
        "the robot side: plays a scenario in real time, the tracking service in another "
        "process (remote-tracker)");
    tracker.addOptions(*remoteTracker);
    robot.addOptions(*remoteRobot);
  }
};

/// CLI11's message, on one line and in the words of the other errors.
std::string parseErrorText(const CLI::ParseError& e) {
  std::string text = e.what();
  std::replace(text.begin(), text.end(), '\n', ' ');
  const std::string name = e.get_name();
  const auto colon = text.find(": ");
  if (name == "ArgumentMismatch" && colon != std::string::npos) {
    const std::string option = text.substr(0, colon);
    const auto least = text.find("At least ");
    if (least != std::string::npos) {
      const std::string count = text.substr(least + 9, text.find(' ', least + 9) - least - 9);
      return "option " + option + " needs " + count + " values";
    }
    return "option " + option + " needs a value";
  }
  if (text.find("not expected:") != std::string::npos) {
    std::istringstream words(text.substr(text.find(':') + 1));
    std::string word;
    std::string first;
    while (words >> word) {
      if (word.rfind("-", 0) == 0)
        return "unknown option '" + word + "' (see --help)";
      if (first.empty())
        first = word;
    }
    return "unexpected argument '" + first + "' (see --help)";
  }
  return text;
}

/// --help: the subcommand's own help when one was named.
int printHelp(const Parser& p, std::ostream& out) {
  for (const CLI::App* sub : {p.angles, p.remoteTracker, p.remoteRobot}) {
    if (sub->parsed()) {
      out << sub->help();
      return 0;
    }
  }
  out << usage();
  return 0;
}

int dispatch(Parser& p, std::ostream& out, std::ostream& err, const SubModuleFactory& modules,
             const RunHooks& hooks) {
  if (p.angles->parsed())
    return p.ang.run(out);
  if (p.remoteTracker->parsed())
    return p.tracker.run(out, err);
  if (p.remoteRobot->parsed())
    return p.robot.run(out, err);
  SnapshotHook hook;
  if (hooks.snapshot && !p.run.config.snapshots.empty()) {
    hook = [snapshot = hooks.snapshot, folder = p.run.config.snapshots](
               ScenarioRun& run, const std::string& label) { snapshot(run, folder, label); };
  }
  return p.run.run(out, modules, hook);
}

}  // namespace

std::string usage() {
  Parser p;
  return p.app.help() + "\n" + p.angles->help();
}

int runCommandLine(const std::vector<std::string>& args, std::ostream& out, std::ostream& err,
                   const SubModuleFactory& modules, const RunHooks& hooks) {
  Parser p;
  try {
    std::vector<std::string> reversed(args.rbegin(), args.rend());
    try {
      p.app.parse(reversed);
    } catch (const CLI::CallForHelp&) {
      return printHelp(p, out);
    } catch (const CLI::ParseError& e) {
      throw UsageError(parseErrorText(e));
    }
    return dispatch(p, out, err, modules, hooks);
  } catch (const UsageError& e) {
    err << kProgram << ": " << e.what() << "\n";
    return 2;
  } catch (const std::exception& e) {
    err << kProgram << ": " << e.what() << "\n";
    return 1;
  }
}

}  // namespace Sim
}  // namespace KR
