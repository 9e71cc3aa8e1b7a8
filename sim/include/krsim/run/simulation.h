#pragma once
// Simulation: the simulated robot at work. It owns the broker, the clock, the services
// ("KRMotion", "KRMemory", "KRRobotModel"), the world and, when a factory is given, the
// tracking service's sub-modules with the "KRTracker" host.
//
// One step is 10 ms of simulated time, always in this order: the clock advances; the motion
// service integrates joints and base up to the new time; the world moves its targets, takes
// a camera frame when one is due and raises the detections whose latency has passed
// (subscribers run at once); each sub-module's update()
// runs, in the factory's order; the calls posted to the broker's worker are waited for; the
// step observer runs. Calls to the tracker made between steps also wait for their posted
// calls, so a run depends only on its configuration and seed.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <kr/broker/broker.h>
#include <kr/math/types.h>

#include <krsim/robot/physics/kinematic.h>
#include <krsim/robot/robot_description.h>
#include <krsim/robot/robot_model.h>
#include <krsim/run/run_config.h>
#include <krsim/tracking/context.h>
#include <krsim/world/world.h>

namespace KR {
namespace Sim {

/// What a Simulation is built from: the run's settings, the robot and where it starts.
struct SimulationConfig : SimulationSettings {
  std::shared_ptr<const RobotDescription> robot;  // served by "KRRobotModel", driven by KRMotion
  Math::Pose2D startPose;                         // the robot's pose in the map frame
  SubModuleFactory modules;                       // empty: services only, no tracking service
  ServoModel servo;                               // joints of the kinematic backend
};

class Simulation {
 public:
  static constexpr std::chrono::milliseconds kStep{10};

  /// Builds everything; KRError when the robot description is malformed.
  explicit Simulation(SimulationConfig config);
  /// Stops the tracker if there is one, then shuts the broker down.
  ~Simulation();
  Simulation(const Simulation&) = delete;
  Simulation& operator=(const Simulation&) = delete;

  const SimContext& context() const { return fContext; }
  KR::KRBroker& broker() { return *fContext.broker; }
  SimClock& clock() { return *fContext.clock; }
  SimMemory& memory() { return *fContext.memory; }
  SimMotion& motion() { return *fContext.motion; }
  World& world() { return *fContext.world; }
  const Model::Robot& robot() const { return *fContext.robot; }
  /// The robot as loaded: its description and, for a URDF robot, the URDF it came from.
  const RobotDescription& description() const { return *fDescription; }
  /// Seconds of simulated time since the start.
  double time() const { return fContext.clock->seconds(); }
  bool hasTracker() const;

  /// Calls a method of "KRTracker" through the broker, as a client would, then waits for the
  /// calls it posted. KRError when there is no tracking service.
  template <class R = void, class... A>
  R callTracker(const std::string& method, A&&... args) {
    auto proxy = xTrackerProxy();
    if constexpr (std::is_void<R>::value) {
      proxy->call<void>(method, std::forward<A>(args)...);
      fContext.broker->waitForPostedCalls();
    } else {
      R result = proxy->call<R>(method, std::forward<A>(args)...);
      fContext.broker->waitForPostedCalls();
      return result;
    }
  }

  void step();
  /// Steps until `seconds` more of simulated time have passed.
  void runFor(double seconds);
  /// Steps until the simulated time reaches `time` [s].
  void runUntil(double time);
  /// Called at the end of every step.
  void setStepObserver(std::function<void()> observer) { fObserver = std::move(observer); }

 private:
  std::shared_ptr<KR::KRProxy> xTrackerProxy();

  SimContext fContext;
  std::shared_ptr<const RobotDescription> fDescription;
  std::shared_ptr<SimRobotModel> fRobotModel;
  std::vector<std::shared_ptr<SimModule>> fModules;
  std::shared_ptr<KR::KRProxy> fTracker;
  std::function<void()> fObserver;
};

}  // namespace Sim
}  // namespace KR
