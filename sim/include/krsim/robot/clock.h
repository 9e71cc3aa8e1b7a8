#pragma once
// The simulated clock: one deterministic time base shared by every simulated service, the
// world and the sub-modules. It only moves when the simulation advances it.

#include <atomic>
#include <chrono>
#include <cstdint>

#include <kr/value/conversions.h>

namespace KR {
namespace Sim {

class SimClock {
 public:
  /// Simulated boot time: time points are never zero, so a zero timestamp still means "never".
  static constexpr std::chrono::seconds kDefaultStart{100};

  explicit SimClock(KRTimePoint start = KRTimePoint(kDefaultStart)) : fStart(start) {}

  KRTimePoint now() const {
    return fStart + std::chrono::nanoseconds(fElapsed.load(std::memory_order_acquire));
  }
  KRTimePoint start() const { return fStart; }
  /// Time since the start of the simulation.
  std::chrono::nanoseconds elapsed() const {
    return std::chrono::nanoseconds(fElapsed.load(std::memory_order_acquire));
  }
  /// elapsed() in seconds.
  double seconds() const { return static_cast<double>(elapsed().count()) * 1e-9; }

  void advance(std::chrono::nanoseconds dt) {
    fElapsed.fetch_add(dt.count(), std::memory_order_acq_rel);
  }

  /// Whole seconds and remaining microseconds of a time point, as tracker events carry them.
  static void split(KRTimePoint t, int& seconds, int& microseconds) {
    const std::int64_t us =
        std::chrono::duration_cast<std::chrono::microseconds>(t.time_since_epoch()).count();
    seconds = static_cast<int>(us / 1000000);
    microseconds = static_cast<int>(us % 1000000);
  }

 private:
  const KRTimePoint fStart;
  std::atomic<std::int64_t> fElapsed{0};  // [ns]
};

}  // namespace Sim
}  // namespace KR
