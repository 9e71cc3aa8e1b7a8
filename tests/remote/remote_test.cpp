// Modules of another process reached through the broker over DDS on loopback: typed calls,
// value kinds, exceptions, posted calls, the observer, a crashed and restarted host, late
// replies, concurrent callers, and a tracker whose modules live in the other process.

#include <chrono>
#include <climits>
#include <cstdio>
#include <numeric>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ko/log.h>
#include <kr/error.h>
#include <support/error_of.h>
#include <support/fake_module.h>
#include <tracker/tracker_fixture.h>

#include "remote_fixture.h"

namespace {

using namespace std::chrono_literals;
using KR::KRValue;
using Calls = std::vector<std::string>;
using Records = std::vector<ko::log::Record>;
using ko::log::Level, remotetest::Caller, remotetest::HostProcess, remotetest::kFakeModule;

class RemoteModules : public ::testing::Test {
 protected:
  RemoteModules() : prefix(remotetest::uniquePrefix()), host(prefix), caller(prefix) {
    proxy = caller.broker->getProxy(kFakeModule, 0);
  }
  std::string prefix;
  HostProcess host;
  Caller caller;
  std::shared_ptr<KR::KRProxy> proxy;
};

TEST_F(RemoteModules, TypedCallsWithZeroToFiveArguments) {
  EXPECT_EQ(proxy->call<int>("zero"), 42);
  EXPECT_EQ(proxy->call<int>("one", 21), 42);
  EXPECT_EQ(proxy->call<std::string>("two", 0.5f, std::string("half")), "half:5.000000");
  EXPECT_EQ(proxy->call<KRValue>("three", true, 6, 1.25f), (KRValue{false, 7, 2.5f}));
  EXPECT_EQ(proxy->call<std::vector<int>>("four", 1, 2, 3, 4), (std::vector<int>{4, 3, 2, 1}));
  EXPECT_FLOAT_EQ(proxy->call<float>("five", 1.0f, 2.0f, 3.0f, 4.0f, 5.5f), 15.5f);
  // A result of the wrong kind fails the caller's conversion, as it does in-process.
  EXPECT_THROW(proxy->call<std::string>("zero"), KR::KRError);
}

TEST_F(RemoteModules, EveryValueKindCrossesUnchanged) {
  const std::string utf8 = "t\xC3\xAAte", longText(20000, 'x');
  const KRValue empty = KRValue::makeArray(0),
                nested{1, 2.5f, "s", false, KRValue{KRValue(), KRValue{3}}};
  const KRValue values[] = {KRValue(), true,     INT_MIN, INT_MAX, -0.125f,
                            utf8,      longText, empty,   nested};
  for (const KRValue& v : values) {
    SCOPED_TRACE(v.toString().substr(0, 60));
    EXPECT_EQ(proxy->call<KRValue>("echo", v), v);
  }
}

TEST_F(RemoteModules, ExceptionsKeepTheirTextAndKRErrorItsParts) {
  // A plain exception stays plain: a KRError's text would start with its module and method.
  EXPECT_EQ(krtest::errorOf<std::runtime_error>([&] { proxy->call<int>("fail"); }),
            "motor overheated");
  KR::KRError e = krtest::krErrorOf([&] { proxy->call<int>("failKR"); });
  EXPECT_EQ(e.module(), "KRMotion");
  EXPECT_EQ(e.method(), "setAngles");
  EXPECT_EQ(e.message(), "joint HeadYaw out of range");
  EXPECT_STREQ(e.what(), "KRMotion::setAngles: joint HeadYaw out of range");
  // Errors raised by the host's broker (unknown method, wrong arguments) arrive the same way.
  e = krtest::krErrorOf([&] { proxy->call("noSuchMethod", 1); });
  EXPECT_EQ(e.module(), kFakeModule);
  EXPECT_EQ(e.method(), "noSuchMethod");
  EXPECT_THROW(proxy->call<int>("one", 1, 2), KR::KRError);
  EXPECT_THROW(proxy->call<int>("one", "text"), KR::KRError);
}

TEST_F(RemoteModules, PostedCallsRunInOrderAndTheObserverSeesEveryCall) {
  krtest::CallRecorder recorder(caller.broker);
  for (int i = 0; i < 20; ++i)
    proxy->pCall("record", i);
  caller.broker->waitForPostedCalls();
  std::vector<int> expected(20);
  std::iota(expected.begin(), expected.end(), 0);
  EXPECT_EQ(proxy->call<std::vector<int>>("recorded"), expected);
  const std::vector<std::string> calls = recorder.calls();
  ASSERT_EQ(calls.size(), 21u);
  EXPECT_EQ(calls.front(), "post RemoteFake.record(0)");
  EXPECT_EQ(calls[19], "post RemoteFake.record(19)");
  EXPECT_EQ(calls.back(), "RemoteFake.recorded()");
}

TEST_F(RemoteModules, LocalModulesStayLocal) {
  auto local = std::make_shared<krtest::FakeModule>("LocalOnly");
  local->answer("where", KRValue("here"));
  caller.broker->addModule(local);
  EXPECT_EQ(caller.broker->getProxy("LocalOnly", 0)->call<std::string>("where"), "here");
  // A name neither local nor announced fails after the discovery wait, with the usual error.
  caller.remote->setTimeout(100ms);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_THROW(caller.broker->getProxy("Nobody", 0), KR::KRError);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 100ms);
  EXPECT_THAT(caller.remote->getRemoteModuleNames(), ::testing::ElementsAre(kFakeModule));
}

