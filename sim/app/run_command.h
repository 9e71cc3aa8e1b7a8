#pragma once
// The main command of krtracker-sim: runs a scenario (or many seeds of it) on the simulated
// robot and reports how well the camera followed the target.

#include <functional>
#include <iosfwd>
#include <string>

#include <CLI/CLI.hpp>

#include <krsim/run/run_config.h>
#include <krsim/tracking/context.h>

namespace KR {
namespace Sim {

class Simulation;

/// Called at each phase boundary of a single run with the simulation and the label.
using SnapshotHook = std::function<void(Simulation& sim, const std::string& label)>;

struct RunCommand {
  RunConfig config;
  bool list = false;

  /// The command's options, filling `config` as typed values.
  void addOptions(CLI::App& app);
  /// Exit codes as runCommandLine's.
  int run(std::ostream& out, const SubModuleFactory& modules, const SnapshotHook& snapshot);
};

}  // namespace Sim
}  // namespace KR
