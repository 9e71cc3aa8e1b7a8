#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tracker/tracker_fixture.h"

namespace {

using KR::KRValue;
using Tracker = KR::Tracker::GenericTracker;

class NullSink : public ko::log::Sink {
 public:
  void write(const ko::log::Record&) override {}
};

template <class T>
const T& pick(std::mt19937& rng, const std::vector<T>& items) {
  return items[std::uniform_int_distribution<std::size_t>(0, items.size() - 1)(rng)];
}

// Every public operation that a hosting service may call at any time, with random arguments.
std::vector<std::function<void(Tracker&, std::mt19937&)>> operations() {
  static const std::vector<std::string> targets = {"Face", "Ball", "LandMarks", ""};
  static const std::vector<std::string> modes = {"Head",     "WholeBody",  "Move",
                                                 "Navigate", "MoveSafely", "Bogus"};
  static const std::vector<std::string> effectors = {"Arms", "LArm", "RArm", "None"};
  using R = std::mt19937;
  return {
      [](Tracker& t, R& r) { t.track(pick(r, targets)); },
      [](Tracker& t, R& r) { t.trackEvent(pick(r, targets) + "Event"); },
      [](Tracker& t, R&) { t.start(); },
      [](Tracker& t, R&) { t.stop(); },
      [](Tracker& t, R&) { t.pause(); },
      [](Tracker& t, R&) { t.restart(); },
      [](Tracker& t, R&) { t.initialize(); },
      [](Tracker& t, R& r) { t.setMode(pick(r, modes)); },
      [](Tracker& t, R& r) { t.setEffector(pick(r, effectors)); },
      [](Tracker& t, R& r) { t.addEffector(pick(r, effectors)); },
      [](Tracker& t, R& r) { t.removeEffector(pick(r, effectors)); },
      [](Tracker& t, R& r) { t.toggleSearch(r() % 2 == 0); },
      [](Tracker& t, R& r) { t.setMaximumVelocity(0.1f + static_cast<float>(r() % 50) / 10.0f); },
      [](Tracker& t, R& r) { t.setMaximumAcceleration(1.0f + static_cast<float>(r() % 19)); },
      [](Tracker& t, R& r) { t.setMaximumDistanceDetection(static_cast<float>(r() % 5)); },
      [](Tracker& t, R& r) {
        t.setRelativePosition(KRValue{0.1f * (r() % 5), 0.0f, 0.0f});
      },
      [](Tracker& t, R& r) {
        t.setTargetCoordinates(KRValue{KRValue{1, 2, 3}, KRValue{static_cast<int>(r() % 9)}});
      },
      [](Tracker& t, R& r) { t.setMoveConfig(KRValue{static_cast<int>(r() % 9)}); },
      [](Tracker& t, R&) { t.unregisterAllTargets(); },
      [](Tracker& t, R&) {
        t.setTrackerConfig(KRValue{KRValue{"HEAD_THRESHOLD", 0.1f}});
      },
      [](Tracker& t, R&) {
        (void)t.getMode(), (void)t.getEffector(), (void)t.getActiveTarget(), (void)t.isActive();
        (void)t.getRelativePosition(), (void)t.getTargetCoordinates(), (void)t.getMoveConfig();
        (void)t.getMaximumVelocity(), (void)t.getMaximumAcceleration(), (void)t.isSearchEnabled();
        (void)t.getRobotPosition(), (void)t.getMaximumDistanceDetection();
      },
  };
}

TEST(TrackerConcurrency, RandomCallsFromSeveralThreadsKeepTheTrackerConsistent) {
  const std::shared_ptr<ko::log::Sink> previousSink =
      ko::log::setSink(std::make_shared<NullSink>());
  {
    krtest::TrackerHarness harness("rover.xml");
    harness.recorder.reset();  // millions of calls: do not keep them
    // Some sub-module calls fail now and then, to run the error paths too.
    auto counter = std::make_shared<std::atomic<int>>(0);
    struct Flaky {
      const char *module, *method;
      int every;  // the share of calls that fail, counted over all of them
    };
    for (const Flaky& f :
         {Flaky{"_HeadLooker", "stopLooker", 7}, Flaky{"_ArmsLooker", "stopLooker", 7},
          Flaky{"_Smoother", "stopSmoother", 7}, Flaky{"_Smoother", "startEvent", 5}}) {
      harness.module(f.module).answerWith(f.method, [counter, f](const std::vector<KRValue>&) {
        if (++*counter % f.every == 0)
          throw std::runtime_error("flaky");
        return KRValue();
      });
    }
    Tracker& tracker = harness.build();

    const auto ops = operations();
    constexpr int kThreads = 6;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    std::atomic<int> finished{0};
    std::atomic<long> done{0};
    std::atomic<long> refused{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&, i] {
        std::mt19937 rng(20240611u + static_cast<unsigned>(i));
        while (std::chrono::steady_clock::now() < deadline) {
          try {
            pick(rng, ops)(tracker, rng);
          } catch (const std::exception&) {
            ++refused;  // e.g. a start that saw the landmarks flag of a concurrent track
          }
          ++done;
        }
        ++finished;
      });
    }
    // Watchdog: a deadlock would leave threads running long after the deadline.
    const auto limit = deadline + std::chrono::seconds(30);
    while (finished.load() < kThreads) {
      if (std::chrono::steady_clock::now() > limit) {
        std::fprintf(stderr, "TrackerConcurrency: threads still blocked, deadlock\n");
        std::abort();
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    for (std::thread& t : threads)
      t.join();

    RecordProperty("operations", std::to_string(done.load()));
    RecordProperty("refused", std::to_string(refused.load()));
    EXPECT_GT(done.load(), 1000);
    EXPECT_LT(refused.load(), done.load() / 10);
    const std::vector<std::string> modes = tracker.getAvailableModes();
    EXPECT_NE(std::find(modes.begin(), modes.end(), tracker.getMode()), modes.end());
    const std::string effector = tracker.getEffector();
    EXPECT_TRUE(effector == "Arms" || effector == "LArm" || effector == "RArm" ||
                effector == "None")
        << effector;

    // Still fully usable afterwards.
    tracker.stop();
    EXPECT_FALSE(tracker.isActive());
    EXPECT_EQ(tracker.getActiveTarget(), "");
    tracker.initialize();
    tracker.track("Face");
    EXPECT_TRUE(tracker.isActive());
    EXPECT_EQ(tracker.getActiveTarget(), "Face");
    EXPECT_EQ(tracker.getMode(), "Head");
  }
  ko::log::setSink(previousSink);
}

}  // namespace
