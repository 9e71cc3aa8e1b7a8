#pragma once
// The loop every run goes through, in one process or as the robot side of two: step the
// scenario to its end, paced to the wall clock when asked, stopping early at SIGINT or
// SIGTERM with what ran measured.

#include <ctime>
#include <functional>
#include <vector>

#include <krsim/run/scenario_run.h>

namespace KR {
namespace Sim {

/// Installs the SIGINT and SIGTERM handlers for its lifetime, then restores the previous ones.
/// A signal stops the run at the end of its step.
class StopSignals {
 public:
  StopSignals();
  ~StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

  /// The signal that stopped the run, 0 while none has.
  static int received();
  /// Stops the run at the end of its step as if `signal` had been received (e.g. when the
  /// window showing the run is closed).
  static void request(int signal);

 private:
  void (*fInt)(int);
  void (*fTerm)(int);
};

struct RunResult {
  std::vector<PhaseSummary> summaries;
  double simulatedS = 0.0;
  double cpuS = 0.0;  // from `cpuStart`
  bool interrupted = false;
};

/// Called after each step, e.g. to pace the run or show it; it may wait.
using AfterStep = std::function<void()>;

/// Steps `run` until its end or a stop signal, calling `afterStep` (if any) after each step.
RunResult playRun(ScenarioRun& run, const AfterStep& afterStep,
                  std::clock_t cpuStart = std::clock());
/// The same, sleeping so that simulated time keeps up with wall time when `realtime`.
RunResult playRun(ScenarioRun& run, bool realtime, std::clock_t cpuStart = std::clock());
/// Sleeps so that the run's simulated time keeps up with wall time from the first call on.
AfterStep realTimePacing(ScenarioRun& run);

/// The phases' measures alone, as the JSON summary and the seed aggregates take them.
std::vector<PhaseMeasures> measuresOf(const std::vector<PhaseSummary>& summaries);

}  // namespace Sim
}  // namespace KR
