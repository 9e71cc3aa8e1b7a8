// The tracker under load on the simulated robot: while the simulation steps the world and the
// tracking service's sub-modules, eight clients call random public methods of "KRTracker"
// through the broker. No call may hang (a watchdog aborts the run), the tracker's invariants
// hold in every answer, and the tracker still does what it is told afterwards.
//
// KRTRACKER_LOAD_SECONDS sets the length of the load in wall-clock seconds (default 3).

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <streambuf>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <ko/log.h>
#include <kr/broker/broker.h>
#include <kr/target/targets.h>
#include <krsim/run.h>
#include <krsim/scenario.h>

namespace {

using KR::KRValue;
using Clock = std::chrono::steady_clock;
namespace Target = KR::Tracker::Target;

constexpr int kClients = 8;
constexpr std::uint32_t kSeed = 20240611;
// A call that takes longer than this is taken for a deadlock.
constexpr std::chrono::seconds kStuck{30};

double loadSeconds() {
  const char* text = std::getenv("KRTRACKER_LOAD_SECONDS");
  const double seconds = text != nullptr ? std::atof(text) : 0.0;
  return seconds > 0.0 ? seconds : 3.0;
}

// Counts the records per category and level; keeps the first few errors to show.
class CountingSink : public ko::log::Sink {
 public:
  void write(const ko::log::Record& r) override {
    std::lock_guard<std::mutex> lock(fMutex);
    ++fCounts[r.category + " " + ko::log::levelName(r.level)];
    if (r.level == ko::log::Level::error && fErrors.size() < 5) {
      fErrors.push_back(r.location + ": " + r.text);
    }
  }
  std::map<std::string, std::size_t> counts() const {
    std::lock_guard<std::mutex> lock(fMutex);
    return fCounts;
  }
  std::vector<std::string> errors() const {
    std::lock_guard<std::mutex> lock(fMutex);
    return fErrors;
  }

