#pragma once
// SimMemory: the platform memory service "KRMemory" of the simulated robot. It stores data by
// key, raises events (an event also stores its value under its name) and calls the C++
// subscribers of an event synchronously, on the raiser's thread, in subscription order. Raised
// events are recorded with the simulated time for tests and the run summary, in a bounded
// history: the latest kHistoryCapacity of them, so that a long or busy run does not grow
// (each event is still counted, forever, by eventCount).
//
// Remote methods: "raiseEvent"(string, KRValue), "insertData"(string, KRValue),
// "getData"(string) -> KRValue (KRError when the key is absent), "getEventHistory"() or
// "getEventHistory"(name) -> [[seconds since start (float), name], ...].
//
// Thread-safe: one mutex guards data, subscribers and history; callbacks never run under it,
// so a callback may raise further events or subscribe.

#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <kr/broker/broker.h>
#include <kr/value/krvalue.h>

#include <krsim/robot/clock.h>

namespace KR {
namespace Sim {

class SimMemory : public KR::KRModule {
 public:
  using Callback = std::function<void(const std::string& name, const KRValue& value)>;

  struct EventRecord {
    KRTimePoint time;
    std::string name;
    KRValue value;
  };

  /// Events the history keeps, the oldest dropped first: about 10 minutes of a run's events,
  /// a few MB.
  static constexpr std::size_t kHistoryCapacity = 65536;

  explicit SimMemory(std::shared_ptr<const SimClock> clock);

  void raiseEvent(const std::string& name, const KRValue& value);
  void insertData(const std::string& key, const KRValue& value);
  /// Throws KRError("KRMemory", "getData", ...) when the key is absent.
  KRValue getData(const std::string& key) const;
  bool hasData(const std::string& key) const;

  /// Calls `callback` for every later event of that name. Returns the subscription's id.
  int subscribe(const std::string& eventName, Callback callback);
  /// Ends a subscription; unknown ids are ignored. A callback already running finishes.
  void unsubscribe(int subscriptionId);
  std::size_t subscriberCount(const std::string& eventName) const;

  /// Events whose values are not worth keeping (high-rate observations) are still counted
  /// and timed in the history, but their value is dropped.
  void setKeepValues(const std::string& eventName, bool keep);

  /// The events the history holds, oldest first.
  std::vector<EventRecord> eventHistory() const;
  std::vector<EventRecord> eventHistory(const std::string& eventName) const;
  /// The records from position `first` on, positions counted from the first event ever
  /// raised (for readers that follow the history); those dropped already are left out.
  std::vector<EventRecord> eventHistorySince(std::size_t first) const;
  /// How many events of that name were raised, whether or not the history still holds them.
  std::size_t eventCount(const std::string& eventName) const;
  /// How many events were raised in all: the position of the next one.
  std::size_t eventTotal() const;
  void clearEventHistory();

 private:
  struct Subscription {
    int id;
    std::string eventName;
    std::shared_ptr<Callback> callback;
  };

  std::shared_ptr<const SimClock> fClock;
  mutable std::mutex fMutex;
  std::map<std::string, KRValue> fData;
  std::vector<Subscription> fSubscriptions;
  int fNextId = 1;
  std::deque<EventRecord> fHistory;
  std::size_t fDropped = 0;  // events raised before the oldest one of fHistory
  std::map<std::string, std::size_t> fCounts;
  std::set<std::string> fDropValues;
};

}  // namespace Sim
}  // namespace KR
