#pragma once
// Simulated time points as seconds: the sub-modules' step lengths and the time column of their
// diagnostic logs.

#include <chrono>

#include <krsim/robot/clock.h>

namespace KR {
namespace Sim {

/// Seconds between two time points.
inline double secondsBetween(KRTimePoint from, KRTimePoint to) {
  return std::chrono::duration<double>(to - from).count();
}

/// Seconds since the clock's epoch, the time column of the diagnostic angle logs.
inline float logTime(KRTimePoint t) {
  return static_cast<float>(std::chrono::duration<double>(t.time_since_epoch()).count());
}

}  // namespace Sim
}  // namespace KR
