#pragma once
// What the simulation and the tracking service's simulated sub-modules share: the context that
// gives the sub-modules the simulated services, the interface of a module that the simulation
// updates every step, and the factory (factory.cpp) that builds them all.
//
// Threads: each sub-module keeps its state behind one mutex of its own. Remote methods arrive
// on the callers' threads, update() and the KRMemory callbacks on the simulation's. No module
// raises an event while holding its mutex; motion requests may be made under it, since
// KRMotion never calls back into a sub-module.

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <kr/broker/broker.h>
#include <kr/model/robot.h>

#include <krsim/robot/clock.h>
#include <krsim/robot/memory.h>
#include <krsim/robot/motion.h>
#include <krsim/world/world.h>

namespace KR {
namespace Sim {

/// The simulated services, all registered on `broker` under their names ("KRMotion",
/// "KRMemory", "KRRobotModel") before any sub-module is built.
struct SimContext {
  std::shared_ptr<KR::KRBroker> broker;
  std::shared_ptr<SimClock> clock;
  std::shared_ptr<SimMemory> memory;
  std::shared_ptr<SimMotion> motion;
  std::shared_ptr<World> world;
  std::shared_ptr<const Model::Robot> robot;
  std::string robotXml;  // the description that "KRRobotModel" serves
  /// The smoother places detections with the pose at their capture time and predicts the
  /// target to when the command takes effect; off: latest pose, no prediction.
  bool compensation = true;
};

/// A module of the tracking service that runs a periodic loop. The simulation calls update()
/// once per step (10 ms of simulated time), on its own thread, after the world has published
/// that step's observations and before the motion service integrates. update() must not
/// block; remote calls made from it are ordinary synchronous calls.
class SimModule : public KR::KRModule {
 public:
  using KR::KRModule::KRModule;
  virtual void update(KR::KRTimePoint now) = 0;
};

/// Builds the eight sub-modules on `context.broker` (Tracker::kSubModules, submodules.h) and
/// then the "KRTracker" host module (which constructs one GenericTracker on the broker and
/// forwards its public methods). Returns the modules whose update() the simulation calls each
/// step, in that order.
using SubModuleFactory =
    std::function<std::vector<std::shared_ptr<SimModule>>(const SimContext& context)>;

/// The factory of the tracking service's sub-modules (sim/src/tracking/factory.cpp).
std::vector<std::shared_ptr<SimModule>> createTrackerModules(const SimContext& context);
/// The eight sub-modules alone, without the "KRTracker" host: the robot side of a run whose
/// tracking service is another process. Same update order.
std::vector<std::shared_ptr<SimModule>> createSubModules(const SimContext& context);

}  // namespace Sim
}  // namespace KR
