#pragma once
// The tracker's view of the robot: the head chain, the two arm chains and the bounds of the
// whole-body look-at. Filled once from a robot description, then only read. Plain values.

#include <array>
#include <string>

#include <kr/math/math.h>

namespace KR {
namespace Model {

/// What the head looks with; indexes the head's neck-to-effector transforms.
enum TRACK_EFFECTOR : int {
  TRACK_EFFECTOR_CAMERA_TOP = 0,
  TRACK_EFFECTOR_CAMERA_BOTTOM = 1,
  TRACK_EFFECTOR_DEPTH_CAMERA = 2,  // the tilted sensor the whole-body look-at corrects for
};
constexpr int kTrackEffectorCount = 3;

/// One joint. An empty name means the robot has no such joint; the wide default limits
/// never clip an angle.
struct TrackerJoint {
  std::string name;
  float min = -Math::k2Pi;   // [rad]
  float max = Math::k2Pi;    // [rad]
  float maxVelocity = 0.0f;  // [rad/s]
};

class TrackerHead {
 public:
  explicit TrackerHead(std::string pName) : name(std::move(pName)) {}

  /// Neck-to-effector transform of the given effector (identity for values outside 0..2).
  const Math::Transform& getNeckToEffectorTransform(int effector) const {
    static const Math::Transform kIdentity;
    return (effector >= 0 && effector < kTrackEffectorCount) ? effectorTransforms[effector]
                                                             : kIdentity;
  }

  std::string name;
  TrackerJoint yaw;    // first in every name/angle list of the head
  TrackerJoint pitch;  // second
  /// The point about which the head turns (on the yaw axis), in the torso frame [m].
  Math::Position3D headPosition;
  /// The pitch joint's position from the yaw joint, in the frame turned by yaw [m]: zero when
  /// the pitch axis crosses the yaw axis at headPosition; a pan-tilt head's tilt joint a few
  /// centimetres forward has x > 0.
  Math::Position3D yawToPitch;
  std::array<Math::Transform, kTrackEffectorCount> effectorTransforms{};
};

class TrackerArm {
 public:
  explicit TrackerArm(std::string pName) : name(std::move(pName)) {}

  std::string name;  // "LArm" or "RArm"
  /// Shoulder in the torso frame [m].
  Math::Position3D shoulderPosition;
  /// Shoulder joints' frame to the elbow frame (upper arm).
  Math::Transform armTransform;
  /// Shoulder pitch, shoulder roll, elbow yaw, elbow roll, wrist yaw.
  std::array<TrackerJoint, 5> joints{};
};

struct KRTrackerModel {
  float wbPitchMin = 0.0f;      // [rad]
  float wbPitchMax = 0.0f;      // [rad]
  float wbYawMin = 0.0f;        // [rad]
  float wbYawMax = 0.0f;        // [rad]
  float wbLookAtHeight = 0.0f;  // [m], subtracted from the target's z
  TrackerHead head{"Head"};
  TrackerArm leftArm{"LArm"};
  TrackerArm rightArm{"RArm"};
};

/// Last commanded head angles, kept by the caller between calls.
struct TrackerHeadAngle {
  std::string name;
  float yaw = 0.0f;
  float pitch = 0.0f;
};

/// Last commanded arm angles, in chain order.
struct TrackerArmAngle {
  std::string name;
  std::array<float, 5> angles{};
};

}  // namespace Model
}  // namespace KR
