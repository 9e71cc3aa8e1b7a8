#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <ko/log.h>
#include <kr/math/eigen.h>
#include <krtracker/tools/tools.h>
#include <support/fake_module.h>

#include <Eigen/Geometry>
#include "pose_util.h"
#include "tracker_fixture.h"

namespace {

using namespace KR;
namespace tools = KR::Tracker::tools;
using KR::Math::FRAME;
using KR::Math::Position3D;
using Calls = std::vector<std::string>;
using Records = std::vector<ko::log::Record>;

using posetest::isometry;
using posetest::rows;

void expectNear(const Position3D& actual, const Eigen::Vector3f& expected) {
  EXPECT_NEAR(actual.x, expected.x(), 1e-5f);
  EXPECT_NEAR(actual.y, expected.y(), 1e-5f);
  EXPECT_NEAR(actual.z, expected.z(), 1e-5f);
}

void expectNear(const Math::Transform& actual, const Eigen::Isometry3f& expected) {
  const std::vector<float> a = actual.toVector();
  const std::vector<float> e = rows(expected);
  ASSERT_EQ(a.size(), e.size());
  for (std::size_t i = 0; i < a.size(); ++i)
    EXPECT_NEAR(a[i], e[i], 1e-5f) << "element " << i;
}

class FramesTest : public krtest::MotionTest {
 protected:
  void SetUp() override {
    // The torso as seen from the world and from the robot frame; identity otherwise.
    fake_->answerWith("getTransform", [this](const std::vector<KRValue>& args) {
      logsAtRequest_ = capture_.records().size();
      const int frame = args.at(1).asInt();
      return KRValue(rows(frame == 1   ? torsoInWorld_
                          : frame == 2 ? torsoInRobot_
                                       : Eigen::Isometry3f::Identity()));
    });
  }

