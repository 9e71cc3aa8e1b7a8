// The search family: scenes drawn per seed within their bounds, the same for the same seed,
// and a run of any seed playing that seed's scene.

#include <algorithm>
#include <cmath>
#include <set>

#include <gtest/gtest.h>

#include <kr/math/math.h>
#include <krsim/run/scenario_run.h>
#include <krsim/run/search_scenario.h>

namespace {

using namespace KR::Sim;

TEST(SearchScenarioTest, ScenesAreDrawnWithinTheirBoundsAndRepeatForASeed) {
  std::set<int> sectors;  // start bearings by 45-degree sector: anywhere around the robot
  for (std::uint32_t seed = 1; seed <= 64; ++seed) {
    const SearchScene s = drawSearchScene(seed);
    for (float d : {s.startDistance, s.midDistance, s.hideDistance, s.reappearDistance}) {
      EXPECT_GE(d, kSearchMinDistance) << seed;
      EXPECT_LE(d, kSearchMaxDistance) << seed;
    }
    // It reappears where it could have gone while hidden: at most 0.9 rad/s round the robot.
    const double hidden = s.hideEnd - s.hideBegin;
    EXPECT_LE(std::fabs(KR::Math::modulo2PI(s.reappearBearing - s.hideBearing)),
              std::min(M_PI, 0.9 * hidden) + 1e-4)
        << seed;
    EXPECT_GE(s.hideEnd - s.hideBegin, kSearchMinHide) << seed;
    EXPECT_LE(s.hideEnd - s.hideBegin, kSearchMaxHide) << seed;
    EXPECT_GT(s.hideBegin, s.moveStart) << seed;  // followed before it hides
    EXPECT_GT(s.duration, s.hideEnd) << seed;
    sectors.insert(static_cast<int>(std::floor((s.startBearing + M_PI) / (M_PI / 4.0))));
    const SearchScene again = drawSearchScene(seed);
    EXPECT_EQ(again.startBearing, s.startBearing) << seed;
    EXPECT_EQ(again.hideEnd, s.hideEnd) << seed;
  }
  EXPECT_EQ(sectors.size(), 8u);
}

// The scenario built for seed 1 and run with seed 5 plays seed 5's scene: the ball hides when
// seed 5's scene says, and the phases end there.
TEST(SearchScenarioTest, ARunPlaysTheSceneOfItsOwnSeed) {
  ScenarioOptions options;
  const Scenario first = makeScenario("search", options);
  ASSERT_TRUE(first.drawForSeed);
  SimulationConfig config;
  config.physics = "kinematic";
  config.seed = 5;
  config.modules = &createTrackerModules;
  ScenarioRun run(first, config);
  const SearchScene five = drawSearchScene(5);
  ASSERT_EQ(run.scenario().phases.size(), 2u);
  EXPECT_DOUBLE_EQ(run.scenario().phases[0].end, five.hideBegin);
  EXPECT_DOUBLE_EQ(run.scenario().duration, five.duration);
  ASSERT_EQ(run.scenario().targets.size(), 1u);
  const auto& hidden = run.scenario().targets[0].hidden;
  ASSERT_EQ(hidden.size(), 1u);
  EXPECT_DOUBLE_EQ(hidden[0].begin, five.hideBegin);
  const KR::Math::Position3D start = run.scenario().targets[0].path.at(0.0);
  EXPECT_NEAR(std::atan2(start.y, start.x), five.startBearing, 1e-4);
}

}  // namespace