TEST_F(RemoteModules, LateRepliesAreDroppedNotDeliveredToLaterCalls) {
  caller.remote->setTimeout(150ms);
  EXPECT_THROW(proxy->call<int>("slow", 500), KR::KRError);
  // The host is still busy with the slow call on one thread; a later call gets its own reply.
  EXPECT_EQ(proxy->call<int>("one", 5), 10);
  caller.remote->setTimeout(1000ms);
  EXPECT_EQ(proxy->call<int>("slow", 1), 1);
  const auto deadline = std::chrono::steady_clock::now() + 3s;
  while (caller.remote->getDroppedReplyCount() == 0 && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(10ms);
  EXPECT_EQ(caller.remote->getDroppedReplyCount(), 1u);
  EXPECT_EQ(proxy->call<int>("one", 7), 14);
}

TEST_F(RemoteModules, AKilledHostTimesOutClearlyAndIsReachedAgainWhenRestarted) {
  const int firstPid = proxy->call<int>("pid");
  caller.remote->setTimeout(200ms);
  host.kill();

  const auto start = std::chrono::steady_clock::now();
  const KR::KRError e = krtest::krErrorOf([&] { proxy->call<int>("zero"); });
  EXPECT_EQ(e.module(), kFakeModule);
  EXPECT_EQ(e.method(), "zero");
  EXPECT_THAT(e.message(), ::testing::HasSubstr("no reply within 200 ms"));
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_GE(elapsed, 200ms);
  EXPECT_LT(elapsed, 1500ms);

  // A posted call that cannot be delivered is logged, not lost silently.
  ko::log::ScopedCapture capture;
  proxy->pCall("record", 1);
  caller.broker->waitForPostedCalls();
  const auto records = capture.records("KRBroker");
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, ko::log::Level::error);
  EXPECT_THAT(records[0].text, ::testing::HasSubstr("RemoteFake.record"));
  EXPECT_THAT(records[0].text, ::testing::HasSubstr("no reply within"));

  // The same proxy reaches the restarted host once it has been discovered.
  host.start();
  caller.remote->setTimeout(300ms);
  int pid = 0;
  const auto deadline = std::chrono::steady_clock::now() + 15s;
  while (pid == 0 && std::chrono::steady_clock::now() < deadline) {
    try {
      pid = proxy->call<int>("pid");
    } catch (const KR::KRError&) {
    }
  }
  EXPECT_NE(pid, 0) << "the restarted host was never reached";
  EXPECT_NE(pid, firstPid);
  EXPECT_EQ(proxy->call<int>("one", 4), 8);
}

