#include <krsim/run/run_loop.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <thread>

namespace KR {
namespace Sim {

namespace {

// Written by the signal handler and by request(), read by every thread that plays a run (the
// seeds run two at a time): a lock-free atomic, which a signal handler may also use.
std::atomic<int> gStopSignal{0};
static_assert(std::atomic<int>::is_always_lock_free, "the signal handler needs a lock-free atomic");

extern "C" void onStopSignal(int signal) {
  gStopSignal = signal;
}

}  // namespace

StopSignals::StopSignals() {
  gStopSignal = 0;
  fInt = std::signal(SIGINT, onStopSignal);
  fTerm = std::signal(SIGTERM, onStopSignal);
}

StopSignals::~StopSignals() {
  std::signal(SIGINT, fInt);
  std::signal(SIGTERM, fTerm);
}

int StopSignals::received() {
  return gStopSignal;
}

void StopSignals::request(int signal) {
  gStopSignal = signal;
}

RunResult playRun(ScenarioRun& run, const AfterStep& afterStep, std::clock_t cpuStart,
                  const StopCheck& stop) {
  std::string stoppedBy;
  while (!gStopSignal && run.step()) {
    if (stop) {
      stoppedBy = stop();
      if (!stoppedBy.empty())
        break;
    }
    if (afterStep)
      afterStep();
  }
  RunResult result;
  result.interrupted = gStopSignal != 0 && stoppedBy.empty();
  result.stoppedBy = stoppedBy;
  result.summaries = run.summaries();
  result.simulatedS = run.simulatedSeconds();
  result.cpuS = static_cast<double>(std::clock() - cpuStart) / CLOCKS_PER_SEC;
  return result;
}

RunResult playRun(ScenarioRun& run, bool realtime, std::clock_t cpuStart, const StopCheck& stop) {
  return playRun(run, realtime ? realTimePacing(run) : AfterStep(), cpuStart, stop);
}

AfterStep realTimePacing(ScenarioRun& run) {
  using Clock = std::chrono::steady_clock;
  return [&run, wallStart = Clock::now()] {
    std::this_thread::sleep_until(wallStart +
                                  std::chrono::duration_cast<Clock::duration>(
                                      std::chrono::duration<double>(run.simulation().time())));
  };
}

std::vector<PhaseMeasures> measuresOf(const std::vector<PhaseSummary>& summaries) {
  std::vector<PhaseMeasures> m;
  for (const auto& s : summaries)
    m.push_back(s.measures);
  return m;
}

}  // namespace Sim
}  // namespace KR
