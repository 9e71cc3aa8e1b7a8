// Arm point-at angles, checked by forward kinematics on the shipped robots: the computed
// forearm must point at the target, and the hand must be level.

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <kr/math/math.h>
#include <kr/model/kinematics.h>
#include <krtracker/config/krgenerictrackerconfig.h>
#include <krtracker/tools/tools.h>

#include "geometry_test_util.h"
#include "support/error_of.h"

namespace {

using namespace geomtest;
using KR::Model::TrackerArm;
using KR::Model::TrackerArmAngle;

constexpr double kOneDegree = 3.14159265358979 / 180.0;

struct Angles {
  float a[5] = {0, 0, 0, 0, 0};
};

Angles solve(const Position3D& target, const TrackerArm& arm) {
  Angles out;
  tools::xComputePointAtAngles(target, arm, out.a[0], out.a[1], out.a[2], out.a[3], out.a[4]);
  return out;
}

TEST(ArmPointAt, ForearmPointsAtTargetsWithinTheJointLimits) {
  std::mt19937 rng(kSeed + 2);
  for (const char* file : {"kibo.xml", "rover.xml"}) {
    const KRTrackerModel model = loadModel(file);
    for (const TrackerArm* arm : {&model.leftArm, &model.rightArm}) {
      std::uniform_real_distribution<float> pitchDist(arm->joints[0].min, arm->joints[0].max);
      std::uniform_real_distribution<float> rollDist(arm->joints[1].min, arm->joints[1].max);
      std::uniform_real_distribution<float> distanceDist(0.35f, 2.5f);
      const int samples = 400;
      int checked = 0, wristChecked = 0;
      for (int i = 0; i < samples; ++i) {
        // Ry(pitch) * Rz(roll) * x: the direction the shoulder joints reach.
        const float pitch = pitchDist(rng), roll = rollDist(rng);
        const Position3D target = KR::Math::transformFromPosition3D(arm->shoulderPosition) *
                                  Transform::fromRotY(pitch) * Transform::fromRotZ(roll) *
                                  Position3D(distanceDist(rng), 0.0f, 0.0f);
        const Angles q = solve(target, *arm);
        if (atLimit(q.a[0], arm->joints[0]) || atLimit(q.a[1], arm->joints[1]) ||
            atLimit(q.a[3], arm->joints[3]))
          continue;  // the arm cannot reach that direction
        const Transform h = KR::Model::forearmPose(*arm, q.a[0], q.a[1], q.a[2], q.a[3]);
        EXPECT_LT(aimError(h, target), kOneDegree)
            << file << " " << arm->name << " target " << target;
        ++checked;

        // The wrist turns the hand about the forearm so that its z axis is the vertical made
        // perpendicular to the forearm.
        if (!arm->joints[4].name.empty() && !atLimit(q.a[4], arm->joints[4])) {
          const Transform hand = h * Transform::fromRotX(q.a[4]);
          const Position3D x = hand.xAxis();
          const Position3D up(0.0f, 0.0f, 1.0f);
          const Position3D level = up - x * up.dot(x);
          if (level.norm() > 0.01f) {
            EXPECT_LT(angleBetween(hand.zAxis(), level), 1e-3)
                << file << " " << arm->name << " target " << target;
            ++wristChecked;
          }
        }
      }
      EXPECT_GT(checked, samples / 2) << file << " " << arm->name;
      if (!arm->joints[4].name.empty()) {
        EXPECT_GT(wristChecked, samples / 4) << file << " " << arm->name;
      }
    }
  }
}

TEST(ArmPointAt, ListsHoldTheWristOnlyWhenTheArmHasOne) {
  struct Case {
    const char* file;
    std::vector<std::string> names;
  };
  const Case cases[] = {
      {"kibo.xml",
       {"Head", "LShoulderPitch", "LShoulderRoll", "LElbowYaw", "LElbowRoll", "LWristYaw",
        "RShoulderPitch", "RShoulderRoll", "RElbowYaw", "RElbowRoll", "RWristYaw"}},
      {"rover.xml",
       {"Head", "LShoulderPitch", "LShoulderRoll", "LElbowYaw", "LElbowRoll", "RShoulderPitch",
        "RShoulderRoll", "RElbowYaw", "RElbowRoll"}},
  };
  for (const Case& c : cases) {
    const KRTrackerModel model = loadModel(c.file);
    const Position3D target(0.8f, 0.1f, 0.3f);
    std::vector<std::string> names{"Head"};
    std::vector<float> angles{0.5f};
    tools::computePointAtAngles(target, model.leftArm, names, angles);
    tools::computePointAtAngles(target, model.rightArm, names, angles);
    EXPECT_EQ(names, c.names) << c.file;
    ASSERT_EQ(angles.size(), c.names.size()) << c.file;
    EXPECT_EQ(angles[0], 0.5f);
    const Angles left = solve(target, model.leftArm);
    const std::size_t perArm = (c.names.size() - 1) / 2;
    for (std::size_t i = 0; i < perArm; ++i)
      EXPECT_EQ(angles[1 + i], left.a[i]) << c.file << " joint " << i;
  }
}

TEST(ArmPointAt, TargetAtTheShoulderGivesTheRestPose) {
  const KRTrackerModel model = loadModel("kibo.xml");
  for (const TrackerArm* arm : {&model.leftArm, &model.rightArm}) {
    float a[5] = {9, 9, 9, 9, 9};
    tools::xComputePointAtAngles(arm->shoulderPosition + Position3D(0.0005f, 0, 0), *arm, a[0],
                                 a[1], a[2], a[3], a[4]);
    for (float v : a)
      EXPECT_EQ(v, 0.0f) << arm->name;
    std::vector<std::string> names;
    std::vector<float> angles;
    tools::computePointAtAngles(arm->shoulderPosition, *arm, names, angles);
    EXPECT_EQ(angles, std::vector<float>(5, 0.0f)) << arm->name;
    EXPECT_EQ(names.size(), 5u);
  }
}

TEST(ArmPointAt, RefusesAnArmThatIsNotLeftOrRight) {
  const TrackerArm head("Head");
  float a[5] = {9, 9, 9, 9, 9};
  EXPECT_EQ(krtest::errorOf<std::runtime_error>([&] {
              tools::xComputePointAtAngles({1, 0, 0}, head, a[0], a[1], a[2], a[3], a[4]);
            }),
            "Invalid effector name: Head");
  for (float v : a)
    EXPECT_EQ(v, 9.0f);
  std::vector<std::string> names;
  std::vector<float> angles;
  EXPECT_THROW(tools::computePointAtAngles({1, 0, 0}, TrackerArm("larm"), names, angles),
               std::runtime_error);
  EXPECT_TRUE(names.empty());
}

TEST(ArmPointAt, ElbowYawTurnsHalfATurnOnTheLeftAndWrapsNearPi) {
  // Shoulder joints locked at zero and an identity upper arm: the target is seen unchanged from
  // the elbow, so its bearing t = atan2(z, y) in the elbow frame is chosen directly.
  const float pi = KR::Math::kPi;
  struct Case {
    const char* arm;
    float t, elbowYaw;
  };
  const Case cases[] = {
      {"RArm", 1.0f, 1.0f},      {"RArm", -3.0f, -3.0f},    {"RArm", -3.1f, -3.1f + pi},
      {"RArm", 3.1f, 3.1f - pi}, {"LArm", 1.0f, 1.0f - pi}, {"LArm", -1.0f, -1.0f + pi},
      {"LArm", 0.02f, 0.02f},    {"LArm", -0.02f, -0.02f},
  };
  for (const Case& c : cases) {
    TrackerArm arm(c.arm);
    arm.joints[0].min = arm.joints[0].max = 0.0f;
    arm.joints[1].min = arm.joints[1].max = 0.0f;
    const Position3D target(1.0f, std::cos(c.t), std::sin(c.t));
    const Angles q = solve(target, arm);
    EXPECT_NEAR(q.a[2], c.elbowYaw, 1e-5f) << c.arm << " t " << c.t;
    EXPECT_NEAR(q.a[3], std::atan2(target.y, target.x), 1e-5f) << c.arm << " t " << c.t;
  }
}

TEST(ArmPointAt, ElbowAnglesAreClippedToTheirJoints) {
  TrackerArm arm("RArm");
  arm.joints[0].min = arm.joints[0].max = 0.0f;
  arm.joints[1].min = arm.joints[1].max = 0.0f;
  arm.joints[2].min = -0.5f, arm.joints[2].max = 0.5f;
  arm.joints[3].min = 0.0f, arm.joints[3].max = 0.3f;
  arm.joints[4].min = -0.1f, arm.joints[4].max = 0.1f;
  const Angles q = solve({0.2f, 1.0f, 0.8f}, arm);
  EXPECT_EQ(q.a[2], 0.5f);
  EXPECT_EQ(q.a[3], 0.3f);
  EXPECT_TRUE(q.a[4] >= -0.1f && q.a[4] <= 0.1f) << q.a[4];
}

// ---- a dead band of the wrong kind (the dead bands: dead_band_test.cpp) -----------------------

class ArmThresholdTest : public ::testing::Test {
 protected:
  void TearDown() override { KR::Tracker::resetConfig(); }

  bool point(const Position3D& target, const TrackerArm& arm) {
    return tools::computePointAtAnglesWithThreshold(target, arm, remembered_, names_, angles_);
  }
  static void setThreshold(const KRValue& v) {
    KR::Tracker::setConfigValue(KR::Tracker::ARMS_THRESHOLD, v);
  }

  const KRTrackerModel kibo_ = loadModel("kibo.xml");
  TrackerArmAngle remembered_;
  std::vector<std::string> names_;
  std::vector<float> angles_;
};

TEST_F(ArmThresholdTest, AThresholdOfTheWrongKindIsReportedUnderThisComputation) {
  setThreshold(KRValue("wide"));
  const std::string what = krtest::errorOf<std::runtime_error>([&] {
    point({0.7f, 0.3f, 0.2f}, kibo_.leftArm);
  });
  EXPECT_NE(what.find("KRTracker.computePointAtAnglesWithThreshold"), std::string::npos) << what;
  EXPECT_NE(what.find("KRValue"), std::string::npos) << what;
  EXPECT_EQ(what.find("getConfigFloatValue"), std::string::npos) << what;
  EXPECT_TRUE(angles_.empty());
}

}  // namespace
