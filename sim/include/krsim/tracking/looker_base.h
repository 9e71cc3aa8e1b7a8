#pragma once
// LookerBase: what the three lookers (head_looker.h, whole_body_looker.h, arms_looker.h)
// share beyond their lifecycle (sub_module_lifecycle.h). While started, every step update()
// takes the smoother's latest target (Namer::getNameLooker()) when it is fresh and hands it to
// xFollow(); without one, the next sample starts again from the measured joints (others may
// have moved them meanwhile). Remote methods of every looker: "start"(), "stopLooker"(),
// "exit"(). A command is sent only when one of its joints is free, and logged when its switch
// is on.
//
// Each looker's `State` derives from LookerState. The lock is held across the motion requests,
// so once stopLooker() returns nothing more is sent; KRMotion never calls back into a
// sub-module.

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <kr/broker/broker.h>
#include <kr/model/trackermodel.h>

#include <krtracker/config/krgenerictrackerconfig.h>
#include <krtracker/tools/namer/namer.h>
#include <krtracker/tools/tools.h>

#include <krsim/tracking/config_reads.h>
#include <krsim/tracking/context.h>
#include <krsim/tracking/seconds.h>
#include <krsim/tracking/sub_module_lifecycle.h>
#include <krsim/tracking/target_input.h>

namespace KR {
namespace Sim {

/// A looker follows a sample only while it is this recent: the smoother publishes every step.
inline constexpr std::chrono::milliseconds kLookerFreshness{50};

struct LookerState {
  bool running = false;
  bool resync = true;  // take the measured joints as the last command first
  void onStart() { resync = true; }
};

template <class State>
class LookerBase : public SubModuleLifecycle<State> {
 public:
  /// Raises `restartedEvent` (if not empty) on every start.
  LookerBase(const char* name, const SimContext& context, std::string restartedEvent)
      : SubModuleLifecycle<State>(name, context),
        fInput(context.memory, context.clock, Tracker::Namer::getNameLooker()),
        fRestartedEvent(std::move(restartedEvent)) {
    context.robot->fillTrackerModel(fModel);
    this->bind("stopLooker", [this] { this->stop(); });
  }

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

 protected:
  using SubModuleLifecycle<State>::fMemory;
  using SubModuleLifecycle<State>::fMotion;
  using SubModuleLifecycle<State>::fMutex;
  using SubModuleLifecycle<State>::fState;

  /// Follows a fresh sample; false when there is nothing to follow (as without a sample).
  /// Caller holds fMutex.
  virtual bool xFollow(const TargetInput::Sample& sample, KRTimePoint now) = 0;
  virtual void xOnLost() {}

  /// The measured head angles into `angle` when a resync is due; true if it was.
  bool xResyncHead(Model::TrackerHeadAngle& angle) {
    if (!fState.resync)
      return false;
    const auto measured =
        fMotion->template call<std::vector<float>>("getAngles", std::string("Head"), true);
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

  Model::KRTrackerModel fModel;
  TargetInput fInput;
  // The command being built (joint names and angles); under fMutex.
  std::vector<std::string> fNames;
  std::vector<float> fAngles;

 private:
  void xOnStarted() override {
    if (!fRestartedEvent.empty())
      fMemory->raiseEvent(fRestartedEvent, KRValue(true));
  }

  const std::string fRestartedEvent;
  bool fLogFirst = true;
};

}  // namespace Sim
}  // namespace KR
