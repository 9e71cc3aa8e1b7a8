#include <krsim/run/simulation.h>

#include <kr/error.h>

#include <krsim/robot/physics/factory.h>

namespace KR {
namespace Sim {

Simulation::Simulation(SimulationConfig config) {
  if (!config.robot)
    throw KRError("krsim", "Simulation", "no robot description");
  fDescription = config.robot;
  fRobotModel = std::make_shared<SimRobotModel>(config.robot);
  fContext.broker = KR::KRBroker::create("krtracker-sim");
  fContext.clock = std::make_shared<SimClock>();
  fContext.robot = config.robot->robot;
  fContext.robotXml = config.robot->text;
  fContext.memory = std::make_shared<SimMemory>(fContext.clock);
  fContext.motion = std::make_shared<SimMotion>(
      *fContext.robot, fContext.clock,
      makePhysicsBackend(config.physics, *fContext.robot, config.servo, config.robot->urdf.get()));

  fContext.motion->resetPose(config.startPose);
  fContext.world =
      std::make_shared<World>(fContext.clock, fContext.memory, fContext.motion, config.seed);
  fContext.world->setNoise(config.noise);
  fContext.world->setPerception(config.camera);
  fContext.compensation = config.compensation;
  fContext.broker->addModule(fContext.motion);
  fContext.broker->addModule(fContext.memory);
  fContext.broker->addModule(fRobotModel);
  if (config.modules) {
    fModules = config.modules(fContext);
    fContext.broker->waitForPostedCalls();
  }
}

Simulation::~Simulation() {
  if (hasTracker()) {
    try {
      callTracker("stop");
    } catch (const std::exception&) {
      // The broker goes down anyway.
    }
  }
  fTracker.reset();
  fModules.clear();
  fContext.broker->shutdown();
}

bool Simulation::hasTracker() const {
  return fContext.broker->hasModule("KRTracker");
}

std::shared_ptr<KR::KRProxy> Simulation::xTrackerProxy() {
  if (!fTracker)
    fTracker = fContext.broker->getProxy("KRTracker", 0);
  return fTracker;
}

void Simulation::step() {
  const double dt = std::chrono::duration<double>(kStep).count();
  fContext.clock->advance(kStep);
  fContext.motion->step(dt);
  fContext.world->update();
  const KRTimePoint now = fContext.clock->now();
  for (const auto& module : fModules)
    module->update(now);
  fContext.broker->waitForPostedCalls();
  if (fObserver)
    fObserver();
}

void Simulation::runFor(double seconds) {
  runUntil(time() + seconds);
}

void Simulation::runUntil(double t) {
  // Half a step of margin so that float rounding does not add or drop a step.
  const double half = 0.5 * std::chrono::duration<double>(kStep).count();
  while (time() + half < t)
    step();
}

}  // namespace Sim
}  // namespace KR
