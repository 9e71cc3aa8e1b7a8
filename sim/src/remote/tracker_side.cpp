#include <krsim/remote/tracker_side.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <iomanip>
#include <ostream>
#include <thread>

#include <nlohmann/json.hpp>

#include <krtracker/generictracker/submodules.h>

#include <krsim/report/output_files.h>
#include <krsim/report/staged_outputs.h>
#include <krsim/run/run_loop.h>
#include <krsim/tracking/tracker_service.h>

namespace KR {
namespace Sim {

namespace {

using namespace std::chrono_literals;

/// What the tracking service did, for its summary.
struct Served {
  std::string status;
  std::string scenario, robot, seed;  // the robot side's description
  double seconds = 0.0;
  std::uint64_t answered = 0;  // calls to "KRTracker"
  std::uint64_t made = 0;      // calls of the tracker to the robot's modules
};

/// The robot side's description: [scenario, robot, seed], as its module answers it.
void describe(const KRValue& d, Served& s) {
  if (!d.isArray() || d.size() != 3)
    return;
  for (std::size_t i = 0; i < 3; ++i) {
    if (!d[i].isString())
      return;
  }
  s.scenario = d[0].asString();
  s.robot = d[1].asString();
  s.seed = d[2].asString();
}

void printSummary(const Served& s, const std::string& prefix, std::ostream& out) {
  out << "\nSummary (tracking service, topic prefix '" << prefix << "')\n";
  if (!s.scenario.empty())
    out << "run: scenario " << s.scenario << ", robot " << s.robot << ", seed " << s.seed << "\n";
  out << "served " << std::fixed << std::setprecision(1) << s.seconds << " s: answered "
      << s.answered << " calls of the robot side, made " << s.made << " calls to its modules\n"
      << "ended: " << s.status << "\n";
}

std::string summaryJson(const Served& s, const std::string& prefix) {
  nlohmann::ordered_json j;
  j["side"] = "tracking service";
  j["transport"] = "dds";
  j["prefix"] = prefix;
  j["status"] = s.status;
  // The run the robot side described; null when it did not.
  const auto text = [](const std::string& t) {
    return t.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(t);
  };
  j["scenario"] = text(s.scenario);
  j["robot"] = text(s.robot);
  j["seed"] = text(s.seed);
  j["served_s"] = std::round(s.seconds * 1e3) / 1e3;
  j["calls_answered"] = s.answered;
  j["calls_made"] = s.made;
  return j.dump(2) + "\n";
}

/// The tracking service's exit code for the robot side's last word: 0 when its run completed
/// or a signal stopped it (the run ended as the robot side said), 1 when its run failed, and a
/// loss otherwise (no word, or the robot side lost this side).
int exitCodeFor(const std::string& lastWord) {
  if (lastWord == "completed" || lastWord.rfind("stopped by signal", 0) == 0)
    return 0;
  return lastWord.rfind("failed: ", 0) == 0 ? 1 : kExitPeerLost;
}

/// Serves until the robot side ends the run, is lost, or a signal comes: the status and the
/// exit code.
int serve(RemoteSession& session, Served& served) {
  const auto start = std::chrono::steady_clock::now();
  int code = 0;
  for (;;) {
    if (const int signal = StopSignals::received()) {
      served.status = "stopped by signal " + std::to_string(signal);
      code = 128 + signal;
      session.tellPeer(served.status);
      break;
    }
    const std::string gone = session.peerGone();
    if (!gone.empty()) {
      served.status = gone;
      code = exitCodeFor(session.peerLastWord());
      break;
    }
    std::this_thread::sleep_for(20ms);
  }
  served.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return code;
}

}  // namespace

const std::vector<std::string>& robotModuleNames() {
  static const std::vector<std::string> kNames = [] {
    std::vector<std::string> names{"KRMotion", "KRMemory", "KRRobotModel"};
    names.insert(names.end(), Tracker::kSubModules.begin(), Tracker::kSubModules.end());
    return names;
  }();
  return kNames;
}

int runRemoteTrackingService(const TrackerSideOptions& options, std::ostream& out) {
  auto broker = KRBroker::create("tracking-service");
  auto answered = std::make_shared<std::atomic<std::uint64_t>>(0);
  auto made = std::make_shared<std::atomic<std::uint64_t>>(0);
  broker->setCallObserver([answered, made](const KRCallRecord& call) {
    ++*(call.module == kTrackerServiceModule ? answered : made);
  });
  RemoteSession session(Side::Tracker, broker, remoteOptionsFromEnvironment(), out);
  session.claim(KRValue("tracking service"), options.times.discoveryS);
  std::vector<std::string> names = robotModuleNames();
  names.push_back(SideModule::nameOf(Side::Robot));
  session.waitForPeer(names, options.times.waitS);
  Served served;
  describe(session.peerDescription(), served);
  broker->addModule(std::make_shared<TrackerService>(broker));
  session.remote().publish(kTrackerServiceModule);
  out << "tracking service: serving \"" << kTrackerServiceModule << "\" to the robot side"
      << (served.scenario.empty() ? "" : " (scenario " + served.scenario + ")") << "\n"
      << std::flush;
  const int code = serve(session, served);
  out << "tracking service: " << served.status << "; stopping\n" << std::flush;
  // Leave the domain first: the tracker's last calls to the robot's modules, as it stops,
  // then fail at once rather than wait for replies that will not come.
  session.close();
  broker->shutdown();
  served.answered = answered->load();
  served.made = made->load();
  printSummary(served, session.prefix(), out);
  if (!options.json.empty()) {
    StagedOutputs outputs({options.json});
    outputs.writeText(options.json, summaryJson(served, session.prefix()));
    outputs.commit();
    out << "JSON: " << absolutePath(options.json) << "\n";
  }
  return code;
}

}  // namespace Sim
}  // namespace KR