 private:
  mutable std::mutex fMutex;
  std::map<std::string, std::size_t> fCounts;
  std::vector<std::string> fErrors;
};

// One client: its own proxy, its own generator, its own tally.
struct Client {
  std::shared_ptr<KR::KRProxy> tracker;
  std::mt19937 rng;
  std::vector<std::string> modes;
  std::atomic<long> lastCallStart{0};  // [ms since the load began], 0 while idle
  std::string current;                 // the operation in progress, for the watchdog
  std::mutex currentMutex;
  std::map<std::string, std::size_t> calls;
  std::size_t refused = 0;  // calls refused with the documented error
};

template <class T>
const T& pick(std::mt19937& rng, const std::vector<T>& items) {
  return items[std::uniform_int_distribution<std::size_t>(0, items.size() - 1)(rng)];
}

float uniform(std::mt19937& rng, float lo, float hi) {
  return std::uniform_real_distribution<float>(lo, hi)(rng);
}

const std::vector<std::string> kEffectors = {"Arms", "LArm", "RArm", "None"};

// The operations a client draws from, each checking what it gets back.
using Operation = std::function<void(Client&)>;
std::vector<std::pair<std::string, Operation>> operations() {
  static const std::vector<std::string> targets = {Target::TargetRedBall, Target::TargetFace,
                                                   "Unregistered"};
  static const std::vector<std::string> requestedModes = {
      "Head", "WholeBody", "Move", "Navigate", "MoveSafely", "MoveWholeBody", "head"};
  auto checkMode = [](Client& c, const std::string& mode) {
    EXPECT_NE(std::find(c.modes.begin(), c.modes.end(), mode), c.modes.end()) << mode;
  };
  return {
      {"track", [](Client& c) { c.tracker->call("track", pick(c.rng, targets)); }},
      {"setMode", [](Client& c) { c.tracker->call("setMode", pick(c.rng, requestedModes)); }},
      {"setEffector",
       [](Client& c) {
         // One call in five names an effector that does not exist: the documented error.
         if (c.rng() % 5 == 0) {
           try {
             c.tracker->call("setEffector", std::string("Leg"));
             ADD_FAILURE() << "setEffector(\"Leg\") was accepted";
           } catch (const std::runtime_error& e) {
             EXPECT_EQ(std::string(e.what()),
                       "Invalid effector name: \"Leg\". Could be: Arms, LArm, RArm or None.");
             ++c.refused;
           }
           return;
         }
         c.tracker->call("setEffector", pick(c.rng, kEffectors));
       }},
      {"pause", [](Client& c) { c.tracker->call("pause"); }},
      {"restart", [](Client& c) { c.tracker->call("restart"); }},
      {"stop", [](Client& c) { c.tracker->call("stop"); }},
      {"lookAt",
       [](Client& c) {
         const std::vector<float> p = {uniform(c.rng, 0.5f, 2.0f), uniform(c.rng, -1.0f, 1.0f),
                                       uniform(c.rng, -0.3f, 0.8f)};
         const int frame = static_cast<int>(c.rng() % 3);
         c.tracker->call("lookAt", p, frame, uniform(c.rng, 0.1f, 1.0f), c.rng() % 2 == 0);
       }},
      {"pointAt",
       [](Client& c) {
         const std::vector<float> p = {uniform(c.rng, 0.2f, 1.0f), uniform(c.rng, -0.5f, 0.5f),
                                       uniform(c.rng, -0.2f, 0.5f)};
         c.tracker->call("pointAt", pick(c.rng, kEffectors), p, 0, 0.5f);
       }},
      {"setTrackerConfig",
       [](Client& c) {
         const KRValue pairs{KRValue{"HEAD_THRESHOLD", uniform(c.rng, 0.01f, 0.1f)},
                             KRValue{"ARMS_THRESHOLD", uniform(c.rng, 0.01f, 0.1f)}};
         c.tracker->call("setTrackerConfig", pairs);
       }},
      {"toggleSearch", [](Client& c) { c.tracker->call("toggleSearch", c.rng() % 2 == 0); }},
      {"setRelativePosition",
       [](Client& c) {
         c.tracker->call("setRelativePosition",
                         KRValue{uniform(c.rng, 0.3f, 1.0f), 0.0f, 0.0f, 0.1f, 0.1f, 0.2f});
       }},
      {"getters",
       [checkMode](Client& c) {
         checkMode(c, c.tracker->call<std::string>("getMode"));
         const std::string effector = c.tracker->call<std::string>("getEffector");
         EXPECT_NE(std::find(kEffectors.begin(), kEffectors.end(), effector), kEffectors.end())
             << effector;
         const bool active = c.tracker->call<bool>("isActive");
         const std::string target = c.tracker->call<std::string>("getActiveTarget");
         // Only registered names are ever accepted by track.
         EXPECT_TRUE(target.empty() || target == Target::TargetRedBall ||
                     target == Target::TargetFace)
             << target << (active ? " (active)" : "");
         const float velocity = c.tracker->call<float>("getMaximumVelocity");
         EXPECT_GE(velocity, 0.001f);
         c.tracker->call<std::vector<std::string>>("getRegisteredTargets");
         c.tracker->call<std::vector<float>>("getTargetPosition", static_cast<int>(c.rng() % 3));
         c.tracker->call<KRValue>("getTrackerConfig");
       }},
  };
}

class LoadConcurrency : public ::testing::TestWithParam<const char*> {};

// Drops what is written to it: getTrackerConfig writes a line to std::cerr per gain vector.
class NullBuffer : public std::streambuf {
 protected:
  int overflow(int c) override { return c; }
  std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

TEST_P(LoadConcurrency, EightClientsCallTheTrackerWhileTheSubModulesRun) {
  const auto sink = std::make_shared<CountingSink>();
  const std::shared_ptr<ko::log::Sink> previousSink = ko::log::setSink(sink);
  NullBuffer nothing;
  std::streambuf* const previousCerr = std::cerr.rdbuf(&nothing);

  KR::Sim::ScenarioOptions options;
  options.robotFile = KR::Sim::resolveRobotFile(GetParam());
  KR::Sim::SimulationConfig config;
  config.seed = kSeed;
  config.noise = 0.005f;
  config.modules = &KR::Sim::createTrackerModules;
  KR::Sim::ScenarioRun run(KR::Sim::makeScenario("ball", options), config);
  ASSERT_TRUE(run.step());  // the scenario's first calls: register the ball, track it
  KR::Sim::Simulation& sim = run.simulation();
  sim.callTracker("registerTarget", std::string(Target::TargetFace), KRValue(0.1f));
  const auto modes = sim.callTracker<std::vector<std::string>>("getAvailableModes");

  const std::vector<std::pair<std::string, Operation>> ops = operations();
  std::array<Client, kClients> clients;
  for (int i = 0; i < kClients; ++i) {
    clients[i].tracker = sim.broker().getProxy("KRTracker");
    clients[i].rng.seed(kSeed + static_cast<std::uint32_t>(i));
    clients[i].modes = modes;
  }

  const Clock::time_point begin = Clock::now();
  auto sinceBegin = [begin] {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count() + 1;
  };
  const auto load = std::chrono::duration<double>(loadSeconds());
  std::atomic<bool> stopClients{false};
  std::atomic<bool> stopStepping{false};
  std::atomic<long> steps{0};

  std::thread stepper([&] {
    while (!stopStepping) {
      sim.step();
      ++steps;
    }
  });
  std::vector<std::thread> threads;
  for (Client& c : clients) {
    threads.emplace_back([&c, &ops, &stopClients, &sinceBegin] {
      while (!stopClients) {
        const auto& op = ops[std::uniform_int_distribution<std::size_t>(0, ops.size() - 1)(c.rng)];
        {
          std::lock_guard<std::mutex> lock(c.currentMutex);
          c.current = op.first;
        }
        c.lastCallStart = sinceBegin();
        try {
          op.second(c);
        } catch (const std::exception& e) {
          ADD_FAILURE() << op.first << " threw: " << e.what();
        }
        c.lastCallStart = 0;
        ++c.calls[op.first];
      }
    });
  }

  // The watchdog: a call that does not return is a deadlock; nothing can be joined then, so
  // the run is aborted after saying where each client is.
  std::atomic<bool> watchdogDone{false};
  std::thread watchdog([&] {
    while (!watchdogDone) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      const long now = sinceBegin();
      for (int i = 0; i < kClients; ++i) {
        const long started = clients[i].lastCallStart;
        if (started != 0 && now - started > std::chrono::milliseconds(kStuck).count()) {
          std::string op;
          {
            std::lock_guard<std::mutex> lock(clients[i].currentMutex);
            op = clients[i].current;
          }
          std::fprintf(stderr, "deadlock: client %d has been in %s for %ld ms\n", i, op.c_str(),
                       now - started);
          std::abort();
        }
      }
    }
  });

