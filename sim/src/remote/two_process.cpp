#include <krsim/remote/two_process.h>

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <fstream>
#include <iomanip>
#include <ostream>
#include <thread>
#include <vector>

#include <kr/broker/remote.h>
#include <kr/error.h>

#include <krtracker/config/krgenerictrackerconfig.h>
#include <krtracker/generictracker/submodules.h>

#include <krsim/report/json_summary.h>
#include <krsim/report/summary_table.h>
#include <krsim/run/run_loop.h>
#include <krsim/run/scenario.h>
#include <krsim/run/scenario_run.h>
#include <krsim/tracking/context.h>
#include <krsim/tracking/tracker_service.h>

namespace KR {
namespace Sim {

namespace {

using namespace std::chrono_literals;

/// What the tracking service opens on the robot side.
const std::vector<std::string>& robotModuleNames() {
  static const std::vector<std::string> kNames = [] {
    std::vector<std::string> names{"KRMotion", "KRMemory", "KRRobotModel"};
    names.insert(names.end(), Tracker::kSubModules.begin(), Tracker::kSubModules.end());
    return names;
  }();
  return kNames;
}

bool waitForAll(KRRemote& remote, const std::vector<std::string>& names,
                std::chrono::seconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (const std::string& name : names) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0 || !remote.waitForModule(name, left))
      return false;
  }
  return true;
}

/// The sub-modules run in this process and read its configuration table, while the scenario's
/// actions change the tracker's, in the tracking service's process: after each action the
/// table here takes the tracker's values, each kept in the kind it has here (a switch stays a
/// bool).
void mirrorTrackerConfig(Simulation& sim) {
  const KRValue pairs = sim.broker().getProxy("KRTracker", 0)->callValues("getTrackerConfig", {});
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

int runRemoteTrackingService(std::ostream& out, std::ostream& err, double maxSeconds) {
  auto broker = KRBroker::create("tracking-service");
  auto remote = KRRemote::attach(broker, remoteOptionsFromEnvironment());
  out << "tracking service: waiting for the robot's modules\n" << std::flush;
  if (!waitForAll(*remote, robotModuleNames(), 120s)) {
    err << "tracking service: the robot's modules did not appear within 120 s\n";
    return 1;
  }
  broker->addModule(std::make_shared<TrackerService>(broker));
  remote->publish("KRTracker");
  out << "tracking service: serving \"KRTracker\"\n" << std::flush;
  // Serve until the robot side has left the domain.
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(maxSeconds);
  while (std::chrono::steady_clock::now() < end) {
    const std::vector<std::string> names = remote->getRemoteModuleNames();
    if (std::find(names.begin(), names.end(), "KRMotion") == names.end())
      break;
    std::this_thread::sleep_for(100ms);
  }
  out << "tracking service: the robot left, stopping\n" << std::flush;
  remote->unpublish("KRTracker");
  // The tracker's last calls to the robot would only time out now.
  remote->setTimeout(50ms);
  broker->shutdown();
  remote->close();
  return 0;
}

namespace {

/// The robot side's own sub-modules, published to the domain; waits for the tracking service.
SubModuleFactory publishingModules(std::shared_ptr<KRRemote>& remote, bool& found,
                                   std::ostream& out) {
  return [&remote, &found, &out](const SimContext& context) {
    auto modules = createSubModules(context);
    remote = KRRemote::attach(context.broker, remoteOptionsFromEnvironment());
    remote->publishAll();
    out << "robot: waiting for the tracking service\n" << std::flush;
    found = remote->waitForModule("KRTracker", 120s);
    return modules;
  };
}

void writeSummary(const RunConfig& config, const Scenario& scenario, const RunResult& r,
                  std::ostream& out) {
  out << "\nSummary (transport: dds)\n" << formatSummary(r.summaries);
  // The same JSON summary as a one-process run, marked as run over DDS.
  const RunRecord record{scenario.name, scenario.robot->robot->getName(), r.simulatedS, r.cpuS};
  ::mkdir("out", 0755);
  const std::string json = "out/" + scenario.name + ".json";
  std::ofstream(json) << summaryJson(config, record, measuresOf(r.summaries));
  out << "JSON: " << json << "\n";
}

}  // namespace

int runRemoteRobot(const RunConfig& config, Scenario scenario, std::ostream& out,
                   std::ostream& err) {
  std::shared_ptr<KRRemote> remote;
  bool found = true;
  SimulationConfig sim;
  static_cast<SimulationSettings&>(sim) = config;
  sim.modules = publishingModules(remote, found, out);
  for (Action& action : scenario.actions) {
    action.run = [act = std::move(action.run)](Simulation& s) {
      act(s);
      mirrorTrackerConfig(s);
    };
  }
  ScenarioRun run(scenario, sim);
  if (!found) {
    err << "robot: the tracking service did not appear within 120 s\n";
    return 1;
  }
  out << "robot: scenario " << scenario.name << ", " << std::fixed << std::setprecision(1)
      << scenario.duration << " s in real time, tracking service in another process (dds)\n"
      << std::flush;
  const RunResult result = playRun(run, true);
  writeSummary(config, scenario, result, out);
  remote->close();
  return 0;
}

}  // namespace Sim
}  // namespace KR
