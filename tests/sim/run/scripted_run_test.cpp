// A run of the empty world scripted by its caller, as a script drives it: a target added and
// tracked by hand, the samples outside every phase measuring the followed target, and the line
// of sight asked at any time.


#include <gtest/gtest.h>

#include <kr/error.h>
#include <krsim/run/run_setup.h>
#include <krsim/run/scenario_run.h>

#include "sim/helpers.h"

namespace {

using namespace krtest;

TEST(ScriptedRunTest, SamplesMeasureTheFollowedTargetAndTheTrackerClosesTheGap) {
  KR::Sim::RunConfig config;
  config.physics = "kinematic";
  KR::Sim::SimulationConfig sim;
  static_cast<KR::Sim::SimulationSettings&>(sim) = config;
  sim.modules = &KR::Sim::createTrackerModules;
  ScenarioRun run(KR::Sim::prepareEmptyScenario(config), sim);

  run.step();
  EXPECT_FALSE(run.lastSample().hasTarget);  // nothing followed yet
  EXPECT_THROW(run.lineOfSightDeg("ball"), KR::KRError);

  TargetScript ball;
  ball.name = "ball";
  ball.kind = "RedBall";
  ball.path = Path::fixed({1.5f, 0.45f, 0.5f});  // ahead and to the left, in view
  run.simulation().world().addTarget(ball);
  run.followTarget("ball");
  run.simulation().callTracker("registerTarget", std::string("RedBall"), KRValue(0.06f));
  run.simulation().callTracker("track", std::string("RedBall"));
  run.step();
  const Sample first = run.lastSample();
  ASSERT_TRUE(first.hasTarget);
  EXPECT_EQ(first.phase, -1);
  EXPECT_TRUE(first.perceived);
  EXPECT_NEAR(first.lineOfSightDeg, run.lineOfSightDeg("ball"), 1e-4);
  EXPECT_GT(first.lineOfSightDeg, 10.0f);

  while (run.simulatedSeconds() < 3.0)
    run.step();
  EXPECT_TRUE(run.lastSample().tracked);
  EXPECT_LT(run.lastSample().lineOfSightDeg, 2.0f);
  EXPECT_TRUE(run.summaries().empty());  // no phases, nothing summed up
}

}  // namespace