  std::this_thread::sleep_for(load);
  stopClients = true;
  for (std::thread& t : threads) {
    t.join();
  }
  stopStepping = true;
  stepper.join();
  watchdogDone = true;
  watchdog.join();
  std::cerr.rdbuf(previousCerr);

  // After the last stop the tracker is idle, and it still does what it is told.
  sim.callTracker("stop");
  EXPECT_FALSE(sim.callTracker<bool>("isActive"));
  EXPECT_EQ(sim.callTracker<std::string>("getActiveTarget"), "");
  sim.callTracker("setMode", std::string("WholeBody"));
  sim.callTracker("setEffector", std::string("LArm"));
  sim.callTracker("track", std::string(Target::TargetRedBall));
  EXPECT_TRUE(sim.callTracker<bool>("isActive"));
  EXPECT_EQ(sim.callTracker<std::string>("getActiveTarget"), Target::TargetRedBall);
  EXPECT_EQ(sim.callTracker<std::string>("getMode"), "WholeBody");
  EXPECT_EQ(sim.callTracker<std::string>("getEffector"), "LArm");
  sim.runFor(1.0);
  sim.callTracker("stop");
  EXPECT_FALSE(sim.callTracker<bool>("isActive"));

  std::map<std::string, std::size_t> total;
  std::size_t refused = 0;
  for (const Client& c : clients) {
    for (const auto& entry : c.calls) {
      total[entry.first] += entry.second;
    }
    refused += c.refused;
  }
  std::size_t all = 0;
  std::printf("%s: %.1f s of load, %ld simulation steps (%.1f s simulated)\n", GetParam(),
              load.count(), steps.load(), sim.time());
  for (const auto& entry : total) {
    std::printf("  %-20s %8zu\n", entry.first.c_str(), entry.second);
    all += entry.second;
  }
  std::printf("  %-20s %8zu (%zu refused as documented)\n", "all", all, refused);
  for (const auto& entry : sink->counts()) {
    std::printf("  log %-40s %8zu\n", entry.first.c_str(), entry.second);
  }
  for (const std::string& e : sink->errors()) {
    std::printf("  error: %s\n", e.c_str());
  }
  for (const auto& op : ops) {
    EXPECT_GT(total[op.first], 0u) << op.first << " was never called";
  }
  ko::log::setSink(previousSink);
}

INSTANTIATE_TEST_SUITE_P(Robots, LoadConcurrency, ::testing::Values("kibo", "rover"));

}  // namespace
