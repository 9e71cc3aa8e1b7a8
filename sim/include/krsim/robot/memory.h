#pragma once
// SimMemory: the platform memory service "KRMemory" of the simulated robot. It stores data by
// key, raises events (an event also stores its value under its name) and calls the C++
// subscribers of an event synchronously, on the raiser's thread, in subscription order. Every
// raised event is recorded with the simulated time for tests and the run summary.
//
// Remote methods: "raiseEvent"(string, KRValue), "insertData"(string, KRValue),
// "getData"(string) -> KRValue (KRError when the key is absent), "getEventHistory"() or
// "getEventHistory"(name) -> [[seconds since start (float), name], ...].
//
// Thread-safe: one mutex guards data, subscribers and history; callbacks never run under it,
// so a callback may raise further events or subscribe.

#include <cstddef>
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

  std::vector<EventRecord> eventHistory() const;
  std::vector<EventRecord> eventHistory(const std::string& eventName) const;
  /// The records from position `first` of the history on (for readers that follow it).
  std::vector<EventRecord> eventHistorySince(std::size_t first) const;
  std::size_t eventCount(const std::string& eventName) const;
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
  std::vector<EventRecord> fHistory;
  std::set<std::string> fDropValues;
};

}  // namespace Sim
}  // namespace KR
