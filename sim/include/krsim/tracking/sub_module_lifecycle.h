#pragma once
// SubModuleLifecycle: the lifecycle that the lookers (looker_base.h) and the movers
// (mover_base.h) share. The module keeps its state in one struct `State` behind one mutex;
// "start" sets it running, "exit" stops it, and so do the modules' own stop methods
// ("stopLooker", "stopMove") through stop(); snapshot() copies the state at once.
//
// `State` is a struct with `bool running` and `void onStart()`, which resets what a start
// resets. The hooks run with fMutex held, except xOnStarted(), which runs once start() has
// released it (events are raised without the lock).

#include <memory>
#include <mutex>
#include <string>

#include <kr/broker/broker.h>

#include <krsim/robot/memory.h>
#include <krsim/tracking/context.h>

namespace KR {
namespace Sim {

template <class State>
class SubModuleLifecycle : public SimModule {
 public:
  void start() {
    {
      std::lock_guard<std::mutex> lock(fMutex);
      fState.running = true;
      fState.onStart();
      xOnStart();
    }
    xOnStarted();
  }
  void stop() {
    std::lock_guard<std::mutex> lock(fMutex);
    fState.running = false;
    xOnStop();
  }
  void exit() { stop(); }

  State snapshot() const {
    std::lock_guard<std::mutex> lock(fMutex);
    return fState;
  }

 protected:
  /// Binds "start" and "exit"; the module binds its own stop method.
  SubModuleLifecycle(const std::string& name, const SimContext& context)
      : SimModule(name), fMemory(context.memory), fMotion(context.broker->getProxy("KRMotion", 0)) {
    bind("start", &SubModuleLifecycle::start, this);
    bind("exit", &SubModuleLifecycle::exit, this);
  }

  /// On start, after State::onStart(); fMutex held.
  virtual void xOnStart() {}
  /// On start, once fMutex is released.
  virtual void xOnStarted() {}
  /// On stop and exit; fMutex held.
  virtual void xOnStop() {}

  std::shared_ptr<SimMemory> fMemory;
  std::shared_ptr<KR::KRProxy> fMotion;
  mutable std::mutex fMutex;
  State fState;
};

}  // namespace Sim
}  // namespace KR
