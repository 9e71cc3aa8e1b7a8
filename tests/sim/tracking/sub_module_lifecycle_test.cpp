// The lifecycle that the lookers and the movers share: "start", their own stop method and
// "exit" through the broker, the restarted events, and nothing sent once stopped.

#include <functional>
#include <string>

#include <krsim/tracking/arms_looker.h>
#include <krsim/tracking/head_looker.h>
#include <krsim/tracking/motion_move.h>
#include <krsim/tracking/navigation_move.h>
#include <krsim/tracking/whole_body_looker.h>

#include "sim/tracking/tracking_fixture.h"

namespace {

using namespace krtest;

class SubModuleLifecycleTest : public TrackingTest {
 protected:
  template <class M>
  std::function<bool()> running(const char* name) {
    auto m = module<M>(name);
    return [m] { return m->snapshot().running; };
  }
};

TEST_F(SubModuleLifecycleTest, StartStopAndExitByNameSetTheRunningStateAndRaiseTheRestartedEvent) {
  struct Case {
    const char* module;
    const char* stopMethod;
    std::string restartedEvent;  // empty: none
    std::function<bool()> running;
  };
  const Case cases[] = {
      {kHeadLookerModule, "stopLooker", Namer::getNameHeadRestarted(),
       running<KR::Sim::HeadLooker>(kHeadLookerModule)},
      {kWholeBodyLookerModule, "stopLooker", "",
       running<KR::Sim::WholeBodyLooker>(kWholeBodyLookerModule)},
      {kArmsLookerModule, "stopLooker", Namer::getNameArmRestarted(),
       running<KR::Sim::ArmsLooker>(kArmsLookerModule)},
      {kMotionMoveModule, "stopMove", "", running<KR::Sim::MotionMove>(kMotionMoveModule)},
      {kNavigationMoveModule, "stopMove", "",
       running<KR::Sim::NavigationMove>(kNavigationMoveModule)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.module);
    auto module = proxy(c.module);
    const std::size_t restarted = c.restartedEvent.empty() ? 0 : events(c.restartedEvent);
    EXPECT_FALSE(c.running());
    for (const char* stop : {c.stopMethod, "exit"}) {
      module->call("start");
      EXPECT_TRUE(c.running());
      module->call(stop);
      EXPECT_FALSE(c.running()) << stop;
    }
    if (!c.restartedEvent.empty()) {
      EXPECT_EQ(events(c.restartedEvent), restarted + 2);  // once per start
    }
  }
}

TEST_F(SubModuleLifecycleTest, NothingIsSentOnceTheLookersAreStopped) {
  followBall({1.0f, 0.45f, 0.65f}, "WholeBody");
  sim->callTracker("setEffector", std::string("Arms"));
  sim->runFor(0.5);
  sim->callTracker("stop");
  record();
  sim->runFor(0.5);
  for (const char* method : {"_trackerWithSpeed", "_lookAtWb", "setAngles", "move", "moveTo"})
    EXPECT_TRUE(motionCalls(method).empty()) << method;
  EXPECT_FALSE(sim->motion().isWholeBodyGazeActive());  // the held gaze was cancelled
}

TEST_F(SubModuleLifecycleTest, AStoppedMoverStopsOnlyTheBaseItSetGoing) {
  proxy(kMotionMoveModule)->call("start");
  sim->motion().move(0.1f, 0.0f, 0.0f);  // someone else's walk
  record();
  proxy(kMotionMoveModule)->call("stopMove");
  EXPECT_TRUE(motionCalls("stopMove").empty());
  EXPECT_TRUE(sim->motion().moveIsActive());
}

}  // namespace
