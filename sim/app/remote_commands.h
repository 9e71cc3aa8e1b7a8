#pragma once
// krtracker-sim remote-tracker and remote-robot: the two processes of a run over DDS.

#include <iosfwd>

#include <CLI/CLI.hpp>

#include <krsim/run/run_config.h>

namespace KR {
namespace Sim {

/// The tracking service alone, serving the robot side.
struct RemoteTrackerCommand {
  void addOptions(CLI::App& command);
  int run(std::ostream& out, std::ostream& err) const;
};

/// The robot side: plays a scenario in real time, the tracking service in another process.
struct RemoteRobotCommand {
  RunConfig config;

  void addOptions(CLI::App& command);
  /// The scenario and the backend are checked before the robot side waits for the tracking
  /// service, so that a typo is reported at once rather than after a two-minute wait.
  int run(std::ostream& out, std::ostream& err);
};

}  // namespace Sim
}  // namespace KR
