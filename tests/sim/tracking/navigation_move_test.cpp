// The navigation mover: navigation only where the robot can navigate.

#include <ko/log.h>
#include <krsim/tracking/navigation_move.h>

#include "sim/tracking/tracking_fixture.h"

namespace {

using namespace krtest;

class NavigationMoveTest : public TrackingTest {};

TEST_F(NavigationMoveTest, NavigateModeTakesTheWheeledRobotToTheTargetFacingIt) {
  build("rover.xml");
  followPerson({3.0f, 1.5f, 1.1f}, "Navigate", KRValue{1.2f, 0.0f, 0.0f, 0.1f, 0.1f, 0.1f});
  EXPECT_EQ(sim->callTracker<std::string>("getMode"), "Navigate");
  sim->runFor(20.0);
  const Position3D p = seenFromRobot();
  EXPECT_NEAR(p.x, 1.2f, 0.1f);
  EXPECT_NEAR(p.y, 0.0f, 0.1f);
  EXPECT_EQ(events(Namer::getNameTargetReached()), 1u);
  const auto navigation = module<KR::Sim::NavigationMove>(kNavigationMoveModule);
  EXPECT_TRUE(navigation->snapshot().running);
  sim->callTracker("setMode", std::string("Head"));
  EXPECT_FALSE(navigation->snapshot().running);
}

TEST_F(NavigationMoveTest, NavigationOnARobotThatCannotNavigateIsLoggedOnceAndGoesNowhere) {
  addTarget("person", Target::TargetPeople, {2.0f, 0.0f, 0.6f}, {}, KR::Sim::Layout::World);
  track(Target::TargetPeople);
  ko::log::ScopedCapture capture;
  proxy(kNavigationMoveModule)->call("start");
  sim->runFor(1.0);
  const auto records = capture.records("KRTracker.NavigationMove");
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, ko::log::Level::error);
  EXPECT_EQ(records[0].location, "update");
  EXPECT_EQ(records[0].text.rfind("Could not navigate: ", 0), 0u);
  EXPECT_EQ(sim->motion().getTruePose().x, 0.0f);
  EXPECT_EQ(sim->motion().getTruePose().y, 0.0f);
}

}  // namespace
