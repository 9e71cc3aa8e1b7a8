#pragma once
// The main command of krtracker-sim: runs a scenario (or many seeds of it) on the simulated
// robot and reports how well the camera followed the target.

#include <functional>
#include <iosfwd>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include <krsim/run/run_config.h>
#include <krsim/run/scenario.h>
#include <krsim/tracking/context.h>

#include "app/run_pictures.h"

namespace KR {
namespace Sim {

/// The options of a run, shared by the main command and remote-robot: scenario, robot, mode,
/// effector, seed, noise, duration, camera, compensation, physics, outputs and --quiet.
void addRunOptions(CLI::App& app, RunConfig& config);

/// What a single run may be given besides its settings.
struct SingleRunHooks {
  /// Called at each phase boundary instead of drawing the pictures of --snapshots.
  SnapshotHook snapshot;
  /// Checked after each step: a reason to stop the run early (then its status), empty to go on.
  std::function<std::string()> stop;
  /// Told how the run ended ("completed", "stopped by signal 2", or the reason `stop` gave)
  /// as soon as it has, before the outputs are written.
  std::function<void(const std::string& status)> ended;
  /// The exit code of a run that `stop` ended.
  int stoppedCode = 1;
};

/// One run of a scenario: built and its outputs decided (UsageError for a robot the physics
/// backend rejects or an output that cannot be written), then played by play(), which prints
/// the header, the progress and the summary, writes the outputs whole and returns the exit
/// code (0, 128 + a signal's number, or SingleRunHooks::stoppedCode). The caller installs
/// StopSignals.
class PreparedRun {
 public:
  /// `config`'s outputs are filled in (the defaults); the pictures it asks for are checked
  /// first (see checkPictures).
  PreparedRun(RunConfig& config, const Scenario& scenario, const SubModuleFactory& modules,
              bool snapshotHook = false);
  ~PreparedRun();
  PreparedRun(const PreparedRun&) = delete;
  PreparedRun& operator=(const PreparedRun&) = delete;

  int play(const RunConfig& config, const Scenario& scenario, const SingleRunHooks& hooks,
           std::ostream& out);

 private:
  struct Parts;
  std::unique_ptr<Parts> fParts;
};

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
