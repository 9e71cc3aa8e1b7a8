#pragma once
// A robot description: geometry, joints and capabilities, as read by ModelUtils::robotFromXml.

#include <map>
#include <string>
#include <vector>

#include <kr/math/math.h>
#include <kr/model/trackermodel.h>

namespace KR {
namespace Model {

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
  /// Horizontal and vertical field of view of each head effector's camera [rad]; range [m].
  float getCameraHorizontalFov() const { return fCameraHFov; }
  float getCameraVerticalFov() const { return fCameraVFov; }
  float getCameraRange() const { return fCameraRange; }

 private:
  friend class ModelUtils;
  std::string fName;
  int fType = 0;
  bool fCanLookBehind = true;
  bool fCanPointAt = true;
  float fTorsoHeight = 0.0f;
  float fCameraHFov = 1.0f;
  float fCameraVFov = 0.8f;
  float fCameraRange = 5.0f;
  KRTrackerModel fModel;
  std::map<std::string, TrackerJoint> fJoints;
};

}  // namespace Model
}  // namespace KR
