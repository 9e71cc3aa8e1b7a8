// The "KRTracker" service: the tracker's methods reached through the broker by name, also from
// a client thread while the robot runs.

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <kr/error.h>
#include <krsim/tracking/tracker_service.h>

#include "support/error_of.h"

#include "sim/tracking/tracking_fixture.h"

namespace {

using namespace krtest;

using testing::HasSubstr;

class TrackerServiceTest : public TrackingTest {
 protected:
  void SetUp() override {
    build();
    tracker = proxy("KRTracker");
  }
  std::shared_ptr<KR::KRProxy> tracker;
};

TEST_F(TrackerServiceTest, ForwardsTheTrackersMethodsByName) {
  EXPECT_EQ(tracker->call<std::vector<std::string>>("getAvailableModes"),
            (std::vector<std::string>{"Head", "WholeBody", "Move"}));
  tracker->call("setMode", std::string("WholeBody"));
  EXPECT_EQ(tracker->call<std::string>("getMode"), "WholeBody");
  tracker->call("registerTarget", std::string("Face"), KRValue());
  tracker->call("track", std::string("Face"));
  EXPECT_TRUE(tracker->call<bool>("isActive"));
  EXPECT_EQ(tracker->call<std::string>("getActiveTarget"), "Face");
  tracker->call("stopTracker");
  EXPECT_FALSE(tracker->call<bool>("isActive"));
  EXPECT_EQ(tracker->call<std::string>("getActiveTarget"), "");
  // Built and initialised on the sub-modules: the smoother got the default time-out.
  EXPECT_EQ(tracker->call<int>("getTimeOut"), 3000);
}

TEST_F(TrackerServiceTest, LookAtTakesItsTwoFormsAndNothingElse) {
  record();
  tracker->callValues("lookAt", {KRValue{1.0f, 0.2f, 0.3f}, 0, 0.5f, false});
  tracker->callValues("lookAt", {KRValue{1.0f, -0.2f, 0.3f}, 0, 1, 0.5f, false});
  EXPECT_EQ(motionCalls("_trackerWithSpeed").size(), 2u);
  const KR::KRError e = krtest::krErrorOf([&] {
    tracker->callValues("lookAt", {KRValue{1.0f, 0.2f, 0.3f}, 0, 0.5f});
  });
  EXPECT_EQ(e.module(), "KRTracker");
  EXPECT_THAT(e.message(), HasSubstr("expects 4 or 5 arguments, got 3"));
}

TEST_F(TrackerServiceTest, TheConfigurationTableTravelsAsNameValuePairs) {
  tracker->call("setTrackerConfig", KRValue{KRValue{"ARMS_THRESHOLD", 0.1f}});
  const KRValue table = tracker->call<KRValue>("getTrackerConfig");
  ASSERT_EQ(table.size(), 15u);  // the three gain vectors are not floats
  const auto& pairs = table.asArray();
  const auto arms = std::find_if(pairs.begin(), pairs.end(), [](const KRValue& p) {
    return p[0] == KRValue("ARMS_THRESHOLD");
  });
  ASSERT_NE(arms, pairs.end());
  EXPECT_FLOAT_EQ((*arms)[1].asFloat(), 0.1f);
  EXPECT_NE(tracker->call<std::string>("getTrackerConfigStr").find("ARMS_THRESHOLD: +0.1000"),
            std::string::npos);
}

TEST_F(TrackerServiceTest, ClientsMayCallWhileTheRobotRuns) {
  const Position3D ball(1.2f, 0.3f, 0.6f);
  addTarget("ball", Target::TargetRedBall, ball);
  sim->callTracker("toggleSearch", true);
  track(Target::TargetRedBall);
  std::atomic<bool> done{false};
  std::atomic<int> calls{0};
  std::thread client([&] {
    auto other = proxy("KRTracker");
    const std::vector<std::string> modes{"WholeBody", "Move", "Head"};
    const std::vector<std::string> effectors{"Arms", "LArm", "None"};
    for (int i = 0; !done; ++i, ++calls) {
      other->call("setMode", modes[i % 3]);
      other->call("setEffector", effectors[i % 3]);
      other->call<std::vector<float>>("getTargetPosition", 0);
      other->call("toggleSearch", i % 2 == 0);
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
  tracker->call("setMode", std::string("Head"));
  tracker->call("setEffector", std::string("None"));
  tracker->call("toggleSearch", true);  // the churn may have lost the ball: find it again
  sim->runFor(20.0);
  EXPECT_TRUE(tracker->call<bool>("isActive"));
  EXPECT_LT(lineOfSightDeg(ball), 3.0);
}

}  // namespace
