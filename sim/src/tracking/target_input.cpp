#include <krsim/tracking/target_input.h>

#include <exception>

namespace KR {
namespace Sim {

using Tracker::types::TrackInfos;

TargetInput::TargetInput(std::shared_ptr<SimMemory> memory, std::shared_ptr<const SimClock> clock,
                         const std::string& eventName)
    : fMemory(std::move(memory)), fClock(std::move(clock)) {
  fSubscription = fMemory->subscribe(eventName, [this](const std::string&, const KRValue& value) {
    // A payload that does not parse is dropped: the smoother is the only publisher.
    try {
      Sample sample{TrackInfos(value), fClock->now()};
      std::lock_guard<std::mutex> lock(fMutex);
      fLatest = sample;
    } catch (const std::exception&) {
    }
  });
}

TargetInput::~TargetInput() {
  fMemory->unsubscribe(fSubscription);
}

std::optional<TargetInput::Sample> TargetInput::fresh(KRTimePoint now,
                                                      std::chrono::nanoseconds maxAge) const {
  std::lock_guard<std::mutex> lock(fMutex);
  if (!fLatest || now - fLatest->received > maxAge || !fLatest->info.isValid()) {
    return std::nullopt;
  }
  return fLatest;
}

void TargetInput::clear() {
  std::lock_guard<std::mutex> lock(fMutex);
  fLatest.reset();
}

}  // namespace Sim
}  // namespace KR
