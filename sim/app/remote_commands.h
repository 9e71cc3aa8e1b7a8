#pragma once
// krtracker-sim remote-tracker and remote-robot: the two processes of a run over DDS.

#include <iosfwd>
#include <string>

#include <CLI/CLI.hpp>

#include <krsim/remote/session.h>
#include <krsim/run/run_config.h>

namespace KR {
namespace Sim {

/// The tracking service alone, serving the robot side.
struct RemoteTrackerCommand {
  std::string json;  // empty: out/remote-tracker.json
  SessionTimes times;

  void addOptions(CLI::App& command);
  int run(std::ostream& out, std::ostream& err);
};

/// The robot side: plays a scenario in real time, the tracking service in another process.
struct RemoteRobotCommand {
  RunConfig config;
  SessionTimes times;

  void addOptions(CLI::App& command);
  /// The scenario, the options and the outputs are checked before the robot side looks for
  /// the tracking service, so that a typo is reported at once rather than after a wait.
  int run(std::ostream& out, std::ostream& err);
};

}  // namespace Sim
}  // namespace KR
