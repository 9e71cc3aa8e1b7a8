#include <krsim/run/search_scenario.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <sstream>

#include <kr/math/math.h>
#include <kr/target/targets.h>
#include <krsim/run/simulation.h>

namespace KR {
namespace Sim {

namespace {

constexpr float kPi = Math::kPi;
/// The ball's speed about the robot while it is followed [rad/s]: under half the tracker's
/// default head velocity limit (1 rad/s).
constexpr float kFollowSpeed = 0.4f;
/// The fastest the ball goes round the robot while hidden [rad/s] (2 m/s at 2.2 m).
constexpr float kHiddenSpeed = 0.9f;
/// Time left after the reappearance for the search to end [s].
constexpr double kAfterReappearing = 14.0;

Math::Position3D polarPoint(float bearing, float distance, float z) {
  return {distance * std::cos(bearing), distance * std::sin(bearing), z};
}

}  // namespace

SearchScene drawSearchScene(std::uint32_t seed) {
  // The scene has its own generator: the camera's noise, drawn from the same seed, does not
  // shift when the scene changes, nor the scene when the camera draws more.
  std::mt19937 rng(seed ^ 0x5ea2c4u);
  const auto uniform = [&rng](double a, double b) {
    return static_cast<float>(std::uniform_real_distribution<double>(a, b)(rng));
  };
  const auto distance = [&] { return uniform(kSearchMinDistance, kSearchMaxDistance); };
  SearchScene s;
  s.startBearing = uniform(-kPi, kPi);
  s.startDistance = distance();
  s.height = uniform(0.1, 0.5);
  // Two legs, each 15 to 45 degrees round the robot, the second either way.
  const float first = uniform(0.26, 0.79) * (uniform(0.0, 1.0) < 0.5f ? -1.0f : 1.0f);
  const float second = uniform(-0.79, 0.79);
  s.midBearing = s.startBearing + first;
  s.midDistance = distance();
  s.hideBearing = s.midBearing + second;
  s.hideDistance = distance();
  const double firstLeg = std::max(1.0, static_cast<double>(std::fabs(first) / kFollowSpeed));
  const double secondLeg = std::max(1.0, static_cast<double>(std::fabs(second) / kFollowSpeed));
  // Followed for at least 4 s, so that the first find is over before the ball hides.
  s.hideBegin = std::max(s.moveStart + firstLeg + secondLeg, 6.0);
  const double hidden = uniform(kSearchMinHide, kSearchMaxHide);
  s.hideEnd = s.hideBegin + hidden;
  // While hidden it goes either way round the robot, as far as it can at kHiddenSpeed: half a
  // turn at most, anywhere within reach of where it hid.
  const float reach = std::min(kPi, kHiddenSpeed * static_cast<float>(hidden));
  s.reappearBearing = Math::modulo2PI(s.hideBearing + uniform(-reach, reach));
  s.reappearDistance = distance();
  s.duration = s.hideEnd + kAfterReappearing;
  return s;
}

Scenario searchScenario(const ScenarioOptions& o) {
  const SearchScene scene = drawSearchScene(o.seed);
  Scenario s;
  s.name = "search";
  s.robot = o.robot ? o.robot : RobotDescription::load("kibo");
  s.duration = scene.duration;
  const float z = scene.height;
  Path path;
  path.add(0.0, polarPoint(scene.startBearing, scene.startDistance, z));
  path.add(scene.moveStart, polarPoint(scene.startBearing, scene.startDistance, z));
  // Legs in polar steps, so that the ball goes round the robot rather than across.
  const auto leg = [&](double t0, double t1, float b0, float d0, float b1, float d1) {
    const int n = std::max(2, static_cast<int>((t1 - t0) / 0.05));
    for (int k = 1; k <= n; ++k) {
      const float u = static_cast<float>(k) / static_cast<float>(n);
      path.add(t0 + (t1 - t0) * u, polarPoint(b0 + (b1 - b0) * u, d0 + (d1 - d0) * u, z));
    }
  };
  const double middle = scene.moveStart + (scene.hideBegin - scene.moveStart) *
                                              std::fabs(scene.midBearing - scene.startBearing) /
                                              (std::fabs(scene.midBearing - scene.startBearing) +
                                               std::fabs(scene.hideBearing - scene.midBearing));
  leg(scene.moveStart, middle, scene.startBearing, scene.startDistance, scene.midBearing,
      scene.midDistance);
  leg(middle, scene.hideBegin, scene.midBearing, scene.midDistance, scene.hideBearing,
      scene.hideDistance);
  // While hidden it goes the short way round to where it reappears, then rests.
  const float turn = Math::modulo2PI(scene.reappearBearing - scene.hideBearing);
  leg(scene.hideBegin, scene.hideEnd, scene.hideBearing, scene.hideDistance,
      scene.hideBearing + turn, scene.reappearDistance);
  path.add(scene.duration, polarPoint(scene.reappearBearing, scene.reappearDistance, z));

  TargetScript ball;
  ball.name = "ball";
  ball.kind = Tracker::Target::TargetRedBall;
  ball.path = std::move(path);
  ball.hidden = {{scene.hideBegin, scene.hideEnd}};
  s.targets = {ball};
  const std::string mode = o.mode.empty() ? "Head" : o.mode;
  const std::string effector = o.effector.empty() ? "None" : o.effector;
  s.modeText = mode;
  const auto call = [](const std::string& method, const std::string& argument) {
    return Action{0.0, method + "(\"" + argument + "\")",
                  [method, argument](Simulation& sim) { sim.callTracker(method, argument); }};
  };
  s.actions = {
      {0.0, "registerTarget(\"RedBall\", 0.06)",
       [](Simulation& sim) {
         sim.callTracker("registerTarget", Tracker::Target::TargetRedBall, KRValue(0.06f));
       }},
      call("setMode", mode),
      call("setEffector", effector),
      {0.0, "toggleSearch(true)", [](Simulation& sim) { sim.callTracker("toggleSearch", true); }},
      call("track", Tracker::Target::TargetRedBall)};
  std::ostringstream text;
  text << "red ball drawn per seed: starts anywhere around the robot at 0.8-2.5 m, is followed, "
          "hides 1-3 s while it moves elsewhere, reappears (seed "
       << o.seed << ": hidden " << std::fixed;
  text.precision(1);
  text << scene.hideBegin << "-" << scene.hideEnd << " s)";
  s.description = text.str();
  Phase find;
  find.name = "find";
  find.begin = 0.0;
  find.end = scene.hideBegin;
  find.target = "ball";
  Phase refind = find;
  refind.name = "re-find";
  refind.begin = scene.hideBegin;
  refind.end = scene.duration;
  s.phases = {find, refind};
  s.openEnded = false;
  s.drawForSeed = [o](std::uint32_t seed) {
    ScenarioOptions drawn = o;
    drawn.seed = seed;
    return makeScenario("search", drawn);
  };
  return s;
}

}  // namespace Sim
}  // namespace KR
