#pragma once
// TargetManager: the sub-module "_KRTargetManager". It keeps the registry of targets, reserves
// one Namer id per target (two for "LandMarks"), and, while started, has the world's
// detectors publish every registered target as tracker events under the Namer names of its
// ids. It also remembers which target (or raw event) is active.
//
// Remote methods: "addTarget"(name, params), "removeTarget"(name), "removeTargets"(names),
// "removeAllTargets"(), "isTargetManaged"(name) -> bool, "setActiveTarget"(name),
// "setActiveEvent"(event), "getSupportedTargets"() -> strings, "getRegisteredTargets"() ->
// strings, "getEventName"() -> string, "getSecondEventName"() -> string, "getTargetIds"(name)
// -> ints, "getActiveTargetPosition"() -> [x, y, z] in FRAME_TORSO (empty when unknown),
// "setExtractorPeriod"(name, ms), "getExtractorPeriod"(name) -> ms, "start"(),
// "stopManager"(), "exit"(). Errors are KRError("_KRTargetManager", method, text).

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <kr/broker/broker.h>
#include <kr/value/krvalue.h>

#include <krsim/tracking/context.h>

namespace KR {
namespace Sim {

class TargetManager : public KR::KRModule {
 public:
  /// The kinds of target the world can show and the tracker follow (getSupportedTargets).
  static const std::vector<std::string>& supportedKinds();
  /// Preferred Namer id of each kind (10, 20, ... in the order of getSupportedTargets); the
  /// landmarks take this id and the next. When an id is taken elsewhere in the process, the
  /// first free one 100, 200... further on is used.
  static int preferredId(const std::string& kind);

  explicit TargetManager(const SimContext& context);
  /// Stops the publications and gives every id back.
  ~TargetManager() override;

  void addTarget(const std::string& name, const KRValue& params);
  void removeTarget(const std::string& name);
  void removeTargets(const std::vector<std::string>& names);
  void removeAllTargets();
  bool isTargetManaged(const std::string& name) const;
  void setActiveTarget(const std::string& name);
  void setActiveEvent(const std::string& event);
  std::vector<std::string> getSupportedTargets() const;
  std::vector<std::string> getRegisteredTargets() const;
  std::string getEventName() const;
  std::string getSecondEventName() const;
  std::vector<int> getTargetIds(const std::string& name) const;
  std::vector<float> getActiveTargetPosition();
  void setExtractorPeriod(const std::string& name, int periodMs);
  int getExtractorPeriod(const std::string& name) const;
  void start();
  void stopManager();
  void exit();

  bool isStarted() const;
  /// The parameters given at registration (invalid when the target is not registered).
  KRValue getTargetParams(const std::string& name) const;
  /// The kind of target published under an event name; empty for an unknown event.
  std::string kindOfEvent(const std::string& eventName) const;

 private:
  struct Registration {
    KRValue params;
    std::vector<int> ids;
    std::vector<std::string> eventNames;
  };

  void xExpectSupported(const std::string& name, const char* method) const;
  /// Releases the ids of a registration and stops its publication; caller holds fMutex.
  void xUnregister(const std::string& name);
  std::string xActiveEvent(bool second) const;

  std::shared_ptr<SimMemory> fMemory;
  std::shared_ptr<World> fWorld;
  std::shared_ptr<KR::KRProxy> fMotion;
  mutable std::mutex fMutex;
  std::map<std::string, Registration> fTargets;
  std::string fActiveTarget;
  std::string fActiveEvent;
  bool fStarted = false;
};

}  // namespace Sim
}  // namespace KR
