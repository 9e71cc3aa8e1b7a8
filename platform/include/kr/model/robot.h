#pragma once
// A robot description: geometry, joints and capabilities, as read by ModelUtils::robotFromXml
// or, from a URDF and its mapping, by UrdfImport (kr/model/urdfimport.h).

#include <array>
#include <map>
#include <string>
#include <vector>

#include <kr/math/math.h>
#include <kr/model/trackermodel.h>

namespace KR {
namespace Model {

/// How a joint's position servo behaves on a physics engine (the tracker does not use it).
struct JointServo {
  float stiffness = 20.0f;  // position gain [N m/rad]
  float maxTorque = 3.0f;   // [N m]
  float armature = 0.005f;  // rotor inertia seen through the gearbox [kg m^2]
};

class Robot {
 public:
  Robot() = default;

  const std::string& getName() const { return fName; }
  /// 0: small humanoid; 1: wheeled humanoid that can navigate.
  int getRobotType() const { return fType; }
  bool canLookBehind() const { return fCanLookBehind; }
  bool canPointAt() const { return fCanPointAt; }

  /// Writes every field of the tracker model.
  void fillTrackerModel(KRTrackerModel& model) const { model = fModel; }
  const KRTrackerModel& trackerModel() const { return fModel; }

  /// Every joint of the robot (head and arms), by name.
  const std::map<std::string, TrackerJoint>& getJoints() const { return fJoints; }
  /// Height of the torso frame's origin above the robot frame's origin [m].
  float getTorsoHeight() const { return fTorsoHeight; }
  /// Horizontal and vertical field of view of a head effector's camera [rad] and its range [m]
  /// (effector 0, the top camera, by default; values outside 0..2 read effector 0).
  float getCameraHorizontalFov(int effector = 0) const { return fCameras[slot(effector)].hfov; }
  float getCameraVerticalFov(int effector = 0) const { return fCameras[slot(effector)].vfov; }
  float getCameraRange(int effector = 0) const { return fCameras[slot(effector)].range; }

  /// Masses [kg]: torso with legs or base (everything below the head and arms), head, and
  /// the arm of chain "LArm" or "RArm" (upper arm and forearm).
  float getTorsoMass() const { return fTorsoMass; }
  float getHeadMass() const { return fHeadMass; }
  float getArmMass(const std::string& arm) const { return fArmMass[arm == "RArm" ? 1 : 0]; }
  /// Servo of a joint of getJoints(); the defaults for an unknown name.
  JointServo getServo(const std::string& joint) const {
    const auto it = fServos.find(joint);
    return it == fServos.end() ? JointServo{} : it->second;
  }

 private:
  friend class ModelUtils;
  friend class UrdfImport;
  friend struct RobotParts;  // the readers' gathered description (src/robotparts.h)
  struct Camera {
    float hfov = 1.0f;
    float vfov = 0.8f;
    float range = 5.0f;
  };
  static int slot(int effector) {
    return effector >= 0 && effector < kTrackEffectorCount ? effector : 0;
  }
  std::string fName;
  int fType = 0;
  bool fCanLookBehind = true;
  bool fCanPointAt = true;
  float fTorsoHeight = 0.0f;
  std::array<Camera, kTrackEffectorCount> fCameras{};
  float fTorsoMass = 3.0f;
  float fHeadMass = 0.6f;
  std::array<float, 2> fArmMass{0.35f, 0.35f};  // left, right
  std::map<std::string, JointServo> fServos;
  KRTrackerModel fModel;
  std::map<std::string, TrackerJoint> fJoints;
};

}  // namespace Model
}  // namespace KR
