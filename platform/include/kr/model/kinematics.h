#pragma once
// Forward kinematics of the tracker model's chains: model in, joint angles in, frame out.
// Poses are expressed in the torso frame; the x axis of each resulting frame is the line of
// sight of a head effector or the pointing direction of a forearm.
//   head effector e:  Translation(headPosition) * Rz(yaw) * Translation(yawToPitch) * Ry(pitch)
//                     * neckToEffector(e)
//   forearm:          Translation(shoulder) * Ry(a1) * Rz(a2) * armTransform * Rz(a4) * Rx(a3)
// with a1..a4 the shoulder pitch, shoulder roll, elbow yaw and elbow roll (the arm's first four
// joints in chain order).

#include <kr/math/types.h>
#include <kr/model/trackermodel.h>

namespace KR {
namespace Model {

/// Pose of the neck, the pitch joint's frame (the head turned by yaw and pitch, no effector
/// offset).
Math::Transform headNeckPose(const TrackerHead& head, float yaw, float pitch);

/// Pose of a head effector (TRACK_EFFECTOR value 0..2) for the given head angles.
Math::Transform headEffectorPose(const TrackerHead& head, int effector, float yaw, float pitch);

/// Pose of the frame at the end of the upper arm for the shoulder angles a1 (pitch), a2 (roll).
Math::Transform upperArmPose(const TrackerArm& arm, float a1, float a2);

/// Pose of the forearm for the angles a1..a4 in chain order.
Math::Transform forearmPose(const TrackerArm& arm, float a1, float a2, float a3, float a4);
/// The same from a remembered command (its first four angles).
Math::Transform forearmPose(const TrackerArm& arm, const TrackerArmAngle& angles);

}  // namespace Model
}  // namespace KR
