#pragma once
// The "search" family: a scene drawn per seed in which a red ball starts anywhere around the
// robot, is followed, hides for 1 to 3 s while it moves elsewhere (either way round the robot,
// up to 0.9 rad/s: half a turn at most), and reappears there. Its two
// phases, "find" and "re-find", give the time to the first detection and to the detection
// after the hiding (krsim/run/measures.h).

#include <cstdint>

#include <krsim/run/scenario.h>

namespace KR {
namespace Sim {

/// What one seed draws; bearings about the robot's start pose [rad], distances [m], times [s].
struct SearchScene {
  float startBearing = 0.0f;  // in [-pi, pi)
  float startDistance = 0.0f;
  float height = 0.0f;  // above the floor [m]
  /// The ball moves in two legs from its start to where it hides.
  float midBearing = 0.0f;
  float midDistance = 0.0f;
  float hideBearing = 0.0f;
  float hideDistance = 0.0f;
  float reappearBearing = 0.0f;
  float reappearDistance = 0.0f;
  double moveStart = 1.0;  // the ball rests until then
  double hideBegin = 0.0;
  double hideEnd = 0.0;
  double duration = 0.0;
};

/// Nearest and farthest distance of the ball from the robot [m].
constexpr float kSearchMinDistance = 0.8f;
constexpr float kSearchMaxDistance = 2.5f;
/// Shortest and longest hiding [s].
constexpr double kSearchMinHide = 1.0;
constexpr double kSearchMaxHide = 3.0;

/// The scene of one seed: the same seed always draws the same scene.
SearchScene drawSearchScene(std::uint32_t seed);

/// The scenario of `options.seed`'s scene on the small humanoid (head mode, search on).
Scenario searchScenario(const ScenarioOptions& options);

}  // namespace Sim
}  // namespace KR
