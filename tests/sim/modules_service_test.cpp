// The "KRTracker" service: the tracker's methods reached through the broker by name, also
// from a client thread while the robot runs.

#include <algorithm>
#include <atomic>
#include <thread>

#include <kr/error.h>
#include <kr/target/targets.h>

#include "sim/modules_fixture.h"

namespace {

using KR::KRValue;

class TrackerServiceTest : public krtest::ModulesTest {
 protected:
  void SetUp() override {
    build();
    proxy = sim->broker().getProxy("KRTracker");
  }
  std::shared_ptr<KR::KRProxy> proxy;
};

TEST_F(TrackerServiceTest, ForwardsTheTrackersMethodsByName) {
  EXPECT_EQ(proxy->call<std::vector<std::string>>("getAvailableModes"),
            (std::vector<std::string>{"Head", "WholeBody", "Move"}));
  proxy->call("setMode", std::string("WholeBody"));
  EXPECT_EQ(proxy->call<std::string>("getMode"), "WholeBody");
  proxy->call("registerTarget", std::string("Face"), KRValue());
  proxy->call("track", std::string("Face"));
  EXPECT_TRUE(proxy->call<bool>("isActive"));
  EXPECT_EQ(proxy->call<std::string>("getActiveTarget"), "Face");
  proxy->call("stopTracker");
  EXPECT_FALSE(proxy->call<bool>("isActive"));
  EXPECT_EQ(proxy->call<std::string>("getActiveTarget"), "");
  // Built and initialised on the sub-modules: the smoother got the default time-out.
  EXPECT_EQ(proxy->call<int>("getTimeOut"), 3000);
}

TEST_F(TrackerServiceTest, LookAtTakesItsTwoFormsAndNothingElse) {
  record();
  proxy->callValues("lookAt", {KRValue{1.0f, 0.2f, 0.3f}, 0, 0.5f, false});
  proxy->callValues("lookAt", {KRValue{1.0f, -0.2f, 0.3f}, 0, 1, 0.5f, false});
  EXPECT_EQ(calls("KRMotion", "_trackerWithSpeed").size(), 2u);
  try {
    proxy->callValues("lookAt", {KRValue{1.0f, 0.2f, 0.3f}, 0, 0.5f});
    ADD_FAILURE() << "three arguments accepted";
  } catch (const KR::KRError& e) {
    EXPECT_EQ(e.module(), "KRTracker");
    EXPECT_NE(e.message().find("not 3 arguments"), std::string::npos) << e.message();
  }
}

TEST_F(TrackerServiceTest, TheConfigurationTableTravelsAsNameValuePairs) {
  proxy->call("setTrackerConfig", KRValue{KRValue{"ARMS_THRESHOLD", 0.1f}});
  const KRValue table = proxy->call<KRValue>("getTrackerConfig");
  ASSERT_EQ(table.size(), 15u);  // the three gain vectors are not floats
  const auto& pairs = table.asArray();
  const auto arms = std::find_if(pairs.begin(), pairs.end(), [](const KRValue& p) {
    return p[0] == KRValue("ARMS_THRESHOLD");
  });
  ASSERT_NE(arms, pairs.end());
  EXPECT_FLOAT_EQ((*arms)[1].asFloat(), 0.1f);
  EXPECT_NE(proxy->call<std::string>("getTrackerConfigStr").find("ARMS_THRESHOLD: +0.1000"),
            std::string::npos);
}

TEST_F(TrackerServiceTest, ClientsMayCallWhileTheRobotRuns) {
  const KR::Math::Position3D ball(1.2f, 0.3f, 0.6f);
  addTarget("ball", KR::Tracker::Target::TargetRedBall, ball);
  sim->callTracker("toggleSearch", true);
  track(KR::Tracker::Target::TargetRedBall);
  std::atomic<bool> done{false};
  std::atomic<int> calls{0};
  std::thread client([&] {
    auto tracker = sim->broker().getProxy("KRTracker");
    const std::vector<std::string> modes{"WholeBody", "Move", "Head"};
    const std::vector<std::string> effectors{"Arms", "LArm", "None"};
    for (int i = 0; !done; ++i) {
      tracker->call("setMode", modes[i % 3]);
      tracker->call("setEffector", effectors[i % 3]);
      tracker->call<std::vector<float>>("getTargetPosition", 0);
      tracker->call("toggleSearch", i % 2 == 0);
      ++calls;
    }
  });
  // Steps interleave with the client's calls for at least 5 s of simulated time.
  while (sim->time() < 5.0 || calls < 100) {
    sim->step();
    std::this_thread::yield();
  }
  done = true;
  client.join();
  // Whatever the interleaving, the tracker is left consistent and follows the ball again.
  proxy->call("setMode", std::string("Head"));
  proxy->call("setEffector", std::string("None"));
  proxy->call("toggleSearch", true);  // the churn may have lost the ball: find it again
  sim->runFor(20.0);
  EXPECT_TRUE(proxy->call<bool>("isActive"));
  EXPECT_LT(lineOfSightDeg(ball), 3.0);
}

}  // namespace
