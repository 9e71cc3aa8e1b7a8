#pragma once
// Scenarios of the simulated robot, as data: the robot and where it starts, the targets and
// their paths, the scripted calls to the tracker with their times, and the phases over which
// the run is measured.

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <kr/math/types.h>

#include <krsim/robot/robot_description.h>
#include <krsim/world/world.h>

namespace KR {
namespace Sim {

class Simulation;

/// A scripted call at a time of the run.
struct Action {
  double time = 0.0;        // [s]
  std::string description;  // shown while running, e.g. setMode("WholeBody")
  std::function<void(Simulation&)> run;
};

/// A stretch of the run measured against one target of the world.
struct Phase {
  std::string name;
  double begin = 0.0;  // [s]
  double end = 0.0;    // [s]
  std::string target;  // name of a world target
  /// The camera counts as on target below this line-of-sight error [deg].
  double acquireDegrees = 3.0;
  /// Whether the head's line of sight is measured (not in phases where only arms point).
  bool lineOfSight = true;
  /// Arms the phase's effector commands, whose pointing error is measured ("LArm", "RArm").
  std::vector<std::string> arms;
  /// Relative position the robot is asked to keep from the target, as given to the tracker:
  /// [coordX, coordY, coordWz, thresholdX, thresholdY, thresholdWz].
  std::optional<std::array<float, 6>> relativePosition;
  /// Compare the tracker's landmark-based robot position with the true pose.
  bool measureLocalisation = false;
  /// Pointing errors are measured from begin + settleSeconds on (the arms rise from rest).
  double settleSeconds = 0.0;
  /// A one-shot command rather than tracking: the line of sight too is measured from
  /// begin + settleSeconds on, whether or not the camera is on target.
  bool oneShot = false;
  /// The target jumps at the phase start: overshoot and settling are measured.
  bool step = false;
};

struct Scenario {
  std::string name;
  std::string description;
  std::string file;      // the YAML file it was read from, empty for a built-in one
  std::string modeText;  // the mode(s) it runs in, for titles
  /// What was changed or skipped to run it on this robot, shown before the run.
  std::vector<std::string> notes;
  std::shared_ptr<const RobotDescription> robot;  // loaded once, read by the whole run
  Math::Pose2D startPose;                         // map frame
  float odometryDriftLinear = 0.0f;
  float odometryDriftAngular = 0.0f;
  double duration = 60.0;  // [s], the end of the script
  /// The script is built for any duration asked (otherwise a longer one is refused).
  bool openEnded = false;
  std::vector<TargetScript> targets;
  std::vector<Action> actions;  // in time order
  std::vector<Phase> phases;    // in time order
  /// Set for a family whose scene is drawn from the run's seed: the run replaces the scenario
  /// with the one drawn for its seed.
  std::function<Scenario(std::uint32_t seed)> drawForSeed;
};

/// What the command line may change in a scenario.
struct ScenarioOptions {
  std::shared_ptr<const RobotDescription> robot;  // null: the scenario's own robot
  std::string mode;                               // empty: the scenario's own mode(s)
  std::string effector;                           // empty: the scenario's own effector(s)
  double duration = 0.0;                          // 0: the scenario's own duration
  std::uint32_t seed = 1;                         // draws the scene of a scenario family
};

struct ScenarioInfo {
  std::string name;
  std::string description;
};

/// The built-in scenarios, the default ("ball") first.
std::vector<ScenarioInfo> listScenarios();
/// Builds a scenario from a name of listScenarios() or the path of a YAML file; KRError for an
/// unknown name, a bad file (naming file, line and field) or a duration past the end of a
/// script that has one.
Scenario makeScenario(const std::string& name, const ScenarioOptions& options);
/// Reads a scenario file (format in the README); KRError("krsim", "scenario", "FILE:LINE:
/// FIELD: what") when it is not right.
Scenario loadScenarioFile(const std::string& path, const ScenarioOptions& options);

}  // namespace Sim
}  // namespace KR
