// The tracker's fault rules hold unchanged when its modules live in another process: the same
// calls, the same log records, the same state after a failing module, and a module whose
// process died fails the calls it gets without hanging the tracker.

#include <chrono>

#include <gtest/gtest.h>

#include <ko/log.h>
#include <support/fake_module.h>
#include <tracker/tracker_fixture.h>

#include "remote_fixture.h"

namespace {

using namespace std::chrono_literals;
using Calls = std::vector<std::string>;
using Records = std::vector<ko::log::Record>;
using ko::log::Level;

class RemoteTracker : public ::testing::Test {
 protected:
  RemoteTracker()
      : prefix(remotetest::uniquePrefix()),
        host(prefix, "tracker"),
        caller(prefix, 1000ms, remotetest::trackerFakeNames()),
        recorder(caller.broker) {
    tracker = std::make_unique<krtest::TrackerProbe>(caller.broker);
    targetManager = caller.broker->getProxy("_KRTargetManager", 0);
    recorder.clear();
  }
  ~RemoteTracker() override {
    tracker.reset();
    caller.broker->shutdown();
  }

  Calls take() {
    Calls out;
    for (const std::string& c : recorder.calls()) {
      if (c.find(".__") == std::string::npos)  // scripting is not the tracker's doing
        out.push_back(c);
    }
    recorder.clear();
    return out;
  }
  Records records() const { return log.records("KRTracker.GenericTracker"); }
  static ko::log::Record rec(Level level, const std::string& location, const std::string& text) {
    return ko::log::Record{"KRTracker.GenericTracker", level, location, text};
  }

  ko::log::ScopedCapture log;
  std::string prefix;
  remotetest::HostProcess host;
  remotetest::Caller caller;
  krtest::CallRecorder recorder;
  std::unique_ptr<krtest::TrackerProbe> tracker;
  std::shared_ptr<KR::KRProxy> targetManager;  // scripted through "__throw", "__answer"...
};

TEST_F(RemoteTracker, TrackStopsAtAFailingTargetManager) {
  for (const char* failing : {"isTargetManaged", "setActiveTarget"}) {
    SCOPED_TRACE(failing);
    targetManager->call("__throw", failing, "boom");
    log.clear();
    tracker->track("Ball");
    EXPECT_EQ(take().back(), std::string("_KRTargetManager.") + failing + "(\"Ball\")");
    EXPECT_EQ(records(), (Records{rec(Level::error, "track", "boom")}));
    EXPECT_EQ(tracker->getActiveTarget(), "");
    EXPECT_FALSE(tracker->isActive());
    targetManager->call("__reset", failing);
    targetManager->call("__answer", "isTargetManaged", true);
  }
}

TEST_F(RemoteTracker, TrackEventGoesOnWhenTheTargetManagerFails) {
  targetManager->call("__throw", "setActiveEvent", "boom");
  log.clear();
  tracker->trackEvent("SoundEvent");
  const Calls calls = take();
  ASSERT_GE(calls.size(), 2u);
  EXPECT_EQ(calls[0], "_KRTargetManager.setActiveEvent(\"SoundEvent\")");
  EXPECT_EQ(calls.back(), "_Smoother.startEvent(\"evt\")");
  EXPECT_EQ(records(), (Records{rec(Level::error, "trackEvent", "boom")}));
  EXPECT_TRUE(tracker->isActive());
  EXPECT_EQ(tracker->getActiveTarget(), "SoundEvent");
}

TEST_F(RemoteTracker, ADeadModuleProcessFailsTheCallsWithoutHangingTheTracker) {
  caller.remote->setTimeout(200ms);
  host.kill();
  log.clear();
  const auto start = std::chrono::steady_clock::now();
  tracker->track("Ball");
  // One call, to the target manager, fails after the timeout; track stops there.
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1500ms);
  EXPECT_EQ(take(), (Calls{"_KRTargetManager.isTargetManaged(\"Ball\")"}));
  const Records logged = records();
  ASSERT_EQ(logged.size(), 1u);
  EXPECT_EQ(logged[0].level, Level::error);
  EXPECT_EQ(logged[0].location, "track");
  EXPECT_NE(logged[0].text.find("no reply within 200 ms"), std::string::npos) << logged[0].text;
  EXPECT_FALSE(tracker->isActive());
}

}  // namespace
