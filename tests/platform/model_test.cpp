// Robot descriptions: the shipped robots, their arm geometry, and malformed descriptions;
// forward kinematics of the tracker model's chains.

#include <cmath>
#include <cstdio>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <kr/error.h>
#include <kr/model/kinematics.h>
#include <kr/model/modelutils.h>

#include "support/error_of.h"
#include "support/fake_module.h"

namespace {

using namespace KR::Model;
using namespace KR::Math;

struct RobotExpectation {
  const char* file;
  const char* name;
  int type;
  bool lookBehind;
  bool hasWrist;
  std::size_t jointCount;
};

const RobotExpectation kRobots[] = {
    {"kibo.xml", "Kibo", 0, true, true, 12},
    {"rover.xml", "Rover", 1, false, false, 10},
};

void expectJointFilled(const TrackerJoint& j, const std::string& where) {
  EXPECT_FALSE(j.name.empty()) << where;
  EXPECT_LE(j.name.size(), 15u) << where;
  EXPECT_LT(j.min, j.max) << where;
  EXPECT_GT(j.maxVelocity, 0.0f) << where;
  EXPECT_GT(j.min, -k2Pi) << where;  // real limits, not the defaults
  EXPECT_LT(j.max, k2Pi) << where;
}

TEST(RobotFiles, ParseWithTheirCapabilitiesAndJoints) {
  for (const RobotExpectation& e : kRobots) {
    SCOPED_TRACE(e.file);
    const auto robot = krtest::loadRobot(e.file);
    ASSERT_TRUE(robot);
    EXPECT_EQ(robot->getName(), e.name);
    EXPECT_EQ(robot->getRobotType(), e.type);
    EXPECT_EQ(robot->canLookBehind(), e.lookBehind);
    EXPECT_TRUE(robot->canPointAt());
    EXPECT_EQ(robot->getJoints().size(), e.jointCount);
    EXPECT_GT(robot->getTorsoHeight(), 0.2f);
    EXPECT_GT(robot->getCameraHorizontalFov(), robot->getCameraVerticalFov());
    EXPECT_GT(robot->getCameraRange(), 1.0f);

    KRTrackerModel model;
    robot->fillTrackerModel(model);
    EXPECT_LT(model.wbPitchMin, 0.0f);
    EXPECT_GT(model.wbPitchMax, 0.0f);
    EXPECT_LT(model.wbYawMin, 0.0f);
    EXPECT_GT(model.wbYawMax, 0.0f);
    EXPECT_GT(model.wbLookAtHeight, robot->getTorsoHeight());
    EXPECT_EQ(model.head.name, "Head");
    expectJointFilled(model.head.yaw, "head yaw");
    expectJointFilled(model.head.pitch, "head pitch");
    EXPECT_GT(model.head.headPosition.z, 0.0f);

    // Sensors: the top camera is offset but not tilted; the others look down.
    const Transform& top = model.head.getNeckToEffectorTransform(0);
    EXPECT_GT(top.translation().x, 0.0f);
    EXPECT_TRUE(transformFromRotation(top.rotation()).isNear(Transform(), 1e-6f));
    const float bottomTilt = model.head.getNeckToEffectorTransform(1).xAxis().z;
    EXPECT_NEAR(std::asin(-bottomTilt), 0.6f, 0.05f);
    const Position3D depth = model.head.getNeckToEffectorTransform(2).xAxis();
    EXPECT_NEAR(std::atan2(depth.z, depth.x), -0.2f, 1e-6f);

    for (const TrackerArm* arm : {&model.leftArm, &model.rightArm}) {
      SCOPED_TRACE(arm->name);
      const float side = arm->name == "LArm" ? 1.0f : -1.0f;
      EXPECT_GT(side * arm->shoulderPosition.y, 0.0f);
      for (int i = 0; i < 4; ++i) {
        expectJointFilled(arm->joints[i], "arm joint " + std::to_string(i + 1));
        EXPECT_EQ(robot->getJoints().count(arm->joints[i].name), 1u);
      }
      if (e.hasWrist) {
        expectJointFilled(arm->joints[4], "wrist");
      } else {
        EXPECT_TRUE(arm->joints[4].name.empty());
        EXPECT_EQ(arm->joints[4].min, -k2Pi);
        EXPECT_EQ(arm->joints[4].max, k2Pi);
      }
    }
  }
}

// The arm chain convention of robots/README.md: aiming the upper arm at the target and
// bending the elbow by the pointing computation's rule gives angles inside the joint limits
// for targets in front of the robot, and a forearm that points exactly at the target.
TEST(RobotFiles, ArmsPointAtTargetsInFrontWithinTheirLimits) {
  std::mt19937 rng(424242u);
  std::uniform_real_distribution<float> x(0.4f, 2.0f), y(-0.5f, 0.5f), z(-0.3f, 0.8f);
  for (const RobotExpectation& e : kRobots) {
    const auto robot = krtest::loadRobot(e.file);
    for (const TrackerArm* arm :
         {&robot->trackerModel().leftArm, &robot->trackerModel().rightArm}) {
      SCOPED_TRACE(std::string(e.file) + " " + arm->name);
      // A pure translation without z: the forearm can then reach the line to the target.
      EXPECT_TRUE(transformFromRotation(arm->armTransform.rotation()).isNear(Transform(), 1e-6f));
      EXPECT_EQ(arm->armTransform.translation().z, 0.0f);
      const auto within = [&](int joint, float angle) {
        return angle >= arm->joints[joint].min && angle <= arm->joints[joint].max;
      };
      for (int i = 0; i < 300; ++i) {
        const Position3D target(x(rng), y(rng), z(rng));
        const Position3D d = target - arm->shoulderPosition;
        float a1 = 0.0f, a2 = 0.0f;
        oldComputePointAtAnglesWyWz(d, a1, a2);
        ASSERT_TRUE(within(0, a1) && within(1, a2)) << target << " a1 " << a1 << " a2 " << a2;
        Position3D p = pinv(upperArmPose(*arm, a1, a2)) * target;
        for (float* c : {&p.x, &p.y, &p.z}) {
          if (std::fabs(*c) < 0.001f)
            *c = 0.0f;
        }
        const float a4 = std::atan2(p.y, p.x);
        float a3 = std::atan2(p.z, p.y);
        if (arm->name == "LArm")
          a3 = p.z >= 0.0f ? a3 - kPi : a3 + kPi;
        ASSERT_TRUE(within(2, a3) && within(3, a4)) << target << " a3 " << a3 << " a4 " << a4;
        ASSERT_LT(aimError(forearmPose(*arm, a1, a2, a3, a4), target), 1e-3f) << target;
      }
    }
  }
}

// ---- forward kinematics -----------------------------------------------------------------

// Quarter turns of each joint on a small made-up chain, the poses worked out by hand: a
// head turning about (0, 0, 0.5) with a sensor 0.1 m ahead and 0.05 m up, and an arm whose
// shoulder is at (0, 0.1, 0) with a 0.1 m upper arm.
TEST(Kinematics, ChainsGiveTheHandComputedPoses) {
  TrackerHead head("Head");
  head.headPosition = {0, 0, 0.5f};
  head.effectorTransforms[1] = Transform::fromPosition(0.1f, 0, 0.05f);
  TrackerArm arm("LArm");
  arm.shoulderPosition = {0, 0.1f, 0};
  arm.armTransform = Transform::fromPosition(0.1f, 0, 0);

  struct Case {
    const char* what;
    Transform pose;
    Position3D origin, xAxis, zAxis;
  };
  const float q = kPi2;
  const Case cases[] = {
      {"head at rest", headEffectorPose(head, 1, 0, 0), {0.1f, 0, 0.55f}, {1, 0, 0}, {0, 0, 1}},
      {"head yaw left", headEffectorPose(head, 1, q, 0), {0, 0.1f, 0.55f}, {0, 1, 0}, {0, 0, 1}},
      {"head pitch down", headEffectorPose(head, 1, 0, q), {0.05f, 0, 0.4f}, {0, 0, -1}, {1, 0, 0}},
      {"neck only", headNeckPose(head, q, 0), {0, 0, 0.5f}, {0, 1, 0}, {0, 0, 1}},
      {"unknown effector", headEffectorPose(head, 5, 0, 0), {0, 0, 0.5f}, {1, 0, 0}, {0, 0, 1}},
      {"arm at rest", forearmPose(arm, 0, 0, 0, 0), {0.1f, 0.1f, 0}, {1, 0, 0}, {0, 0, 1}},
      {"shoulder pitch", forearmPose(arm, q, 0, 0, 0), {0, 0.1f, -0.1f}, {0, 0, -1}, {1, 0, 0}},
      {"shoulder roll", forearmPose(arm, 0, q, 0, 0), {0, 0.2f, 0}, {0, 1, 0}, {0, 0, 1}},
      {"elbow yaw", forearmPose(arm, 0, 0, q, 0), {0.1f, 0.1f, 0}, {1, 0, 0}, {0, -1, 0}},
      // Rz(elbow roll) comes before Rx(elbow yaw): the yaw turns about the rolled forearm.
      {"elbow roll, yaw", forearmPose(arm, 0, 0, q, q), {0.1f, 0.1f, 0}, {0, 1, 0}, {1, 0, 0}},
      {"upper arm", upperArmPose(arm, 0, q), {0, 0.2f, 0}, {0, 1, 0}, {0, 0, 1}},
  };
  for (const Case& c : cases) {
    EXPECT_LT(distance(c.pose.translation(), c.origin), 1e-6f) << c.what;
    EXPECT_LT(distance(c.pose.xAxis(), c.xAxis), 1e-6f) << c.what;
    EXPECT_LT(distance(c.pose.zAxis(), c.zAxis), 1e-6f) << c.what;
  }
  TrackerArmAngle remembered;
  remembered.angles = {0.3f, -0.2f, 1.1f, 0.7f, 9.0f};  // the wrist does not move the forearm
  EXPECT_EQ(forearmPose(arm, remembered), forearmPose(arm, 0.3f, -0.2f, 1.1f, 0.7f));
}

// ---- malformed descriptions -------------------------------------------------------------

// A small valid description; each case below breaks one thing in it.
const char* const kBase = R"(<robot name="Test" type="0" canLookBehind="true" canPointAt="true">
  <torso height="0.3"/>
  <camera horizontalFov="1" verticalFov="0.8" range="3"/>
  <wholeBody pitchMin="-0.4" pitchMax="0.4" yawMin="-2" yawMax="2" lookAtHeight="0.5"/>
  <head position="0 0 0.1">
    <joint role="yaw" name="HeadYaw" min="-2" max="2" maxVelocity="7"/>
    <joint role="pitch" name="HeadPitch" min="-0.6" max="0.5" maxVelocity="6"/>
    <effector role="cameraTop" position="0.05 0 0.07"/>
    <effector role="cameraBottom" position="0.05 0 0.02" rpy="0 0.6 0"/>
    <effector role="depthCamera" position="0.05 0 0.05" rpy="0 0.2 0"/>
  </head>
  <arm side="left">
    <shoulder position="0 0.1 0.1"/>
    <upperArm position="0.1 0.01 0"/>
    <joint role="shoulderPitch" name="LShoulderPitch" min="-2" max="2" maxVelocity="7"/>
    <joint role="shoulderRoll" name="LShoulderRoll" min="-1" max="1.3" maxVelocity="7"/>
    <joint role="elbowYaw" name="LElbowYaw" min="-2" max="2" maxVelocity="7"/>
    <joint role="elbowRoll" name="LElbowRoll" min="-1.5" max="0" maxVelocity="7"/>
    <joint role="wristYaw" name="LWristYaw" min="-1.8" max="1.8" maxVelocity="9"/>
  </arm>
  <arm side="right">
    <shoulder position="0 -0.1 0.1"/>
    <upperArm position="0.1 -0.01 0"/>
    <joint role="shoulderPitch" name="RShoulderPitch" min="-2" max="2" maxVelocity="7"/>
    <joint role="shoulderRoll" name="RShoulderRoll" min="-1.3" max="1" maxVelocity="7"/>
    <joint role="elbowYaw" name="RElbowYaw" min="-2" max="2" maxVelocity="7"/>
    <joint role="elbowRoll" name="RElbowRoll" min="0" max="1.5" maxVelocity="7"/>
  </arm>
</robot>
)";

