#include <krsim/tracking/target_manager.h>

#include <algorithm>

#include <boost/algorithm/string/join.hpp>

#include <kr/error.h>
#include <kr/math/math.h>
#include <kr/target/targets.h>

#include <krtracker/generictracker/submodules.h>
#include <krtracker/tools/namer/namer.h>
#include <krtracker/tools/tools.h>
#include <krtracker/types/types/trackinfos.h>

namespace KR {
namespace Sim {

const std::vector<std::string>& TargetManager::supportedKinds() {
  namespace T = Tracker::Target;
  static const std::vector<std::string> kKinds{T::TargetRedBall, T::TargetFace, T::TargetPeople,
                                               T::TargetSound, T::TargetLandMarks};
  return kKinds;
}

namespace {

/// Reserves `preferred`, or the first free id 100, 200... further on.
int reserveId(int preferred, std::string& eventName) {
  for (int id = preferred;; id += 100) {
    try {
      eventName = Tracker::Namer::getInstance().getId(id);
      return id;
    } catch (const KRError&) {
      // Taken by another user of the process-wide Namer.
    }
  }
}

}  // namespace

int TargetManager::preferredId(const std::string& kind) {
  const auto& kinds = supportedKinds();
  const auto it = std::find(kinds.begin(), kinds.end(), kind);
  return it == kinds.end() ? 0 : 10 * (1 + static_cast<int>(it - kinds.begin()));
}

TargetManager::TargetManager(const SimContext& context)
    : KRModule(Tracker::kTargetManagerModule),
      fMemory(context.memory),
      fWorld(context.world),
      fMotion(context.broker->getProxy("KRMotion", 0)) {
  bind("addTarget", &TargetManager::addTarget, this);
  bind("removeTarget", &TargetManager::removeTarget, this);
  bind("removeTargets", &TargetManager::removeTargets, this);
  bind("removeAllTargets", &TargetManager::removeAllTargets, this);
  bind("isTargetManaged", &TargetManager::isTargetManaged, this);
  bind("setActiveTarget", &TargetManager::setActiveTarget, this);
  bind("setActiveEvent", &TargetManager::setActiveEvent, this);
  bind("getSupportedTargets", &TargetManager::getSupportedTargets, this);
  bind("getRegisteredTargets", &TargetManager::getRegisteredTargets, this);
  bind("getEventName", &TargetManager::getEventName, this);
  bind("getSecondEventName", &TargetManager::getSecondEventName, this);
  bind("getTargetIds", &TargetManager::getTargetIds, this);
  bind("getActiveTargetPosition", &TargetManager::getActiveTargetPosition, this);
  bind("setExtractorPeriod", &TargetManager::setExtractorPeriod, this);
  bind("getExtractorPeriod", &TargetManager::getExtractorPeriod, this);
  bind("start", &TargetManager::start, this);
  bind("stopManager", &TargetManager::stopManager, this);
  bind("exit", &TargetManager::exit, this);
}

TargetManager::~TargetManager() {
  std::lock_guard<std::mutex> lock(fMutex);
  while (!fTargets.empty()) {
    xUnregister(fTargets.begin()->first);
  }
}

void TargetManager::xExpectSupported(const std::string& name, const char* method) const {
  const auto& kinds = supportedKinds();
  if (std::find(kinds.begin(), kinds.end(), name) == kinds.end()) {
    throw KRError(Tracker::kTargetManagerModule, method,
                  "Unsupported target: \"" + name +
                      "\". Could be: " + boost::algorithm::join(kinds, ", ") + ".");
  }
}

void TargetManager::addTarget(const std::string& name, const KRValue& params) {
  xExpectSupported(name, "addTarget");
  std::lock_guard<std::mutex> lock(fMutex);
  const auto found = fTargets.find(name);
  if (found != fTargets.end()) {
    found->second.params = params;  // already registered: new parameters, same ids
    return;
  }
  Registration r;
  r.params = params;
  const int count = name == Tracker::Target::TargetLandMarks ? 2 : 1;
  const int preferred = preferredId(name);
  for (int i = 0; i < count; ++i) {
    std::string eventName;
    const int id = reserveId(preferred + i, eventName);
    r.ids.push_back(id);
    r.eventNames.push_back(eventName);
  }
  if (fStarted) {
    fWorld->startPublishing(name, r.eventNames);
  }
  fTargets.emplace(name, std::move(r));
}

void TargetManager::xUnregister(const std::string& name) {
  const auto found = fTargets.find(name);
  if (found == fTargets.end()) {
    return;
  }
  for (int id : found->second.ids) {
    try {
      Tracker::Namer::getInstance().releaseId(id);
    } catch (const KRError&) {
      // Released behind our back (Namer::destroy): nothing left to give back.
    }
  }
  fWorld->stopPublishing(name);
  if (fActiveTarget == name) {
    fActiveTarget.clear();
  }
  fTargets.erase(found);
}

void TargetManager::removeTarget(const std::string& name) {
  std::lock_guard<std::mutex> lock(fMutex);
  if (fTargets.count(name) == 0) {
    throw KRError(Tracker::kTargetManagerModule, "removeTarget",
                  "Target \"" + name + "\" is not registered.");
  }
  xUnregister(name);
}

void TargetManager::removeTargets(const std::vector<std::string>& names) {
  std::lock_guard<std::mutex> lock(fMutex);
  for (const auto& name : names) {
    xUnregister(name);
  }
}

void TargetManager::removeAllTargets() {
  std::lock_guard<std::mutex> lock(fMutex);
  while (!fTargets.empty()) {
    xUnregister(fTargets.begin()->first);
  }
}

bool TargetManager::isTargetManaged(const std::string& name) const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fTargets.count(name) != 0;
}

void TargetManager::setActiveTarget(const std::string& name) {
  std::lock_guard<std::mutex> lock(fMutex);
  if (fTargets.count(name) == 0) {
    throw KRError(Tracker::kTargetManagerModule, "setActiveTarget",
                  "Target \"" + name + "\" is not registered.");
  }
  fActiveTarget = name;
  fActiveEvent.clear();
}

void TargetManager::setActiveEvent(const std::string& event) {
  if (event.empty()) {
    throw KRError(Tracker::kTargetManagerModule, "setActiveEvent", "The event name is empty.");
  }
  std::lock_guard<std::mutex> lock(fMutex);
  fActiveEvent = event;
  fActiveTarget.clear();
}

std::vector<std::string> TargetManager::getSupportedTargets() const {
  return supportedKinds();
}

std::vector<std::string> TargetManager::getRegisteredTargets() const {
  std::lock_guard<std::mutex> lock(fMutex);
  std::vector<std::string> out;
  for (const auto& t : fTargets) {
    out.push_back(t.first);
  }
  return out;
}

std::string TargetManager::xActiveEvent(bool second) const {
  if (!fActiveEvent.empty()) {
    return second ? std::string() : fActiveEvent;
  }
  const auto found = fTargets.find(fActiveTarget);
  if (found == fTargets.end()) {
    return std::string();
  }
  const auto& names = found->second.eventNames;
  const std::size_t index = second ? 1 : 0;
  return index < names.size() ? names[index] : std::string();
}

std::string TargetManager::getEventName() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return xActiveEvent(false);
}

