// Head look-at angles, checked by forward kinematics on the shipped robots: the computed head
// pose must actually look at the target.

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <ko/log.h>
#include <kr/math/math.h>
#include <kr/model/kinematics.h>
#include <krtracker/config/krgenerictrackerconfig.h>
#include <krtracker/tools/tools.h>
#include <support/error_of.h>
#include <support/fake_module.h>

#include "geometry_test_util.h"
#include "tracker_fixture.h"

namespace {

using namespace geomtest;
using KR::Model::headEffectorPose, KR::Model::TRACK_EFFECTOR, KR::Model::TrackerHeadAngle;

const char* const kRobotFiles[] = {"kibo.xml", "rover.xml"};
constexpr TRACK_EFFECTOR kTop = KR::Model::TRACK_EFFECTOR_CAMERA_TOP;

// computeLookAtAngles into fresh lists.
struct Look {
  bool ok;
  Names names;
  Floats angles;
};
Look look(const Position3D& target, const KRTrackerModel& model, int effector, bool wholeBody) {
  Look out;
  out.ok = tools::computeLookAtAngles(target, model, static_cast<TRACK_EFFECTOR>(effector),
                                      wholeBody, out.names, out.angles);
  return out;
}

// ---- head only -------------------------------------------------------------------------------

TEST(HeadLookAt, HeadPoseLooksAtReachableTargets) {
  std::mt19937 rng(kSeed);
  for (const char* file : kRobotFiles) {
    const KRTrackerModel model = loadModel(file);
    const KR::Model::TrackerHead& head = model.head;
    for (int effector = 0; effector < 3; ++effector) {
      SCOPED_TRACE(std::string(file) + " effector " + std::to_string(effector));
      std::uniform_real_distribution<float> yawDist(head.yaw.min, head.yaw.max);
      std::uniform_real_distribution<float> pitchDist(head.pitch.min, head.pitch.max);
      std::uniform_real_distribution<float> distanceDist(0.4f, 5.0f);
      int checked = 0;
      const int samples = 400;
      for (int i = 0; i < samples; ++i) {
        const Position3D target =
            pointInDirection(head.headPosition, yawDist(rng), pitchDist(rng), distanceDist(rng));
        const Look l = look(target, model, effector, false);
        ASSERT_TRUE(l.ok) << target;
        ASSERT_EQ(l.angles.size(), 2u);
        const float yaw = l.angles[0], pitch = l.angles[1];
        ASSERT_TRUE(yaw >= head.yaw.min && yaw <= head.yaw.max) << yaw;
        ASSERT_TRUE(pitch >= head.pitch.min && pitch <= head.pitch.max) << pitch;
        if (atLimit(yaw, head.yaw) || atLimit(pitch, head.pitch))
          continue;  // the target needs more than the joints allow
        EXPECT_LT(aimError(headEffectorPose(head, effector, yaw, pitch), target), 1e-3f)
            << target << " yaw " << yaw << " pitch " << pitch;
        ++checked;
      }
      // Enough of the sweep must lie inside the joint limits for the check to mean anything.
      EXPECT_GT(checked, samples / 3);
    }
  }
}

TEST(HeadLookAt, AppendsYawThenPitchAndFailsAtTheHeadPosition) {
  const KRTrackerModel model = loadModel("kibo.xml");
  Names names{"Other"};
  Floats angles{7.0f};
  ASSERT_TRUE(tools::computeLookAtAngles({1.0f, 0.3f, 0.6f}, model, kTop, false, names, angles));
  EXPECT_EQ(names, (Names{"Other", "HeadYaw", "HeadPitch"}));
  ASSERT_EQ(angles.size(), 3u);
  EXPECT_EQ(angles[0], 7.0f);
  EXPECT_GT(angles[1], 0.0f);  // target on the left
  EXPECT_LT(angles[2], 0.0f);  // and above: the head looks up

  const auto namesBefore = names;
  const auto anglesBefore = angles;
  EXPECT_FALSE(
      tools::computeLookAtAngles(model.head.headPosition, model, kTop, false, names, angles));
  EXPECT_EQ(names, namesBefore);
  EXPECT_EQ(angles, anglesBefore);
  float yaw = 0.5f, pitch = 0.5f;
  EXPECT_FALSE(
      tools::xComputeLookAtArticular(model.head.headPosition, model.head, kTop, yaw, pitch));
}

TEST(HeadLookAt, AnUnfilledModelNeverClips) {
  // The default limits of +-2 pi leave even a target straight behind unclipped.
  const KRTrackerModel model;
  const Position3D behind(-2.0f, -0.1f, -1.5f);
  const Look l = look(behind, model, kTop, false);
  ASSERT_TRUE(l.ok);
  EXPECT_LT(aimError(headEffectorPose(model.head, 0, l.angles[0], l.angles[1]), behind), 1e-3f);
  EXPECT_EQ(l.names, (Names{"", ""}));
}

TEST(HeadLookAt, ClipsToTheJointLimits) {
  const KR::Model::TrackerHead& h = loadModel("kibo.xml").head;
  struct Case {
    Position3D target;
    float yaw, pitch;
  };
  // Far left and far below; far right and far above.
  for (const Case& c : {Case{{-1.0f, 0.2f, -5.0f}, h.yaw.max, h.pitch.max},
                        Case{{-1.0f, -0.2f, 5.0f}, h.yaw.min, h.pitch.min}}) {
    float yaw = 0.0f, pitch = 0.0f;
    ASSERT_TRUE(tools::xComputeLookAtArticular(c.target, h, kTop, yaw, pitch));
    EXPECT_EQ(yaw, c.yaw) << c.target;
    EXPECT_EQ(pitch, c.pitch) << c.target;
  }
}

// ---- whole body ------------------------------------------------------------------------------

TEST(WholeBodyLookAt, LooksAtTargetsWithinTheBounds) {
  std::mt19937 rng(kSeed + 1);
  for (const char* file : kRobotFiles) {
    const KRTrackerModel model = loadModel(file);
    const Position3D lookAtOrigin(0.0f, 0.0f, model.wbLookAtHeight);
    // The whole-body gaze turns about the look-at origin; of the sensors, only the tilt of the
    // tilted one counts: that sensor, not the head, is the one aimed at the target.
    KR::Model::TrackerHead gaze("Head");
    gaze.headPosition = lookAtOrigin;
    gaze.effectorTransforms[2] = Transform(model.head.getNeckToEffectorTransform(2).rotation(), {});
    const float margin = 0.01f;
    std::uniform_real_distribution<float> yawDist(model.wbYawMin + margin, model.wbYawMax - margin);
    std::uniform_real_distribution<float> pitchDist(model.wbPitchMin + margin,
                                                    model.wbPitchMax - margin);
    std::uniform_real_distribution<float> distanceDist(0.3f, 6.0f);
    for (int i = 0; i < 300; ++i) {
      const Position3D target =
          pointInDirection(lookAtOrigin, yawDist(rng), pitchDist(rng), distanceDist(rng));
      for (int effector = 0; effector < 3; ++effector) {
        const Look l = look(target, model, effector, true);
        ASSERT_TRUE(l.ok);
        ASSERT_EQ(l.angles.size(), 2u);
        EXPECT_LT(aimError(headEffectorPose(gaze, effector, l.angles[0], l.angles[1]), target),
                  1e-4f)
            << file << " effector " << effector << " target " << target;
      }
    }
  }
}

TEST(WholeBodyLookAt, ReplacesTheListsByExactlyTwoEntries) {
  const KRTrackerModel model = loadModel("rover.xml");
  Names names{"a", "b", "c", "d"};
  Floats angles{1.0f, 2.0f, 3.0f};
  // Even the degenerate target at the look-at origin reports success.
  EXPECT_TRUE(tools::computeLookAtAngles({0.0f, 0.0f, model.wbLookAtHeight}, model, kTop, true,
                                         names, angles));
  EXPECT_EQ(names, (Names{"HeadYaw", "HeadPitch"}));
  EXPECT_EQ(angles.size(), 2u);
}

TEST(WholeBodyLookAt, ClampsToTheBoundsAndTiltCorrectsAfterwards) {
  KRTrackerModel model;
  model.wbYawMin = -1.0f, model.wbYawMax = 1.0f;
  model.wbPitchMin = -0.3f, model.wbPitchMax = 0.4f;
  model.wbLookAtHeight = 1.0f;
  const float tilt = 0.25f;  // the sensor looks this much below the head's axis
  model.head.effectorTransforms[2] = Transform::fromRotY(tilt);

  // Behind on the left, far above the look-at origin.
  const Position3D highBehind(-1.0f, 1.0f, 10.0f);
  Floats angles = look(highBehind, model, kTop, true).angles;
  EXPECT_EQ(angles[0], model.wbYawMax);
  EXPECT_EQ(angles[1], model.wbPitchMin);

  // The tilted sensor: the head pitch leaves the bounds so that the sensor sits on them.
  angles = look(highBehind, model, KR::Model::TRACK_EFFECTOR_DEPTH_CAMERA, true).angles;
  EXPECT_EQ(angles[0], model.wbYawMax);
  EXPECT_LT(angles[1], model.wbPitchMin);
  EXPECT_NEAR(angles[1] + tilt, model.wbPitchMin, 1e-6f);

  // Far below on the right.
  angles = look({0.1f, -5.0f, -20.0f}, model, kTop, true).angles;
  EXPECT_EQ(angles[0], model.wbYawMin);
  EXPECT_EQ(angles[1], model.wbPitchMax);

  // Inverted bounds: the minimum wins.
  model.wbYawMin = 0.3f, model.wbYawMax = -0.3f;
  for (const Position3D& target : {Position3D(1, 2, 1), Position3D(1, -2, 1)})
    EXPECT_EQ(look(target, model, kTop, true).angles[0], 0.3f) << target;
}

// ---- the configured yaw limit (the dead bands: dead_band_test.cpp) ----------------------------

class HeadThresholdTest : public ::testing::Test {
 protected:
  void TearDown() override { KR::Tracker::resetConfig(); }