// The base description with its first `from` replaced by `to`.
std::string edited(const std::string& from, const std::string& to, std::string text = kBase) {
  return krtest::replaced(std::move(text), from, to);
}

// The base description without its text from `from` up to `until`.
std::string cut(const std::string& from, const std::string& until = "</robot>",
                std::string text = kBase) {
  const std::size_t at = text.find(from);
  return text.erase(at, text.find(until, at) - at);
}

TEST(RobotDescription, BaseIsValid) {
  const auto robot = ModelUtils::robotFromXml(kBase);
  EXPECT_EQ(robot->getName(), "Test");
  EXPECT_EQ(robot->getJoints().size(), 11u);
  const KRTrackerModel& m = robot->trackerModel();
  EXPECT_EQ(m.leftArm.joints[4].name, "LWristYaw");
  EXPECT_TRUE(m.rightArm.joints[4].name.empty());
  EXPECT_EQ(m.head.pitch.min, -0.6f);
  EXPECT_EQ(m.rightArm.shoulderPosition, Position3D(0, -0.1f, 0.1f));
  EXPECT_TRUE(m.head.effectorTransforms[1].isNear(
      transformFromPosition6D({0.05f, 0, 0.02f, 0, 0.6f, 0}), 1e-7f));
  EXPECT_EQ(m.wbLookAtHeight, 0.5f);
}

