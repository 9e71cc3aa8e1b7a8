// The robot's pose in the map from two landmarks seen from it: the pose the landmarks were
// seen from comes back, whatever the heading, and landmarks seen on top of each other give none.

#include <array>

#include <gtest/gtest.h>

#include <kr/math/math.h>
#include <krsim/tracking/landmark_pose.h>

namespace {

using KR::Math::Pose2D, KR::Math::Position3D;
using KR::Sim::robotPoseFromLandmarks;

TEST(LandmarkPose, TheRobotPoseTheLandmarksWereSeenFromComesBack) {
  const std::array<Position3D, 2> mapped{Position3D(2.2f, 0.8f, 0.4f),
                                         Position3D(1.8f, 1.6f, 0.4f)};
  for (const Pose2D& robot : {Pose2D(0.0f, 0.0f, 0.0f), Pose2D(0.7f, -0.4f, 0.5f),
                              Pose2D(-1.0f, 2.0f, 3.1f), Pose2D(0.3f, 0.3f, -3.1f)}) {
    SCOPED_TRACE(::testing::Message() << robot.x << " " << robot.y << " " << robot.theta);
    const KR::Math::Transform mapToRobot = KR::Math::pinv(KR::Math::transformFromPose2D(robot));
    const auto pose =
        robotPoseFromLandmarks({mapToRobot * mapped[0], mapToRobot * mapped[1]}, mapped);
    ASSERT_TRUE(pose);
    EXPECT_NEAR(pose->x, robot.x, 1e-5);
    EXPECT_NEAR(pose->y, robot.y, 1e-5);
    EXPECT_NEAR(KR::Math::modulo2PI(pose->theta - robot.theta), 0.0, 1e-5);
  }
}

TEST(LandmarkPose, LandmarksSeenLessThanACentimetreApartGiveNone) {
  const std::array<Position3D, 2> mapped{Position3D(2.0f, 0.0f, 0.0f),
                                         Position3D(2.0f, 1.0f, 0.0f)};
  EXPECT_FALSE(robotPoseFromLandmarks(
      {Position3D(1.0f, 0.0f, 0.0f), Position3D(1.0f, 0.009f, 0.5f)}, mapped));
  EXPECT_TRUE(robotPoseFromLandmarks({Position3D(1.0f, 0.0f, 0.0f), Position3D(1.0f, 0.011f, 0.0f)},
                                     mapped));
}

}  // namespace