  bool look(const Position3D& target, float threshold) {
    return tools::computeLookAtAnglesWithThreshold(target, model_.head, kTop, threshold,
                                                   remembered_, names_, angles_);
  }
  std::pair<float, float> solve(const Position3D& target) {
    float yaw = 0.0f, pitch = 0.0f;
    EXPECT_TRUE(tools::xComputeLookAtArticular(target, model_.head, kTop, yaw, pitch));
    return {yaw, pitch};
  }
  void expectRemembered(float yaw, float pitch) {
    EXPECT_EQ(remembered_.yaw, yaw);
    EXPECT_EQ(remembered_.pitch, pitch);
  }

  const KRTrackerModel model_ = loadModel("kibo.xml");
  TrackerHeadAngle remembered_;
  Names names_{"", ""};
  Floats angles_{0.0f, 0.0f};
};

TEST_F(HeadThresholdTest, ConfiguredYawLimitBoundsOnlyTheYawAndIsReadEveryCall) {
  const Position3D farLeft(0.1f, 2.0f, -0.3f);
  const auto limitYaw = [](const KRValue& v) {
    KR::Tracker::setConfigValue(KR::Tracker::HEAD_WZ_LIMIT, v);
  };
  // The default (2 pi) leaves the joint limits alone.
  ASSERT_TRUE(look(farLeft, 0.0f));
  EXPECT_EQ(remembered_.yaw, solve(farLeft).first);

  limitYaw(KRValue(0.5f));
  ASSERT_TRUE(look(farLeft, 0.0f));
  expectRemembered(0.5f, solve(farLeft).second);
  ASSERT_TRUE(look({0.1f, -2.0f, -0.3f}, 0.0f));  // far right
  EXPECT_EQ(remembered_.yaw, -0.5f);
  ASSERT_TRUE(look({1.0f, -0.85f, -0.3f}, 0.0f));  // just beyond the limit
  EXPECT_EQ(remembered_.yaw, -0.5f);

  // A limit wider than the joint: the joint limit stays in force.
  limitYaw(KRValue(3.0f));
  ASSERT_TRUE(look({-1.0f, -0.1f, 0.0f}, 0.0f));
  EXPECT_EQ(remembered_.yaw, model_.head.yaw.min);

  // An int is accepted for the limit.
  limitYaw(KRValue(1));
  ASSERT_TRUE(look(farLeft, 0.0f));
  EXPECT_EQ(remembered_.yaw, 1.0f);
}

// ---- look behind -------------------------------------------------------------------------------

TEST(LookBehind, TurnsTheBodySoThatTheHeadReachesTheTarget) {
  const float pi = KR::Math::kPi;
  struct Case {
    Position3D target;
    float yawMin, yawMax, bodyAngle;
  };
  const Case cases[] = {
      // Straight behind: half a turn, less what the head takes (at most a quarter turn).
      {{-1.0f, 0.0f, 0.3f}, -2.0f, 2.0f, pi - KR::Math::kPi2},
      {{-1.0f, 0.0f, 0.3f}, -1.0f, 1.0f, pi - 1.0f},
      // Behind on the left uses the yaw minimum, behind on the right the yaw maximum.
      {{-1.0f, 1.0f, 0.0f}, -0.5f, 1.2f, 0.75f * pi - 0.5f},
      {{-1.0f, -1.0f, 0.0f}, -0.5f, 1.2f, -0.75f * pi + 1.2f},
      {{-2.0f, -0.5f, -1.0f}, -2.0f, 2.0f, std::atan2(-0.5f, -2.0f) + KR::Math::kPi2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.target));
    Position3D target = c.target;
    float bodyAngle = -9.0f;
    ASSERT_TRUE(tools::computeAngleLookBehind(c.yawMin, c.yawMax, target, bodyAngle));
    EXPECT_NEAR(bodyAngle, c.bodyAngle, 1e-6f);
    // Turning the body by bodyAngle brings the rotated target back onto the original.
    const Position3D back = KR::Math::rotationFromRotZ(bodyAngle) * target;
    EXPECT_NEAR(back.x, c.target.x, 1e-5f);
    EXPECT_NEAR(back.y, c.target.y, 1e-5f);
    EXPECT_EQ(target.z, c.target.z);
    // Seen from the turned body, the target is at most a quarter turn to the side.
    EXPECT_LE(std::fabs(std::atan2(target.y, target.x)), KR::Math::kPi2 + 1e-5f);
  }
}

