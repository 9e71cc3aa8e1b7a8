#include <krsim/robot/memory.h>

#include <algorithm>

#include <kr/error.h>

namespace KR {
namespace Sim {

SimMemory::SimMemory(std::shared_ptr<const SimClock> clock)
    : KRModule("KRMemory"), fClock(std::move(clock)) {
  bind("raiseEvent",
       [this](const std::string& name, const KRValue& value) { raiseEvent(name, value); });
  bind("insertData",
       [this](const std::string& key, const KRValue& value) { insertData(key, value); });
  bind("getData", [this](const std::string& key) { return getData(key); });
  bindRaw("getEventHistory", [this](const std::vector<KRValue>& args) {
    if (args.size() > 1 || (args.size() == 1 && !args[0].isString())) {
      throw KRError("KRMemory", "getEventHistory", "expects no argument or an event name");
    }
    const auto records = args.empty() ? eventHistory() : eventHistory(args[0].asString());
    KRValue::Array out;
    out.reserve(records.size());
    for (const auto& r : records) {
      const double t = std::chrono::duration<double>(r.time - fClock->start()).count();
      out.push_back(KRValue{KRValue(t), KRValue(r.name)});
    }
    return KRValue(std::move(out));
  });
}

void SimMemory::raiseEvent(const std::string& name, const KRValue& value) {
  std::vector<std::shared_ptr<Callback>> callbacks;
  {
    std::lock_guard<std::mutex> lock(fMutex);
    fData[name] = value;
    const bool keep = fDropValues.count(name) == 0;
    if (fHistory.size() == kHistoryCapacity) {
      fHistory.pop_front();
      ++fDropped;
    }
    fHistory.push_back({fClock->now(), name, keep ? value : KRValue()});
    ++fCounts[name];
    for (const auto& s : fSubscriptions) {
      if (s.eventName == name)
        callbacks.push_back(s.callback);
    }
  }
  for (const auto& cb : callbacks)
    (*cb)(name, value);
}

void SimMemory::insertData(const std::string& key, const KRValue& value) {
  std::lock_guard<std::mutex> lock(fMutex);
  fData[key] = value;
}

KRValue SimMemory::getData(const std::string& key) const {
  std::lock_guard<std::mutex> lock(fMutex);
  const auto it = fData.find(key);
  if (it == fData.end())
    throw KRError("KRMemory", "getData", "no data under the key " + key);
  return it->second;
}

bool SimMemory::hasData(const std::string& key) const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fData.count(key) != 0;
}

int SimMemory::subscribe(const std::string& eventName, Callback callback) {
  std::lock_guard<std::mutex> lock(fMutex);
  const int id = fNextId++;
  fSubscriptions.push_back({id, eventName, std::make_shared<Callback>(std::move(callback))});
  return id;
}

void SimMemory::unsubscribe(int subscriptionId) {
  std::lock_guard<std::mutex> lock(fMutex);
  fSubscriptions.erase(
      std::remove_if(fSubscriptions.begin(), fSubscriptions.end(),
                     [&](const Subscription& s) { return s.id == subscriptionId; }),
      fSubscriptions.end());
}

std::size_t SimMemory::subscriberCount(const std::string& eventName) const {
  std::lock_guard<std::mutex> lock(fMutex);
  return static_cast<std::size_t>(
      std::count_if(fSubscriptions.begin(), fSubscriptions.end(),
                    [&](const Subscription& s) { return s.eventName == eventName; }));
}

void SimMemory::setKeepValues(const std::string& eventName, bool keep) {
  std::lock_guard<std::mutex> lock(fMutex);
  if (keep) {
    fDropValues.erase(eventName);
  } else {
    fDropValues.insert(eventName);
  }
}

std::vector<SimMemory::EventRecord> SimMemory::eventHistory() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return std::vector<EventRecord>(fHistory.begin(), fHistory.end());
}

std::vector<SimMemory::EventRecord> SimMemory::eventHistory(const std::string& eventName) const {
  std::lock_guard<std::mutex> lock(fMutex);
  std::vector<EventRecord> out;
  for (const auto& r : fHistory) {
    if (r.name == eventName)
      out.push_back(r);
  }
  return out;
}

std::vector<SimMemory::EventRecord> SimMemory::eventHistorySince(std::size_t first) const {
  std::lock_guard<std::mutex> lock(fMutex);
  const std::size_t from = first > fDropped ? first - fDropped : 0;
  if (from >= fHistory.size())
    return {};
  return std::vector<EventRecord>(fHistory.begin() + static_cast<std::ptrdiff_t>(from),
                                  fHistory.end());
}

std::size_t SimMemory::eventCount(const std::string& eventName) const {
  std::lock_guard<std::mutex> lock(fMutex);
  const auto it = fCounts.find(eventName);
  return it == fCounts.end() ? 0 : it->second;
}

std::size_t SimMemory::eventTotal() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fDropped + fHistory.size();
}

void SimMemory::clearEventHistory() {
  std::lock_guard<std::mutex> lock(fMutex);
  fDropped += fHistory.size();
  fHistory.clear();
}

}  // namespace Sim
}  // namespace KR
