// The whole-body looker: the base turns with the gaze, and a moving target is aimed at ahead
// of where it is, within the dead band.

#include <algorithm>
#include <cmath>

#include "sim/tracking/tracking_fixture.h"

namespace {

using namespace krtest;

class WholeBodyLookerTest : public TrackingTest {};

TEST_F(WholeBodyLookerTest, TheWholeBodyLookerTurnsTheBaseTowardATargetToTheSide) {
  // Seen ahead, then walking round to the robot's left.
  addPath("ball", Target::TargetRedBall,
          Path::orbit({0.0f, 0.0f, 0.0f}, 1.5f, 0.5f, 0.2f, 0.5f, 0.5, 3.3));
  track(Target::TargetRedBall, "WholeBody");
  sim->runFor(5.0);
  const Position3D at = sim->world().targetPosition("ball", sim->time());
  ASSERT_GT(std::atan2(at.y, at.x), 1.5f);
  // The base turned most of the way, the head took the rest.
  EXPECT_GT(sim->motion().getTruePose().theta, 1.0f);
  EXPECT_LT(lineOfSightDeg(at), 8.0);
  record();
  sim->runFor(1.0);
  EXPECT_TRUE(motionCalls("_lookAtWb").empty());  // settled within its dead band
}

TEST_F(WholeBodyLookerTest, TheWholeBodyGazeSwingsAcrossAMovingTargetWithinItsDeadBand) {
  // A ball circling the robot at 0.2 rad/s and rising slowly. Between two gazes the camera
  // goes from about half the whole-body band (5 degrees) ahead of the ball to half a band
  // behind, instead of from on it to a whole band behind; and each gaze aims the pitch too,
  // though the rise alone never leaves the band.
  KR::Sim::TargetScript ball;
  ball.name = "ball";
  ball.kind = Target::TargetRedBall;
  for (int i = 0; i <= 180; ++i) {
    const double t = 0.05 * i;
    const double angle = -0.6 + 0.2 * t;
    ball.path.add(t, Position3D(static_cast<float>(1.2 * std::cos(angle)),
                                static_cast<float>(1.2 * std::sin(angle)),
                                static_cast<float>(0.4 + 0.012 * t)));
  }
  sim->world().addTarget(ball);
  sim->callTracker("setMode", std::string("WholeBody"));
  track(Target::TargetRedBall);
  sim->runFor(2.0);
  double ahead = 0.0;   // most negative: the ball to the right of the camera's axis
  double behind = 0.0;  // most positive: the ball to its left, where it is going
  double vertical = 0.0;
  for (int i = 0; i < 600; ++i) {
    sim->runFor(0.01);
    const Position3D at = sim->world().targetPosition("ball", sim->time());
    const Position3D seen = KR::Math::pinv(sim->motion().getMapToHeadEffector(0)) * at;
    const double deg = std::atan2(seen.y, seen.x) * 180.0 / M_PI;
    ahead = std::min(ahead, deg);
    behind = std::max(behind, deg);
    vertical = std::max(vertical, std::fabs(std::atan2(seen.z, seen.x)) * 180.0 / M_PI);
  }
  EXPECT_LT(ahead, -1.5);
  EXPECT_GT(behind, 1.5);
  EXPECT_LT(behind, 3.5);
  EXPECT_LT(vertical, 1.5);
}

}  // namespace
