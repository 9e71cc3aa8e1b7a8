#pragma once
// The main command of krtracker-sim: runs a scenario (or many seeds of it) on the simulated
// robot and reports how well the camera followed the target.

#include <functional>
#include <iosfwd>
#include <string>

#include <CLI/CLI.hpp>

#include <krsim/run/run_config.h>
#include <krsim/tracking/context.h>

#include "app/run_pictures.h"

namespace KR {
namespace Sim {

struct RunCommand {
  RunConfig config;
  bool list = false;

  /// The command's options, filling `config` as typed values.
  void addOptions(CLI::App& app);
  /// Exit codes as runCommandLine's. `snapshot`, when set, is called at each phase boundary
  /// instead of drawing the pictures of --snapshots.
  int run(std::ostream& out, const SubModuleFactory& modules, const SnapshotHook& snapshot);
};

}  // namespace Sim
}  // namespace KR
