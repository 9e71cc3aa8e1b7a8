#pragma once
// The loop every run goes through, in one process or as the robot side of two: step the
// scenario to its end, paced to the wall clock when asked, stopping early at SIGINT or
// SIGTERM with what ran measured.

#include <ctime>
#include <functional>
#include <string>
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
  double cpuS = 0.0;         // from `cpuStart`
  bool interrupted = false;  // by a stop signal
  std::string stoppedBy;     // what else stopped the run early (StopCheck), empty if nothing
};

/// Called after each step, e.g. to pace the run or show it; it may wait.
using AfterStep = std::function<void()>;
/// Asked after each step: why the run must stop now (e.g. the other process of a two-process
/// run is gone), empty to go on.
using StopCheck = std::function<std::string()>;

/// Steps `run` until its end, a stop signal or a reason from `stop` (if any), calling
/// `afterStep` (if any) after each step that goes on.
RunResult playRun(ScenarioRun& run, const AfterStep& afterStep,
                  std::clock_t cpuStart = std::clock(), const StopCheck& stop = {});
/// The same, sleeping so that simulated time keeps up with wall time when `realtime`.
RunResult playRun(ScenarioRun& run, bool realtime, std::clock_t cpuStart = std::clock(),
                  const StopCheck& stop = {});
/// Sleeps so that the run's simulated time keeps up with wall time from the first call on.
AfterStep realTimePacing(ScenarioRun& run);

/// The phases' measures alone, as the JSON summary and the seed aggregates take them.
std::vector<PhaseMeasures> measuresOf(const std::vector<PhaseSummary>& summaries);

}  // namespace Sim
}  // namespace KR
