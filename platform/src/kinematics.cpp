// Forward kinematics of the head and arm chains of the tracker model.

#include <kr/math/math.h>
#include <kr/model/kinematics.h>

namespace KR {
namespace Model {

Math::Transform headNeckPose(const TrackerHead& head, float yaw, float pitch) {
  if (head.yawToPitch == Math::Position3D()) {
    return Math::transformFromPosition3D(head.headPosition) * Math::Transform::fromRotZ(yaw) *
           Math::Transform::fromRotY(pitch);
  }
  return Math::transformFromPosition3D(head.headPosition) * Math::Transform::fromRotZ(yaw) *
         Math::transformFromPosition3D(head.yawToPitch) * Math::Transform::fromRotY(pitch);
}

Math::Transform headEffectorPose(const TrackerHead& head, int effector, float yaw, float pitch) {
  return headNeckPose(head, yaw, pitch) * head.getNeckToEffectorTransform(effector);
}

Math::Transform upperArmPose(const TrackerArm& arm, float a1, float a2) {
  return Math::transformFromPosition3D(arm.shoulderPosition) * Math::Transform::fromRotY(a1) *
         Math::Transform::fromRotZ(a2) * arm.armTransform;
}

Math::Transform forearmPose(const TrackerArm& arm, float a1, float a2, float a3, float a4) {
  return upperArmPose(arm, a1, a2) * Math::Transform::fromRotZ(a4) * Math::Transform::fromRotX(a3);
}

Math::Transform forearmPose(const TrackerArm& arm, const TrackerArmAngle& angles) {
  const auto& a = angles.angles;
  return forearmPose(arm, a[0], a[1], a[2], a[3]);
}

}  // namespace Model
}  // namespace KR