TEST(LookBehind, TargetsInFrontOrAbeamAreNotBehind) {
  for (const Position3D& original : {Position3D(0.0f, 1.0f, 0.0f), Position3D(0.0f, -1.0f, 0.5f),
                                     Position3D(1.0f, 0.0f, 0.0f), Position3D(0.0f, 0.0f, 0.0f)}) {
    Position3D target = original;
    float bodyAngle = 5.0f;
    EXPECT_FALSE(tools::computeAngleLookBehind(-2.0f, 2.0f, target, bodyAngle)) << original;
    EXPECT_EQ(bodyAngle, 0.0f);
    EXPECT_EQ(target, original);
  }
}

// ---- one-shot look ----------------------------------------------------------------------------

class ToolsLookAtTest : public krtest::MotionTest {
 protected:
  void SetUp() override { scriptTorsoRaised(*fake_); }

  void lookAt(const Position3D& target, float fraction, bool wholeBody = false) {
    tools::lookAt(motion_, model_, target, FRAME_TORSO, kTop, fraction, wholeBody);
  }
  Names methods() const {
    Names out;
    for (const KR::KRCallRecord& r : recorder_.records())
      out.push_back(r.method);
    return out;
  }
  std::vector<ko::log::Record> logged(ko::log::Level level, const std::string& text) {
    return {{"KRTracker.tools", level, "lookAt", text}};
  }

