// The MuJoCo backend's own behaviour: the model built from each description, its cameras
// where the motion service puts the head effectors, the faults a user meets (a description
// MuJoCo rejects, a simulation that goes unstable), every scenario end to end on it. What it
// shares with the kinematic backend is in backend_test.cpp; the pictures drawn from its model
// are in tests/sim/report/pictures_test.cpp.

#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <fstream>

#include <gmock/gmock.h>

#include <mujoco/mujoco.h>

#include <kr/error.h>
#include <krsim/robot/physics/mujoco_urdf.h>

#include "sim/helpers.h"

namespace {

using namespace krtest;
using testing::AllOf;
using testing::HasSubstr;

TEST(MujocoModel, EachDescriptionBecomesAModelWithItsJointsServosCamerasAndTargets) {
  for (const std::string file : {"kibo.xml", "rover.xml"}) {
    SCOPED_TRACE(file);
    const auto robot = loadRobot(file);
    const std::string xml = KR::Sim::mujocoModelXml(*robot);
    for (const auto& entry : robot->getJoints()) {
      const auto& j = entry.second;
      const auto servo = robot->getServo(j.name);
      // The joint with its range, and a position servo with the description's gain and torque.
      EXPECT_THAT(xml, HasSubstr("<joint name=\"" + j.name + "\""));
      std::ostringstream actuator;
      actuator << "<position name=\"" << j.name << "\" joint=\"" << j.name << "\" kp=\""
               << servo.stiffness << "\" forcelimited=\"true\" forcerange=\"" << -servo.maxTorque
               << " " << servo.maxTorque << "\"";
      EXPECT_THAT(xml, HasSubstr(actuator.str()));
    }
    EXPECT_THAT(xml,
                AllOf(HasSubstr("name=\"CameraTop\""), HasSubstr("name=\"DepthCamera\""),
                      HasSubstr("gravity=\"0 0 -9.81\""), HasSubstr("<velocity name=\"BaseYaw\""),
                      HasSubstr("name=\"Target3\" mocap=\"true\"")));
    EXPECT_EQ(xml.find("Target4"), std::string::npos);
  }

  // The physical fields of the description: given in rover.xml, defaults in their absence.
  const auto rover = loadRobot("rover.xml");
  EXPECT_FLOAT_EQ(rover->getTorsoMass(), 28.0f);
  EXPECT_FLOAT_EQ(rover->getArmMass("RArm"), 1.6f);
  EXPECT_FLOAT_EQ(rover->getServo("HeadPitch").stiffness, 60.0f);
  const auto plain = loadRobot("kibo.xml");
  EXPECT_FLOAT_EQ(plain->getHeadMass(), KR::Model::Robot().getHeadMass());
  EXPECT_FLOAT_EQ(plain->getServo("HeadYaw").maxTorque, KR::Model::JointServo().maxTorque);
  EXPECT_THAT(
      [] { loadRobot("kibo.xml", "maxVelocity=\"7.3\"", "maxVelocity=\"7.3\" maxTorque=\"-1\""); },
      testing::ThrowsMessage<KR::KRError>(
          AllOf(HasSubstr("joint[role=yaw]"), HasSubstr("'maxTorque' must be positive"))));
}

// The model's cameras against the motion service's head effectors, the base moved and the head
// at three poses; `forward` runs MuJoCo's kinematics once the joints are set.
void expectCamerasAtTheHeadEffectors(const KR::Model::Robot& robot, MujocoBackend& backend,
                                     bool forward) {
  const auto& head = robot.trackerModel().head;
  SimMotion motion(robot, std::make_shared<SimClock>());
  const Pose2D base{0.4f, -1.2f, 2.5f};
  motion.resetPose(base);
  backend.resetBase(base);
  for (const auto& angles : {std::pair<float, float>{0.0f, 0.0f}, {1.1f, -0.4f}, {-1.8f, 0.3f}}) {
    motion.setAngleNow(head.yaw.name, angles.first);
    motion.setAngleNow(head.pitch.name, angles.second);
    backend.resetJoint(0, angles.first);
    backend.resetJoint(1, angles.second);
    if (forward)
      backend.forward();
    for (int e = 0; e < KR::Model::kTrackEffectorCount; ++e) {
      EXPECT_TRUE(backend.effectorPose(e).isNear(motion.getMapToHeadEffector(e), 1e-4f))
          << "effector " << e << " yaw " << angles.first << "\n"
          << backend.effectorPose(e) << "\n"
          << motion.getMapToHeadEffector(e);
    }
  }
}

TEST(MujocoModel, CamerasSitWhereTheMotionServiceComputesTheHeadEffectors) {
  for (const std::string file : {"kibo.xml", "rover.xml"}) {
    SCOPED_TRACE(file);
    const auto robot = loadRobot(file);
    MujocoBackend backend(*robot);
    expectCamerasAtTheHeadEffectors(*robot, backend, false);
  }
}

// The URDF robots' MuJoCo model is built from the URDF itself: its cameras sit where the motion
// service computes the head effectors from the tracker's model, pan-tilt offset included.
TEST(MujocoUrdfModel, CamerasSitWhereTheMotionServiceComputesTheHeadEffectors) {
  for (const std::string name : {"kibo.yaml", "rover.yaml", "lumen.yaml"}) {
    SCOPED_TRACE(name);
    const auto description = KR::Sim::RobotDescription::load(name);
    ASSERT_TRUE(description->urdf);
    MujocoBackend backend(*description->robot, description->urdf.get());
    expectCamerasAtTheHeadEffectors(*description->robot, backend, true);
  }
}

// A binary STL tetrahedron of 10 cm.
void writeTetrahedron(const std::string& path) {
  std::ofstream out(path, std::ios::binary);
  const char header[80] = {};
  out.write(header, sizeof header);
  const std::uint32_t count = 4;
  out.write(reinterpret_cast<const char*>(&count), sizeof count);
  const float v[4][3] = {{0, 0, 0}, {0.1f, 0, 0}, {0, 0.1f, 0}, {0, 0, 0.1f}};
  const int faces[4][3] = {{0, 2, 1}, {0, 1, 3}, {0, 3, 2}, {1, 2, 3}};
  for (const auto& f : faces) {
    const float normal[3] = {0, 0, 0};
    out.write(reinterpret_cast<const char*>(normal), sizeof normal);
    for (int k : f)
      out.write(reinterpret_cast<const char*>(v[k]), 3 * sizeof(float));
    const std::uint16_t attribute = 0;
    out.write(reinterpret_cast<const char*>(&attribute), sizeof attribute);
  }
}

TEST(MujocoUrdfModel, MeshesFoundBesideTheUrdfAreDrawnAndMissingOnesReplaced) {
  // lumen.urdf in a package of its own whose base mesh exists; the others stay missing.
  const std::string root = testing::TempDir() + "/krtracker_lumen_pkg";
  for (const std::string& d : {root, root + "/urdf", root + "/meshes"})
    ::mkdir(d.c_str(), 0755);
  writeTetrahedron(root + "/meshes/base_link.stl");
  std::ofstream(root + "/urdf/lumen.urdf") << readRobotFile("lumen.urdf");
  std::ofstream(root + "/urdf/lumen.yaml") << readRobotFile("lumen.yaml");
  const auto description = KR::Sim::RobotDescription::load(root + "/urdf/lumen.yaml");
  ASSERT_TRUE(description->urdf);
  EXPECT_EQ(description->urdf->missingMeshes.size(), 4u);
  const auto model = KR::Sim::mujocoModelFromUrdf(*description->robot, *description->urdf);
  ASSERT_EQ(model.meshFiles.size(), 1u);
  EXPECT_EQ(model.meshFiles.begin()->second, root + "/urdf/../meshes/base_link.stl");
  MujocoBackend backend(*description->robot, description->urdf.get());
  EXPECT_EQ(backend.model()->nmesh, 1);
  // Every link is a body, fixed ones included (the cameras' frames among them), but for the
  // massless ones that move, carried by the body below them: here the root, base_footprint,
  // and base_link, which the planar base carries.
  EXPECT_LT(mj_name2id(backend.model(), mjOBJ_BODY, "base_link"), 0);
  for (const char* link :
       {"laser_link", "caster_link", "torso_lift_link", "head_pan_link", "head_tilt_link",
        "head_camera_optical_frame", "head_wide_link", "l_wheel_link"}) {
    EXPECT_GE(mj_name2id(backend.model(), mjOBJ_BODY, link), 0) << link;
  }
  // Only the head's joints and the base's move: the wheels and the lift are held.
  EXPECT_EQ(backend.model()->njnt, 5);
}

TEST(MujocoFaults, ARejectedDescriptionNamesTheRobotAndTheField) {
  // Positive, so the description parses, but below what MuJoCo accepts for a moving body.
  const auto robot =
      loadRobot("kibo.xml", "<arm side=\"left\">", "<arm side=\"left\" mass=\"1e-30\">");
  EXPECT_THAT([&] { MujocoBackend backend(*robot); },
              testing::ThrowsMessage<KR::KRError>(AllOf(HasSubstr("robot \"Kibo\""),
                                                        HasSubstr("robot/arm[side=left] (mass)"),
                                                        HasSubstr("mass and inertia"))));
  // Nor does a simulation of such a description start.
  KR::Sim::SimulationConfig config;
  config.robot = KR::Sim::RobotDescription::fromText(
      replaced(readRobotFile("kibo.xml"), "<head ", "<head mass=\"1e-30\" "));
  config.physics = "mujoco";
  EXPECT_THROW(Simulation{config}, KR::KRError);
}

TEST(MujocoFaults, AnUnstableSimulationStopsWithAnErrorInsteadOfReportingFigures) {
  // A servo far too stiff for its inertia at this physics step: explicit integration diverges.
  const auto robot =
      loadRobot("kibo.xml", "maxVelocity=\"7.3\"",
                "maxVelocity=\"7.3\" stiffness=\"1e7\" maxTorque=\"1e7\" armature=\"1e-6\"");
  MujocoBackend backend(*robot);
  backend.setJointTarget(0, 1.0f, 5.0f);
  EXPECT_THAT(
      [&] {
        for (int k = 0; k < 100; ++k)
          backend.step(0.01);
      },
      testing::ThrowsMessage<KR::KRError>(
          AllOf(HasSubstr("robot \"Kibo\" became unstable"),
                testing::ContainsRegex("HeadYaw at .* far outside its range|non-finite"))));
}

std::unique_ptr<ScenarioRun> playScenario(const std::string& name, const std::string& physics) {
  KR::Sim::SimulationConfig config;
  config.noise = 0.005f;
  config.physics = physics;
  config.modules = &KR::Sim::createTrackerModules;
  auto run = std::make_unique<ScenarioRun>(KR::Sim::makeScenario(name, {}), config);
  run->runToEnd();
  return run;
}

// Every built-in scenario on MuJoCo beside the kinematic robot (about 1 s of CPU in all): the
// tracker acquires what it acquires there and follows as closely, although its servos now
// fight gravity and inertia.
TEST(MujocoEndToEnd, EveryScenarioTracksOnThePhysicsRobotAsOnTheKinematicOne) {
  for (const auto& info : KR::Sim::listScenarios()) {
    const auto kinematic = playScenario(info.name, "kinematic");
    const auto mujoco = playScenario(info.name, "mujoco");
    EXPECT_EQ(mujoco->simulation().motion().physicsName(), "mujoco");
    const auto expected = kinematic->summaries();
    const auto actual = mujoco->summaries();
    ASSERT_EQ(actual.size(), expected.size());
    for (std::size_t i = 0; i < actual.size(); ++i) {
      const auto& a = actual[i].measures;
      const auto& e = expected[i].measures;
      SCOPED_TRACE(info.name + ": " + a.name);
      EXPECT_EQ(a.timeToOnTargetS.has_value(), e.timeToOnTargetS.has_value());
      EXPECT_EQ(a.losRmsDeg.has_value(), e.losRmsDeg.has_value());
      if (a.losRmsDeg && e.losRmsDeg) {
        EXPECT_LE(*a.losRmsDeg, *e.losRmsDeg + 1.0);
        EXPECT_LE(*a.losMaxDeg, *e.losMaxDeg + 2.0);
      }
      EXPECT_EQ(a.armsRmsDeg.has_value(), e.armsRmsDeg.has_value());
      if (a.armsRmsDeg && e.armsRmsDeg) {
        EXPECT_LE(*a.armsRmsDeg, *e.armsRmsDeg + 1.5);
      }
    }
  }
}

}  // namespace
