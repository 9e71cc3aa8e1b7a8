#pragma once
// Internal to the platform: what a robot description says, gathered before anything is handed
// out. The XML reader and the URDF import both fill one and only then make the Robot, whose
// fields are private, of it.

#include <array>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include <kr/model/robot.h>

namespace KR {
namespace Model {

struct RobotParts {
  std::string name;
  int type = 0;
  bool canLookBehind = false;
  bool canPointAt = false;
  float torsoHeight = 0.0f;
  // Each effector's camera: horizontal and vertical field of view, range.
  std::array<std::array<float, 3>, kTrackEffectorCount> cameras{};
  float torsoMass = Robot().getTorsoMass();
  float headMass = Robot().getHeadMass();
  std::array<float, 2> armMass{Robot().getArmMass("LArm"), Robot().getArmMass("RArm")};
  std::map<std::string, JointServo> servos;
  KRTrackerModel model;
  std::map<std::string, TrackerJoint> joints;

  /// The Robot of these parts, which are moved into it.
  std::unique_ptr<Robot> takeRobot() {
    auto robot = std::make_unique<Robot>();
    robot->fName = std::move(name);
    robot->fType = type;
    robot->fCanLookBehind = canLookBehind;
    robot->fCanPointAt = canPointAt;
    robot->fTorsoHeight = torsoHeight;
    for (int i = 0; i < kTrackEffectorCount; ++i) {
      robot->fCameras[i] = {cameras[i][0], cameras[i][1], cameras[i][2]};
    }
    robot->fTorsoMass = torsoMass;
    robot->fHeadMass = headMass;
    robot->fArmMass = armMass;
    robot->fServos = std::move(servos);
    robot->fModel = std::move(model);
    robot->fJoints = std::move(joints);
    return robot;
  }
};

}  // namespace Model
}  // namespace KR