  const KRTrackerModel model_ = loadModel("kibo.xml");
};

TEST_F(ToolsLookAtTest, SendsTheComputedAnglesAtTheGivenSpeed) {
  for (const bool wholeBody : {false, true}) {
    SCOPED_TRACE(wholeBody ? "whole body" : "head");
    recorder_.clear();
    const Position3D target(1.0f, -0.3f, 0.2f);
    lookAt(target, 0.4f, wholeBody);
    const std::vector<KR::KRCallRecord> records = recorder_.records();
    ASSERT_EQ(methods(), (Names{"getTransform", "_trackerWithSpeed"}));

    const Look l =
        look(wholeBody ? target + Position3D(0, 0, kTorsoHeight) : target, model_, kTop, wholeBody);
    ASSERT_TRUE(l.ok);
    const std::vector<KRValue> expected{KRValue(l.names), KRValue(l.angles), KRValue(Floats{0.4f}),
                                        KRValue(wholeBody), KRValue(false)};
    EXPECT_EQ(records[1].args, expected);
    EXPECT_FALSE(records[1].posted);
  }
}

TEST_F(ToolsLookAtTest, RefusesAFractionOutsideZeroToOneBeforeAnyCall) {
  for (const float fraction : {0.0f, -0.5f, 1.01f}) {
    EXPECT_EQ(krtest::errorOf<std::runtime_error>([&] {
                lookAt({1, 0, 0}, fraction);
              }),
              "Expected a fraction for pFractionMaxSpeed.")
        << fraction;
  }
  EXPECT_TRUE(recorder_.calls().empty());
}

TEST_F(ToolsLookAtTest, LogsUnsolvableTargetsAndRemoteFailures) {
  ko::log::ScopedCapture capture;
  lookAt(model_.head.headPosition, 1.0f);
  EXPECT_EQ(methods(), (Names{"getTransform"}));
  EXPECT_EQ(capture.records("KRTracker.tools"),
            logged(ko::log::Level::verbose, "computeLookAtAngles fail."));

  capture.clear();
  fake_->throwOn("_trackerWithSpeed", "motion refused");
  EXPECT_NO_THROW(lookAt({1, 0, 0}, 1.0f));
  EXPECT_EQ(capture.records("KRTracker.tools"), logged(ko::log::Level::error, "motion refused"));
}

}  // namespace
