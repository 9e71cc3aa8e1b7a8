#pragma once
// The command line of krtracker-sim: runs a scenario of the simulated robot and reports on
// it, or ("angles") prints the joint angles that the library computes for a point without
// simulating anything. Kept in the library so that tests drive it like the program does.

#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

#include <krsim/tracking/context.h>

namespace KR {
namespace Sim {

class ScenarioRun;

/// What a test may plug in.
struct RunHooks {
  /// Called at each phase boundary of a single run (the phase's name, "end" at the end) when
  /// --snapshots is given, instead of drawing a picture of the scene into that folder.
  std::function<void(ScenarioRun& run, const std::string& folder, const std::string& label)>
      snapshot;
};

/// Exit codes: 0 success, 1 failure while running (plot not drawn, file not written),
/// 2 bad command line, robot description or scenario file (or, for remote-tracker and
/// remote-robot, a topic prefix in use), 3 the other side of a two-process run was lost or
/// left before the end, 4 no other side appeared within --wait, 128 + the signal's number when
/// SIGINT or SIGTERM stopped the run (what ran is measured and written). Errors are one line
/// on `err`.
int runCommandLine(const std::vector<std::string>& args, std::ostream& out, std::ostream& err,
                   const SubModuleFactory& modules, const RunHooks& hooks = {});

/// The usage text of --help (the main command, then angles).
std::string usage();

}  // namespace Sim
}  // namespace KR
