#pragma once
// LookerBase: what the three lookers ("_HeadLooker", "_WholeBodyLooker", "_ArmsLooker") share.
// While started, every step update() takes the smoother's latest target
// (Namer::getNameLooker()) when it is fresh and hands it to xFollow(); without one, the next
// sample starts again from the measured joints (others may have moved them meanwhile).
// Remote methods of every looker: "start"(), "stopLooker"(), "exit"(). A command is sent
// only when one of its joints is free, and logged when its switch is on.
//
// Each looker keeps its state in one struct `State` (derived from LookerState) behind one
// mutex; snapshot() copies it. The lock is held across the motion requests, so once
// stopLooker() returns nothing more is sent; KRMotion never calls back into a sub-module.
// Events are raised without the lock.

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <kr/broker/broker.h>
#include <kr/model/trackermodel.h>

#include <krtracker/config/krgenerictrackerconfig.h>
#include <krtracker/tools/namer/namer.h>
#include <krtracker/tools/tools.h>

#include <krsim/tracking/common.h>
#include <krsim/tracking/context.h>

namespace KR {
namespace Sim {

struct LookerState {
  bool running = false;
  bool resync = true;  // take the measured joints as the last command first
};

template <class State>
class LookerBase : public SimModule {
 public:
  /// Raises `restartedEvent` (if not empty) on every start.
  LookerBase(const char* name, const SimContext& context, std::string restartedEvent)
      : SimModule(name),
        fMemory(context.memory),
        fMotion(context.broker->getProxy("KRMotion", 0)),
        fInput(context.memory, context.clock, Tracker::Namer::getNameLooker()),
        fRestartedEvent(std::move(restartedEvent)) {
    context.robot->fillTrackerModel(fModel);
    bind("start", &LookerBase::start, this);
    bind("stopLooker", &LookerBase::stopLooker, this);
    bind("exit", &LookerBase::exit, this);
  }

  void start() {
    {
      std::lock_guard<std::mutex> lock(fMutex);
      fState.running = true;
      fState.resync = true;
      xOnStart();
    }
    if (!fRestartedEvent.empty())
      fMemory->raiseEvent(fRestartedEvent, KRValue(true));
  }
  void stopLooker() {
    std::lock_guard<std::mutex> lock(fMutex);
    fState.running = false;
    xOnStop();
  }
  void exit() { stopLooker(); }

  void update(KRTimePoint now) override {
    std::lock_guard<std::mutex> lock(fMutex);
    if (!fState.running)
      return;
    const auto sample = fInput.fresh(now, kLookerFreshness);
    if (sample && xFollow(*sample, now))
      return;
    fState.resync = true;
    xOnLost();
  }

  State snapshot() const {
    std::lock_guard<std::mutex> lock(fMutex);
    return fState;
  }

 protected:
  /// Follows a fresh sample; false when there is nothing to follow (as without a sample).
  /// Caller holds fMutex.
  virtual bool xFollow(const TargetInput::Sample& sample, KRTimePoint now) = 0;
  virtual void xOnStart() {}
  virtual void xOnStop() {}
  virtual void xOnLost() {}

  /// The measured head angles into `angle` when a resync is due; true if it was.
  bool xResyncHead(Model::TrackerHeadAngle& angle) {
    if (!fState.resync)
      return false;
    const auto measured = fMotion->call<std::vector<float>>("getAngles", std::string("Head"), true);
    if (measured.size() >= 2) {
      angle.yaw = measured[0];
      angle.pitch = measured[1];
    }
    fState.resync = false;
    return measured.size() >= 2;
  }
  /// Whether every joint of fNames is taken by another user (then nothing is sent).
  bool xAllTaken() const { return Tracker::tools::areAllResourcesTaken(fMotion, fNames); }
  /// Logs fNames/fAngles to `file` when the switch is on.
  void xLog(Tracker::ConfigKey logSwitch, const char* file, KRTimePoint now) {
    if (configSwitch(logSwitch))
      Tracker::tools::logAnglesToFile(fAngles, fNames, file, logTime(now), fLogFirst);
  }

  std::shared_ptr<SimMemory> fMemory;
  std::shared_ptr<KR::KRProxy> fMotion;
  Model::KRTrackerModel fModel;
  TargetInput fInput;
  mutable std::mutex fMutex;
  State fState;
  // The command being built (joint names and angles); under fMutex.
  std::vector<std::string> fNames;
  std::vector<float> fAngles;

 private:
  const std::string fRestartedEvent;
  bool fLogFirst = true;
};

}  // namespace Sim
}  // namespace KR