TEST(RobotDescription, MalformedDescriptionsNameTheProblemAndWhere) {
  const std::string longName(16, 'J');
  const struct {
    std::string xml;
    std::vector<std::string> expected;  // fragments of the error message
  } cases[] = {
      {"", {"bad XML at line 1", "No document element"}},
      {edited("  </head>", "  </heed>"), {"bad XML at line 11"}},
      {edited("</robot>", "</machine>", edited("<robot name", "<machine name")),
       {"machine (line 1): root element must be 'robot'"}},
      {std::string(kBase) + "<robot/>", {"robot (line 30)", "one root element"}},
      {edited("  <torso height=\"0.3\"/>\n", ""), {"robot (line 1): missing element 'torso'"}},
      {edited("<torso height=\"0.3\"/>", "<torso height=\"0.3\"/><torso height=\"0.3\"/>"),
       {"robot/torso (line 2): duplicate element 'torso'"}},
      {edited(" max=\"0.5\"", ""),
       {"robot/head/joint[role=pitch] (line 7): missing attribute 'max'"}},
      {edited("min=\"-0.6\"", "min=\"low\""),
       {"robot/head/joint[role=pitch] (line 7): attribute 'min' is not a number: 'low'"}},
      {edited("range=\"3\"", "range=\"3m\""),
       {"robot/camera (line 3): attribute 'range' is not a number: '3m'"}},
      {edited("height=\"0.3\"", "height=\"nan\""),
       {"robot/torso (line 2): attribute 'height' is not a number"}},
      {edited("height=\"0.3\"", "height=\"1e99\""),
       {"robot/torso (line 2): attribute 'height' is not a number"}},
      {edited("name=\"LElbowRoll\" min=\"-1.5\"", "name=\"LElbowRoll\" min=\"0.5\""),
       {"robot/arm[side=left]/joint[role=elbowRoll] (line 18): 'min' (0.5) is greater than "
        "'max' (0)"}},
      {edited("yawMin=\"-2\"", "yawMin=\"3\""),
       {"robot/wholeBody (line 4): 'yawMin' (3) is greater than 'yawMax' (2)"}},
      {edited("<head position=\"0 0 0.1\">", "<head position=\"0 0\">"),
       {"robot/head (line 5): attribute 'position' must hold 3 numbers, got 2"}},
      {edited("rpy=\"0 0.2 0\"", "rpy=\"0 0.2 0 1\""),
       {"robot/head/effector[role=depthCamera] (line 10)", "'rpy' must hold 3 numbers, got 4"}},
      {edited("position=\"0.1 -0.01 0\"", "position=\"0.1 -0.01 x\""),
       {"robot/arm[side=right]/upperArm (line 23)", "'position' is not a number: 'x'"}},
      {edited("role=\"elbowYaw\" name=\"RElbowYaw\"", "role=\"elbow\" name=\"RElbowYaw\""),
       {"robot/arm[side=right]/joint[role=elbow] (line 26): unknown role 'elbow'"}},
      {edited("role=\"elbowYaw\" name=\"RElbowYaw\"", "role=\"elbowRoll\" name=\"RElbowYaw\""),
       {"robot/arm[side=right]/joint[role=elbowRoll] (line 27): duplicate joint role "
        "'elbowRoll'"}},
      {cut("    <joint role=\"pitch\"", "    <effector"),
       {"robot/head (line 5): missing joint with role 'pitch'"}},
      {cut("    <effector role=\"depthCamera\"", "  </head>"),
       {"robot/head (line 5): missing effector with role 'depthCamera'"}},
      {edited("  </head>", "  </head>\n  <leg/>"), {"robot/leg (line 12): unknown element 'leg'"}},
      {edited("max=\"1.8\" maxVelocity=\"9\"", "max=\"1.8\" maxVelocty=\"9\""),
       {"robot/arm[side=left]/joint[role=wristYaw] (line 19): unknown attribute 'maxVelocty'"}},
      {edited("name=\"HeadYaw\"", "name=\"" + longName + "\""),
       {"robot/head/joint[role=yaw] (line 6): joint name '" + longName + "'", "1 to 15"}},
      {edited("name=\"RElbowYaw\"", "name=\"LElbowYaw\""),
       {"robot/arm[side=right]/joint[role=elbowYaw] (line 26)", "'LElbowYaw' is used twice"}},
      {edited("type=\"0\"", "type=\"2\""), {"robot (line 1)", "'type' must be 0", "got '2'"}},
      {edited("canLookBehind=\"true\"", "canLookBehind=\"yes\""),
       {"robot (line 1): attribute 'canLookBehind' must be 'true' or 'false', got 'yes'"}},
      {edited("maxVelocity=\"7\"", "maxVelocity=\"0\""),
       {"robot/head/joint[role=yaw] (line 6): attribute 'maxVelocity' must be positive, got 0"}},
      {edited("<arm side=\"right\">", "<arm side=\"middle\">"),
       {"robot/arm[side=middle] (line 21)", "'side' must be 'left' or 'right', got 'middle'"}},
      {edited("<arm side=\"right\">", "<arm side=\"left\">"),
       {"robot/arm[side=left] (line 21): duplicate arm side 'left'"}},
      {edited("<torso height=\"0.3\"/>", "<torso height=\"0.3\">tall</torso>"),
       {"robot/torso (line 2): unexpected text 'tall'"}},
      {edited("<shoulder position=\"0 0.1 0.1\"/>", ""),
       {"robot/arm[side=left] (line 12): missing element 'shoulder'"}},
      {cut("  <arm side=\"right\">"), {"robot (line 1): missing element 'arm' with side 'right'"}},
      {edited("<head position=\"0 0 0.1\">", "<head position=\"0 0 0.1\" yawToPitch=\"0.07 0\">"),
       {"robot/head (line 5): attribute 'yawToPitch' must hold 3 numbers, got 2"}},
      {edited("rpy=\"0 0.2 0\"", "rpy=\"0 0.2 0\" range=\"-1\""),
       {"robot/head/effector[role=depthCamera] (line 10): attribute 'range' must be positive"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.expected.front());
    const KR::KRError e = krtest::krErrorOf([&] { ModelUtils::robotFromXml(c.xml); });
    EXPECT_EQ(e.module(), "ModelUtils");
    EXPECT_EQ(e.method(), "robotFromXml");
    for (const std::string& fragment : c.expected) {
      EXPECT_NE(e.message().find(fragment), std::string::npos)
          << "'" << fragment << "' not in: " << e.message();
    }
  }
}

TEST(RobotDescription, HeadOffsetAndCamerasOfTheirOwn) {
  // The pitch joint 7 cm in front of the yaw axis; the depth camera's own field of view.
  const auto robot = ModelUtils::robotFromXml(
      edited("rpy=\"0 0.2 0\"", "rpy=\"0 0.2 0\" horizontalFov=\"1.5\" range=\"4\"",
             edited("<head position=\"0 0 0.1\">",
                    "<head position=\"0 0 0.1\" yawToPitch=\"0.07 0 0.05\">")));
  EXPECT_EQ(robot->trackerModel().head.yawToPitch, Position3D(0.07f, 0, 0.05f));
  EXPECT_EQ(robot->getCameraHorizontalFov(2), 1.5f);
  EXPECT_EQ(robot->getCameraRange(2), 4.0f);
  EXPECT_EQ(robot->getCameraVerticalFov(2), robot->getCameraVerticalFov());
  EXPECT_EQ(robot->getCameraHorizontalFov(0), robot->getCameraHorizontalFov());
  EXPECT_EQ(robot->getCameraHorizontalFov(7), robot->getCameraHorizontalFov());
  // Without the attribute the head is as before: the axes meet.
  EXPECT_EQ(ModelUtils::robotFromXml(kBase)->trackerModel().head.yawToPitch, Position3D());
}

// robotToXml writes every field; robotFromXml reads it back to the same robot.
TEST(RobotDescription, WrittenAsXmlReadsBackTheSame) {
  for (const char* file : {"kibo.xml", "rover.xml"}) {
    SCOPED_TRACE(file);
    const auto robot = krtest::loadRobot(file);
    const std::string xml = ModelUtils::robotToXml(*robot);
    krtest::expectSameRobot(*robot, *ModelUtils::robotFromXml(xml), 0.0f, 1e-7f);
  }
  const auto robot = ModelUtils::robotFromXml(cut(
      "  <arm side=\"left\">", "</robot>", edited("canPointAt=\"true\"", "canPointAt=\"false\"")));
  krtest::expectSameRobot(*robot, *ModelUtils::robotFromXml(ModelUtils::robotToXml(*robot)), 0.0f,
                          1e-7f);
}

TEST(RobotDescription, ArmsAreRequiredOnlyToPoint) {
  const auto robot = ModelUtils::robotFromXml(cut(
      "  <arm side=\"left\">", "</robot>", edited("canPointAt=\"true\"", "canPointAt=\"false\"")));
  EXPECT_FALSE(robot->canPointAt());
  EXPECT_EQ(robot->getJoints().size(), 2u);
  EXPECT_TRUE(robot->trackerModel().leftArm.joints[0].name.empty());
}

TEST(RobotDescription, FromFileNamesTheFile) {
  const std::string missing = ::testing::TempDir() + "/no_such_robot.xml";
  KR::KRError e = krtest::krErrorOf([&] { ModelUtils::robotFromFile(missing); });
  EXPECT_EQ(e.method(), "robotFromFile");
  EXPECT_NE(e.message().find(missing), std::string::npos) << e.message();

  const std::string path = ::testing::TempDir() + "/broken_robot.xml";
  std::ofstream(path) << edited("min=\"-0.6\"", "min=\"?\"");
  e = krtest::krErrorOf([&] { ModelUtils::robotFromFile(path); });
  std::remove(path.c_str());
  EXPECT_EQ(e.method(), "robotFromFile");
  EXPECT_EQ(e.message().rfind(path + ": robot/head/joint[role=pitch] (line 7)", 0), 0u)
      << e.message();

  EXPECT_EQ(ModelUtils::robotFromFile(std::string(KRTRACKER_ROBOTS_DIR) + "/kibo.xml")->getName(),
            "Kibo");
}

}  // namespace