std::string TargetManager::getSecondEventName() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return xActiveEvent(true);
}

std::vector<int> TargetManager::getTargetIds(const std::string& name) const {
  std::lock_guard<std::mutex> lock(fMutex);
  const auto found = fTargets.find(name);
  return found == fTargets.end() ? std::vector<int>() : found->second.ids;
}

std::vector<float> TargetManager::getActiveTargetPosition() {
  std::string event;
  {
    std::lock_guard<std::mutex> lock(fMutex);
    event = xActiveEvent(false);
  }
  if (event.empty() || !fMemory->hasData(event)) {
    return {};
  }
  Tracker::types::TrackInfos info;
  if (!Tracker::tools::convertTrackerEventToTrackInfo(
          fMemory->getData(event), Tracker::kTargetManagerModule, event, fMotion, info)) {
    return {};
  }
  const Math::Transform worldToTorso = Tracker::tools::getWorldToTorsoTransform(fMotion);
  return info.getTorsoToObject3D(Math::pinv(worldToTorso)).toVector();
}

void TargetManager::setExtractorPeriod(const std::string& name, int periodMs) {
  xExpectSupported(name, "setExtractorPeriod");
  if (periodMs <= 0) {
    throw KRError(Tracker::kTargetManagerModule, "setExtractorPeriod",
                  "The period must be strictly positive, not " + std::to_string(periodMs) + " ms.");
  }
  fWorld->setPeriodMs(name, periodMs);
}

int TargetManager::getExtractorPeriod(const std::string& name) const {
  xExpectSupported(name, "getExtractorPeriod");
  return fWorld->getPeriodMs(name);
}

void TargetManager::start() {
  std::lock_guard<std::mutex> lock(fMutex);
  fStarted = true;
  for (const auto& t : fTargets) {
    fWorld->startPublishing(t.first, t.second.eventNames);
  }
}

void TargetManager::stopManager() {
  std::lock_guard<std::mutex> lock(fMutex);
  fStarted = false;
  for (const auto& t : fTargets) {
    fWorld->stopPublishing(t.first);
  }
}

void TargetManager::exit() {
  std::lock_guard<std::mutex> lock(fMutex);
  fStarted = false;
  while (!fTargets.empty()) {
    xUnregister(fTargets.begin()->first);
  }
  fActiveEvent.clear();
}

bool TargetManager::isStarted() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fStarted;
}

KRValue TargetManager::getTargetParams(const std::string& name) const {
  std::lock_guard<std::mutex> lock(fMutex);
  const auto found = fTargets.find(name);
  return found == fTargets.end() ? KRValue() : found->second.params;
}

std::string TargetManager::kindOfEvent(const std::string& eventName) const {
  std::lock_guard<std::mutex> lock(fMutex);
  for (const auto& t : fTargets) {
    const auto& names = t.second.eventNames;
    if (std::find(names.begin(), names.end(), eventName) != names.end()) {
      return t.first;
    }
  }
  return std::string();
}

}  // namespace Sim
}  // namespace KR