  ko::log::ScopedCapture capture_;
  std::size_t logsAtRequest_ = 99;
  const Eigen::Isometry3f torsoInWorld_ = isometry(1.2f, -0.4f, 0.35f, 0.1f, -0.2f, 2.5f);
  const Eigen::Isometry3f torsoInRobot_ = isometry(-0.02f, 0.0f, 0.33f, 0.0f, 0.15f, -0.3f);
  const Position3D point_{0.7f, -0.2f, 0.4f};
};

TEST_F(FramesTest, PosesComeFromTheMotionService) {
  fake_->answer("getPosition", KRValue(std::vector<float>{1.0f, 2.0f, 0.3f, 0.1f, 0.2f, -1.0f}));
  fake_->answer("getRobotPosition", KRValue(std::vector<float>{1.5f, -0.5f, 0.7f}));

  expectNear(tools::getWorldToTorsoTransform(motion_),
             isometry(1.0f, 2.0f, 0.3f, 0.1f, 0.2f, -1.0f));
  expectNear(tools::getWorldToRobotTransform(motion_),
             isometry(1.5f, -0.5f, 0.0f, 0.0f, 0.0f, 0.7f));
  EXPECT_EQ(recorder_.calls(), (Calls{R"(KRMotion.getPosition("Torso", 1, true))",
                                      "KRMotion.getRobotPosition(true)"}));
}

TEST_F(FramesTest, ConversionsMatchTheTransformsAndRoundTrip) {
  fake_->answer("getRobotPosition", KRValue(std::vector<float>{1.5f, -0.5f, 0.7f}));
  const Eigen::Vector3f p = Math::toEigen(point_);

  const Position3D inWorld =
      tools::convertTorsoFrameToDesiredFrame(motion_, point_, Math::FRAME_WORLD);
  expectNear(inWorld, torsoInWorld_ * p);
  expectNear(tools::convertToTorsoFrame(motion_, inWorld, Math::FRAME_WORLD), p);

  const Position3D inRobot =
      tools::convertTorsoFrameToDesiredFrame(motion_, point_, Math::FRAME_ROBOT);
  expectNear(inRobot, torsoInRobot_ * p);
  expectNear(tools::convertToTorsoFrame(motion_, inRobot, Math::FRAME_ROBOT), p);

  expectNear(tools::convertToRobotFrame(motion_, point_, Math::FRAME_TORSO), torsoInRobot_ * p);
  expectNear(tools::convertToRobotFrame(motion_, point_, Math::FRAME_WORLD),
             isometry(1.5f, -0.5f, 0.0f, 0.0f, 0.0f, 0.7f).inverse() * p);

  EXPECT_EQ(recorder_.calls(), (Calls{R"(KRMotion.getTransform("Torso", 1, true))",
                                      R"(KRMotion.getTransform("Torso", 1, true))",
                                      R"(KRMotion.getTransform("Torso", 2, true))",
                                      R"(KRMotion.getTransform("Torso", 2, true))",
                                      R"(KRMotion.getTransform("Torso", 2, true))",
                                      "KRMotion.getRobotPosition(true)"}));
  EXPECT_TRUE(capture_.records().empty());
}

TEST_F(FramesTest, SameFrameReturnsTheInput) {
  // Bit-for-bit: a NaN and a negative zero would not survive any arithmetic.
  const Position3D odd{std::numeric_limits<float>::quiet_NaN(), -0.0f, 1e-40f};
  const Position3D inRobot = tools::convertToRobotFrame(motion_, odd, Math::FRAME_ROBOT);
  EXPECT_EQ(std::memcmp(&inRobot, &odd, sizeof odd), 0);
  EXPECT_TRUE(recorder_.calls().empty());

  // The torso conversions still ask for the transform.
  EXPECT_EQ(tools::convertToTorsoFrame(motion_, point_, Math::FRAME_TORSO), point_);
  EXPECT_EQ(tools::convertTorsoFrameToDesiredFrame(motion_, point_, Math::FRAME_TORSO), point_);
  EXPECT_EQ(recorder_.calls(), (Calls{R"(KRMotion.getTransform("Torso", 0, true))",
                                      R"(KRMotion.getTransform("Torso", 0, true))"}));
}

TEST_F(FramesTest, UnexpectedFrameWarnsAndGivesZero) {
  using Conversion =
      std::function<Position3D(const std::shared_ptr<KRProxy>&, const Position3D&, FRAME)>;
  struct Case {
    std::string name;
    Conversion convert;
    std::vector<std::string> calls;
  };
  const std::vector<std::string> request{R"(KRMotion.getTransform("Torso", 3, true))"};
  const std::vector<Case> cases{
      {"convertToTorsoFrame", tools::convertToTorsoFrame, request},
      {"convertToRobotFrame", tools::convertToRobotFrame, {}},
      {"convertTorsoFrameToDesiredFrame", tools::convertTorsoFrameToDesiredFrame, request}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    recorder_.clear();
    capture_.clear();
    logsAtRequest_ = 99;
    EXPECT_EQ(c.convert(motion_, point_, static_cast<FRAME>(3)), Position3D(0.0f, 0.0f, 0.0f));
    EXPECT_EQ(recorder_.calls(), c.calls);
    if (!c.calls.empty()) {
      EXPECT_EQ(logsAtRequest_, 0u) << "request made after the warning";
    }
    EXPECT_EQ(
        capture_.records(),
        (Records{
            {"KRTracker.tools", ko::log::Level::warning, c.name,
             "Unexpected frame could be {FRAME_TORSO = 0, FRAME_WORLD = 1, FRAME_ROBOT = 2}."}}));
  }
}

TEST_F(FramesTest, SensorTransformFallsBackToIdentity) {
  const Eigen::Isometry3f camera = isometry(0.05f, 0.0f, 0.1f, 0.0f, 0.2f, 0.0f);
  fake_->answer("_getSensorTransformAtTime", KRValue(rows(camera)));
  const KRTimePoint time{std::chrono::nanoseconds(3'000'250'000)};
  expectNear(tools::getSensorTransform(*motion_, "CameraTop", time), camera);
  EXPECT_EQ(recorder_.calls(),
            (Calls{R"(KRMotion._getSensorTransformAtTime("CameraTop", [3, 250]))"}));

  fake_->throwOn("_getSensorTransformAtTime", "unknown sensor");
  EXPECT_EQ(tools::getSensorTransform(*motion_, "Nose", time), Math::Transform());
  EXPECT_EQ(capture_.records(),
            (Records{{"KRTracker.tools", ko::log::Level::error, "getSensorTransform",
                      "Could not get sensor transform for Nose: unknown sensor"}}));
}

}  // namespace
