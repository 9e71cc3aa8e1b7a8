// The simulator's speed: one run of the default scenario ("ball", 60 s of simulated time with
// the tracking service's sub-modules) on each physics backend, construction included, in CPU
// time of the whole process (the broker's worker thread counts). The counter "sim_s" is the
// simulated time per second of that CPU time (times real time).

#include <benchmark/benchmark.h>

#include <krsim/run/scenario.h>
#include <krsim/run/scenario_run.h>
#include <krsim/tracking/context.h>

namespace {

void defaultScenario(benchmark::State& state, const char* physics) {
  const KR::Sim::Scenario scenario = KR::Sim::makeScenario("ball", {});
  KR::Sim::SimulationConfig config;
  config.physics = physics;
  config.modules = &KR::Sim::createTrackerModules;
  double simulated = 0.0;
  for (auto _ : state) {
    KR::Sim::ScenarioRun run(scenario, config);
    run.runToEnd();
    simulated += run.simulatedSeconds();
    benchmark::DoNotOptimize(run.lastSample());
  }
  state.counters["sim_s"] = benchmark::Counter(simulated, benchmark::Counter::kIsRate);
}

BENCHMARK_CAPTURE(defaultScenario, kinematic, "kinematic")
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime();
BENCHMARK_CAPTURE(defaultScenario, mujoco, "mujoco")
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime();

}  // namespace

BENCHMARK_MAIN();
