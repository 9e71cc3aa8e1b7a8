#pragma once
// Every setting of a run, with its default, in one place: what the simulated robot runs with
// (SimulationSettings), what is run (scenario, robot, mode, seeds) and where the outputs go.
// The command line, scenario files and the robot side of a two-process run fill a RunConfig;
// validate() refuses a value out of its range naming the option, the value and the range;
// the JSON summary is written from it.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <krsim/world/camera.h>

namespace KR {
namespace Sim {

/// What the simulated robot runs with.
struct SimulationSettings {
  std::uint32_t seed = 1;          // of the camera's noise and dropouts
  float noise = 0.0f;              // extra Gaussian noise on each map coordinate of a detection [m]
  CameraConfig camera;             // the head camera and its detector
  std::string physics = "mujoco";  // the physics backend, "mujoco" or "kinematic"
  bool compensation = true;        // sub-modules use capture-time poses and prediction
};

/// A range of seeds run one after the other, first and last included.
struct SeedRange {
  std::uint32_t first = 1;
  std::uint32_t last = 1;
};

struct RunConfig : SimulationSettings {
  /// Longest simulated time a run accepts: a week, far beyond any scenario's script [s].
  static constexpr double kMaxDurationS = 7.0 * 24.0 * 3600.0;
  static constexpr double kMaxCameraRateHz = 1000.0;
  static constexpr double kMaxLatencyS = 10.0;
  static constexpr std::uint32_t kMaxSeeds = 10000;

  std::string scenario = "ball";     // a built-in name or a YAML file
  std::string robot;                 // kibo, rover or a file; empty: the scenario's own
  std::string mode;                  // Head, WholeBody, Move, Navigate; empty: the scenario's own
  std::string effector;              // Arms, LArm, RArm, None; empty: the scenario's own
  std::optional<double> duration;    // simulated time [s]; none: the scenario's own
  std::optional<SeedRange> seeds;    // many runs, one per seed, instead of `seed`
  std::string compare;               // "compensation": run with it on and off
  bool realtime = false;             // paced to the wall clock
  std::string transport = "inproc";  // "inproc", or "dds" for a two-process run

  // Outputs; empty: not written (the command line picks out/<scenario>.* by default).
  std::string csv;
  std::string plot;
  std::string json;
  std::string snapshots;  // a folder
  std::string video;      // an MP4 file of the run, drawn at 30 frames per simulated second
  bool view = false;      // shown live in a window, paced to the wall clock
  bool quiet = false;     // no progress lines

  /// KRError("krsim", "RunConfig", "--option ...") for the first setting out of its range.
  void validate() const;
};

/// The accepted values of `mode`, `effector` and `compare`.
const std::vector<std::string>& runModes();
const std::vector<std::string>& runEffectors();
const std::vector<std::string>& runComparisons();

/// KRError("krsim", "RunConfig", "OPTION expects one of A, B, not 'VALUE'") unless `value` is
/// one of `accepted`.
void expectOneOf(const std::string& option, const std::string& value,
                 const std::vector<std::string>& accepted);

}  // namespace Sim
}  // namespace KR
