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

int runRemoteRobot(const std::string& scenarioName, std::ostream& out, std::ostream& err,
                   const std::string& physics) {
  std::shared_ptr<KRRemote> remote;
  bool found = true;
  SimulationConfig config;
  config.physics = physics;
  config.modules = [&](const SimContext& context) -> std::vector<std::shared_ptr<SimModule>> {
    auto modules = createSubModules(context);
    remote = KRRemote::attach(context.broker, remoteOptionsFromEnvironment());
    remote->publishAll();
    out << "robot: waiting for the tracking service\n" << std::flush;
    found = remote->waitForModule("KRTracker", 120s);
    return modules;
  };
  Scenario scenario = makeScenario(scenarioName, ScenarioOptions{});
  for (Action& action : scenario.actions) {
    action.run = [act = std::move(action.run)](Simulation& sim) {
      act(sim);
      mirrorTrackerConfig(sim);
    };
  }
  ScenarioRun run(scenario, config);
  if (!found) {
    err << "robot: the tracking service did not appear within 120 s\n";
    return 1;
  }
  out << "robot: scenario " << scenario.name << ", " << std::fixed << std::setprecision(1)
      << scenario.duration << " s in real time, tracking service in another process (dds)\n"
      << std::flush;
  const std::clock_t cpuStart = std::clock();
  const auto wallStart = std::chrono::steady_clock::now();
  while (run.step()) {
    std::this_thread::sleep_until(wallStart +
                                  std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                      std::chrono::duration<double>(run.simulation().time())));
  }
  const auto summaries = run.summaries();
  out << "\nSummary (transport: dds)\n" << formatSummary(summaries);
  // The same JSON summary as a one-process run, marked as run over DDS.
  RunInfo info;
  info.scenario = scenario.name;
  info.robot = run.simulation().robot().getName();
  info.seed = config.seed;
  info.physics = config.physics;
  info.transport = "dds";
  info.latencyS = config.camera.latencyS;
  info.compensation = config.compensation;
  info.simulatedS = run.simulatedSeconds();
  info.cpuS = static_cast<double>(std::clock() - cpuStart) / CLOCKS_PER_SEC;
  std::vector<PhaseMeasures> phases;
  for (const auto& s : summaries)
    phases.push_back(s.measures);
  ::mkdir("out", 0755);
  const std::string json = "out/" + scenario.name + ".json";
  std::ofstream(json) << summaryJson(info, phases);
  out << "JSON: " << json << "\n";
  remote->close();
  return 0;
}

}  // namespace Sim
}  // namespace KR