// Why a module of another process is no longer announced: withdrawn on purpose (unpublish, or
// its host closing), or lost with its host (killed: no sign of life for the liveliness lease).
TEST_F(RemoteModules, AModuleIsWithdrawnOnPurposeAndLostWithItsHost) {
  using State = KR::KRRemoteModuleState;
  auto waitForState = [](const KR::KRRemote& remote, const std::string& name, State wanted) {
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while (remote.getModuleState(name) != wanted && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(5ms);
    return remote.getModuleState(name);
  };
  EXPECT_EQ(caller.remote->getModuleState(kFakeModule), State::Announced);
  EXPECT_EQ(caller.remote->getModuleState("Nobody"), State::Unknown);

  // Another broker of this process on the same prefix: it withdraws, then serves again.
  auto other = KR::KRBroker::create("other");
  other->addModule(std::make_shared<KR::KRModule>("Other"));
  KR::KRRemoteOptions options;
  options.topicPrefix = prefix;
  auto otherRemote = KR::KRRemote::attach(other, options);
  otherRemote->publish("Other");
  EXPECT_EQ(waitForState(*caller.remote, "Other", State::Announced), State::Announced);
  otherRemote->unpublish("Other");
  EXPECT_EQ(waitForState(*caller.remote, "Other", State::Withdrawn), State::Withdrawn);
  otherRemote->publish("Other");
  EXPECT_EQ(waitForState(*caller.remote, "Other", State::Announced), State::Announced);
  otherRemote->close();
  EXPECT_EQ(waitForState(*caller.remote, "Other", State::Withdrawn), State::Withdrawn);
  other->shutdown();

  const auto killed = std::chrono::steady_clock::now();
  host.kill();
  EXPECT_EQ(waitForState(*caller.remote, kFakeModule, State::Lost), State::Lost);
  std::printf("a killed host's module was lost %.2f s after SIGKILL\n",
              std::chrono::duration<double>(std::chrono::steady_clock::now() - killed).count());
}

// A process that served a module under a name another process serves, and forgets it before
// leaving, withdraws nothing: the other's module stays announced and answers.
TEST_F(RemoteModules, AForgottenModuleLeavesTheOtherHostsAnnouncementInForce) {
  auto other = KR::KRBroker::create("other");
  auto twin = std::make_shared<krtest::FakeModule>(kFakeModule);
  twin->answer("zero", KRValue(-1));
  other->addModule(twin);
  KR::KRRemoteOptions options;
  options.topicPrefix = prefix;
  auto otherRemote = KR::KRRemote::attach(other, options);
  otherRemote->publish(kFakeModule);
  std::this_thread::sleep_for(500ms);  // its announcement reaches the caller
  otherRemote->forget(kFakeModule);
  otherRemote->close();
  other->shutdown();
  std::this_thread::sleep_for(500ms);  // a withdrawal would have reached the caller by now
  EXPECT_EQ(caller.remote->getModuleState(kFakeModule), KR::KRRemoteModuleState::Announced);
  EXPECT_EQ(proxy->call<int>("zero"), 42);
}

TEST_F(RemoteModules, ClosedTransportFailsCallsAtOnce) {
  caller.remote->close();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_THROW(proxy->call<int>("zero"), KR::KRError);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 100ms);
  EXPECT_THROW(caller.broker->getProxy(kFakeModule, 0), KR::KRError);
}

// Programs started by hand stay on loopback unless told otherwise.
TEST(RemoteOptions, TheNetworkIsLoopbackUnlessTheEnvironmentNamesAnother) {
  EXPECT_EQ(KR::remoteOptionsFromEnvironment().ddsConfig, KR::kLoopbackDdsConfig);
  ::setenv("KRTRACKER_DDS_CONFIG", "file:///etc/robot-network.xml", 1);
  EXPECT_EQ(KR::remoteOptionsFromEnvironment().ddsConfig, "file:///etc/robot-network.xml");
  ::setenv("KRTRACKER_DDS_CONFIG", "engine", 1);
  EXPECT_EQ(KR::remoteOptionsFromEnvironment().ddsConfig, "");
  ::setenv("KRTRACKER_DDS_CONFIG", "loopback", 1);
  EXPECT_EQ(KR::remoteOptionsFromEnvironment().ddsConfig, KR::kLoopbackDdsConfig);
  ::unsetenv("KRTRACKER_DDS_CONFIG");
}

// Two callers at once, each checking that it gets its own replies (run under ThreadSanitizer).
TEST_F(RemoteModules, TwoCallersGetTheirOwnReplies) {
  constexpr int kCalls = 300;
  std::atomic<int> wrong{0};
  auto run = [&](int base) {
    auto proxy = caller.broker->getProxy(kFakeModule, 0);
    for (int i = 0; i < kCalls; ++i) {
      if (proxy->call<int>("one", base + i) != 2 * (base + i))
        wrong.fetch_add(1);
    }
  };
  std::thread a(run, 0);
  std::thread b(run, 100000);
  // A second process-level caller (another broker and participant) at the same time.
  Caller other(prefix);
  auto otherProxy = other.broker->getProxy(kFakeModule, 0);
  for (int i = 0; i < kCalls; ++i) {
    if (otherProxy->call<KRValue>("echo", KRValue{i, "x"}) != (KRValue{i, "x"}))
      wrong.fetch_add(1);
  }
  a.join();
  b.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(caller.remote->getDroppedReplyCount(), 0u);
}

// ---- a tracker on remote modules ---------------------------------------------------------
// Its fault rules hold unchanged when its modules live in another process: the same calls, the
// same log records, the same state after a failing module, and a module whose process died
// fails the calls it gets without hanging the tracker.

class RemoteTracker : public ::testing::Test {
 public:
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
  void failTargetManager(const std::string& method) {
    targetManager->call("__throw", method, "boom");
  }
  void restoreTargetManager(const std::string& method) {
    targetManager->call("__reset", method);
    targetManager->call("__answer", "isTargetManaged", true);
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
  krtest::expectTrackStopsAtAFailingTargetManager(*this);
}

TEST_F(RemoteTracker, TrackEventGoesOnWhenTheTargetManagerFails) {
  krtest::expectTrackEventGoesOnWhenTheTargetManagerFails(*this);
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
