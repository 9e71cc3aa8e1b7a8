#pragma once
// TargetInput: the latest target sample of one KRMemory event, as the lookers read the
// smoother's publication (Namer::getNameLooker(), a TrackInfos in KRValue form: see
// smoother.h).

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <krtracker/types/types/trackinfos.h>

#include <krsim/robot/clock.h>
#include <krsim/robot/memory.h>

namespace KR {
namespace Sim {

/// Subscribes to one event of KRMemory and keeps its latest TrackInfos payload with the time
/// it arrived. Thread-safe; unsubscribes when destroyed.
class TargetInput {
 public:
  struct Sample {
    Tracker::types::TrackInfos info;
    KRTimePoint received;
  };

  TargetInput(std::shared_ptr<SimMemory> memory, std::shared_ptr<const SimClock> clock,
              const std::string& eventName);
  ~TargetInput();
  TargetInput(const TargetInput&) = delete;
  TargetInput& operator=(const TargetInput&) = delete;

  /// The latest sample if it arrived at most `maxAge` before `now`.
  std::optional<Sample> fresh(KRTimePoint now, std::chrono::nanoseconds maxAge) const;
  void clear();

 private:
  std::shared_ptr<SimMemory> fMemory;
  std::shared_ptr<const SimClock> fClock;
  int fSubscription = 0;
  mutable std::mutex fMutex;
  std::optional<Sample> fLatest;
};

}  // namespace Sim
}  // namespace KR
