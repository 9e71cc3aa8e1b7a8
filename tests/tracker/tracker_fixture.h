#pragma once
// A GenericTracker on a real broker whose ten modules and robot-model service are scripted
// fakes. Every call the tracker makes is recorded as "Module.method(args)", by a CallRecorder
// or, in a harness built for fault injection, by the FaultPlan in front of every fake.

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <ko/log.h>
#include <kr/broker/broker.h>
#include <kr/target/targets.h>
#include <krtracker/generictracker/generictracker.h>
#include <krtracker/generictracker/submodules.h>

#include "support/fake_module.h"
#include "support/fault_injection.h"

namespace krtest {

// The vocabulary of the tracker tests, which open this namespace.
using Calls = std::vector<std::string>;
using Records = std::vector<ko::log::Record>;
using ko::log::Level;
using KR::KRValue;

/// A record of the tracker's log category.
inline ko::log::Record rec(Level level, const std::string& location, const std::string& text) {
  return ko::log::Record{"KRTracker.GenericTracker", level, location, text};
}
/// What the tracker logged into `log`.
inline Records trackerRecords(const ko::log::ScopedCapture& log) {
  return log.records("KRTracker.GenericTracker");
}

/// What track(target) sends first from idle in "Head" mode with no effector and no searching,
/// up to the target manager's event name.
inline Calls trackStartCalls(const std::string& target) {
  return {"_KRTargetManager.isTargetManaged(\"" + target + "\")",
          "_KRTargetManager.setActiveTarget(\"" + target + "\")",
          "_MotionMove.stopMove()",
          "_NavigationMove.stopMove()",
          "_WholeBodyLooker.stopLooker()",
          "_HeadLooker.setImplParam([1, 10])",
          "_HeadLooker.start()",
          "_KRTargetManager.start()",
          "_KRTargetManager.getEventName()"};
}

/// Modules the tracker opens, in the order it opens them.
inline const std::vector<std::string>& trackerModuleNames() {
  static const std::vector<std::string> kNames = [] {
    std::vector<std::string> names{"KRMotion"};
    names.insert(names.end(), KR::Tracker::kSubModules.begin(), KR::Tracker::kSubModules.end());
    names.push_back("KRMemory");
    return names;
  }();
  return kNames;
}

/// Opens the internal operations and state to the tests.
class TrackerProbe : public KR::Tracker::GenericTracker {
 public:
  using GenericTracker::fActive, GenericTracker::fCanLookBehind, GenericTracker::fCanNavigate,
      GenericTracker::fCanPointAt, GenericTracker::fModel, GenericTracker::fNotLandMarks,
      GenericTracker::fSearcherRunning, GenericTracker::GenericTracker,
      GenericTracker::xRestartSmoother, GenericTracker::xStartSmoother,
      GenericTracker::xStopArmLooker, GenericTracker::xStopHeadTracking,
      GenericTracker::xUpdateMode;

  /// Stores a mode without validation, as only internal code can.
  void forceMode(const std::string& mode) {
    std::lock_guard<std::mutex> lock(fModeMutex);
    fMode = mode;
  }
  void updateModeLocked() {
    std::lock_guard<std::mutex> lock(fModeMutex);
    xUpdateMode();
  }
  std::string storedEffector() const {
    std::lock_guard<std::mutex> lock(fEffectorMutex);
    return fEffector;
  }
};

/// Builds the broker and its fakes; the tracker itself is built by build().
class TrackerHarness {
 public:
  /// robotFile: "kibo.xml" (type 0) or "rover.xml" (type 1). Modules listed in `omit` are not
  /// added to the broker ("KRRobotModel" may be one of them). With `faulty`, every fake is put
  /// behind a FaultyModule sharing `plan`, which then records the calls instead of `recorder`.
  explicit TrackerHarness(const std::string& robotFile = "kibo.xml",
                          const std::vector<std::string>& omit = {}, bool faulty = false)
      : broker(KR::KRBroker::create()),
        plan(faulty ? std::make_shared<FaultPlan>(broker) : nullptr) {
    std::vector<std::string> names = trackerModuleNames();
    names.push_back("KRRobotModel");
    for (const std::string& name : names) {
      if (std::find(omit.begin(), omit.end(), name) != omit.end())
        continue;
      auto module = std::make_shared<FakeModule>(name);
      modules[name] = module;
      if (plan)
        broker->addModule(std::make_shared<FaultyModule>(module, plan));
      else
        broker->addModule(module);
    }
    if (modules.count("KRRobotModel"))
      modules["KRRobotModel"]->answer("getConfig", readRobotFile(robotFile));
    if (modules.count(KR::Tracker::kTargetManagerModule)) {
      FakeModule& tm = *modules[KR::Tracker::kTargetManagerModule];
      tm.answer("isTargetManaged", true);
      tm.answer("getEventName", "evt");
      tm.answer("getSecondEventName", "evt2");
      tm.answer("getTargetIds", std::vector<int>{4, 7});
      tm.answer("getRegisteredTargets", std::vector<std::string>{});
    }
    if (!plan)
      recorder = std::make_unique<CallRecorder>(broker);
  }

