#include <krsim/remote/robot_side.h>

#include <chrono>
#include <ostream>
#include <thread>

#include <krtracker/config/krgenerictrackerconfig.h>

#include <krsim/run/simulation.h>
#include <krsim/tracking/tracker_service.h>

namespace KR {
namespace Sim {

namespace {

/// The sub-modules run in this process and read its configuration table, while the scenario's
/// actions change the tracker's, in the tracking service's process: after each action the
/// table here takes the tracker's values, each kept in the kind it has here (a switch stays a
/// bool). The tracker's quiet copy is read, not the table it prints for a person.
void mirrorTrackerConfig(Simulation& sim) {
  const KRValue pairs =
      sim.broker().getProxy(kTrackerServiceModule, 0)->callValues("_copyTrackerConfig", {});
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    const Tracker::ConfigKey key = Tracker::getConfigKeyFromStr(pairs[i][0].asString());
    if (key == Tracker::UNKNOWN_CONFIG_KEY)
      continue;
    const float value = pairs[i][1].asFloat();
    const bool isSwitch =
        Tracker::getConfig()->fFast[key].load() >> 32 == Tracker::detail::kFastBool;
    Tracker::setConfigValue(key, isSwitch ? KRValue(value != 0.0f) : KRValue(value));
  }
}

}  // namespace

RobotSide::RobotSide(const RunConfig& config, const Scenario& scenario, SessionTimes times,
                     std::ostream& out)
    : fDescription{KRValue(scenario.name), KRValue(scenario.robot->robot->getName()),
                   KRValue(std::to_string(config.seed))},
      fOptions(remoteOptionsFromEnvironment()),
      fTimes(times),
      fOut(out) {}

RobotSide::~RobotSide() {
  close();
}

void RobotSide::adapt(Scenario& scenario) {
  for (Action& action : scenario.actions) {
    action.run = [this, act = std::move(action.run)](Simulation& sim) {
      if (!stopReason().empty())
        return;  // the run stops at the end of this step
      try {
        act(sim);
        mirrorTrackerConfig(sim);
      } catch (const std::exception&) {
        // A call that failed because the tracking service went away: the run ends with that
        // reason. Any other failure is the run's own.
        if (!xGoneWithin(3.0 * fOptions.liveliness.count() / 1000.0))
          throw;
      }
    };
  }
}

SubModuleFactory RobotSide::modules() {
  return [this](const SimContext& context) {
    auto modules = createSubModules(context);
    fSession = std::make_unique<RemoteSession>(Side::Robot, context.broker, fOptions, fOut);
    fSession->claim(fDescription, fTimes.discoveryS);
    fSession->remote().publishAll();
    return modules;
  };
}

void RobotSide::waitForTracker() {
  fSession->waitForPeer({SideModule::nameOf(Side::Tracker), kTrackerServiceModule}, fTimes.waitS);
  fOut << "robot side: found the tracking service; running " << fDescription[0].asString() << "\n"
       << std::flush;
}

std::string RobotSide::stopReason() const {
  return fSession ? fSession->peerGone() : std::string();
}

bool RobotSide::xGoneWithin(double seconds) const {
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (stopReason().empty()) {
    if (std::chrono::steady_clock::now() >= end)
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

void RobotSide::tellTracker(const std::string& status) {
  if (fSession)
    fSession->tellPeer(status);
}

void RobotSide::close() {
  if (fSession)
    fSession->close();
}

}  // namespace Sim
}  // namespace KR