  ~TrackerHarness() {
    if (plan)
      plan->disarm();
    tracker.reset();
    recorder.reset();
    broker->shutdown();
  }

  TrackerProbe& build() {
    tracker = std::make_unique<TrackerProbe>(broker);
    if (recorder)
      recorder->clear();
    return *tracker;
  }

  FakeModule& module(const std::string& name) { return *modules.at(name); }
  std::vector<std::string> calls() const { return recorder->calls(); }
  /// Calls so far, and forget them.
  std::vector<std::string> take() {
    std::vector<std::string> out = recorder->calls();
    recorder->clear();
    return out;
  }

  std::shared_ptr<KR::KRBroker> broker;
  std::shared_ptr<FaultPlan> plan;
  std::map<std::string, std::shared_ptr<FakeModule>> modules;
  std::unique_ptr<CallRecorder> recorder;
  std::unique_ptr<TrackerProbe> tracker;
};

/// A broker holding only a scripted motion service, for the tools that take its proxy.
class MotionTest : public ::testing::Test {
 protected:
  MotionTest() {
    broker_->addModule(fake_);
    motion_ = broker_->getProxy("KRMotion", 0);
  }
  ~MotionTest() override { broker_->shutdown(); }

  std::shared_ptr<KR::KRBroker> broker_ = KR::KRBroker::create();
  std::shared_ptr<FakeModule> fake_ = std::make_shared<FakeModule>("KRMotion");
  std::shared_ptr<KR::KRProxy> motion_;
  CallRecorder recorder_{broker_};
};

/// A fixture with a Kibo tracker built and the log captured.
class TrackerTest : public ::testing::Test {
 public:
  void SetUp() override { tracker = &harness.build(); }

  /// Tracks "Face" from idle and forgets the calls that made.
  void startTracking(const std::string& target = "Face") {
    tracker->track(target);
    harness.recorder->clear();
    log.clear();
  }
  std::vector<std::string> take() { return harness.take(); }
  FakeModule& module(const std::string& name) { return harness.module(name); }
  Records records() const { return trackerRecords(log); }
  /// The target manager's `method` fails with "boom" until restored (then it answers true).
  void failTargetManager(const std::string& method) {
    module(KR::Tracker::kTargetManagerModule).throwOn(method);
  }
  void restoreTargetManager(const std::string& method) {
    module(KR::Tracker::kTargetManagerModule).reset(method);
    module(KR::Tracker::kTargetManagerModule).answer("isTargetManaged", true);
  }

  ko::log::ScopedCapture log;
  TrackerHarness harness;
  TrackerProbe* tracker = nullptr;
};

// Checks that hold whether the tracker's modules share its process or live in another one: a
// fixture gives `tracker`, `log`, take(), records(), failTargetManager(), restoreTargetManager().

/// track() stops at a failing target manager: logged, nothing tracked.
template <class Fixture>
void expectTrackStopsAtAFailingTargetManager(Fixture& f) {
  for (const char* failing : {"isTargetManaged", "setActiveTarget"}) {
    SCOPED_TRACE(failing);
    f.failTargetManager(failing);
    f.log.clear();
    f.tracker->track("Ball");
    EXPECT_EQ(f.take().back(), std::string("_KRTargetManager.") + failing + "(\"Ball\")");
    EXPECT_EQ(f.records(), (Records{rec(Level::error, "track", "boom")}));
    EXPECT_EQ(f.tracker->getActiveTarget(), "");
    EXPECT_FALSE(f.tracker->isActive());
    f.restoreTargetManager(failing);
  }
}

/// trackEvent() goes on past a failing target manager: logged, the smoother started.
template <class Fixture>
void expectTrackEventGoesOnWhenTheTargetManagerFails(Fixture& f) {
  f.failTargetManager("setActiveEvent");
  f.log.clear();
  f.tracker->trackEvent("SoundEvent");
  const Calls calls = f.take();
  ASSERT_GE(calls.size(), 2u);
  EXPECT_EQ(calls[0], "_KRTargetManager.setActiveEvent(\"SoundEvent\")");
  EXPECT_EQ(calls.back(), "_Smoother.startEvent(\"evt\")");
  EXPECT_EQ(f.records(), (Records{rec(Level::error, "trackEvent", "boom")}));
  EXPECT_TRUE(f.tracker->isActive());
  EXPECT_EQ(f.tracker->getActiveTarget(), "SoundEvent");
}

}  // namespace krtest
