#include <krsim/kinematic.h>

#include <algorithm>

#include <kr/error.h>

#include <krsim/base.h>

namespace KR {
namespace Sim {

KinematicBackend::KinematicBackend(std::size_t jointCount) : fJoints(jointCount) {}

const KinematicBackend::Joint& KinematicBackend::xJoint(std::size_t joint) const {
  if (joint >= fJoints.size()) {
    throw KRError("KRMotion", "physics",
                  "no joint " + std::to_string(joint) + " (the robot has " +
                      std::to_string(fJoints.size()) + ")");
  }
  return fJoints[joint];
}

void KinematicBackend::setJointTarget(std::size_t joint, float target, float maxSpeed) {
  xJoint(joint);
  fJoints[joint].target = target;
  fJoints[joint].maxSpeed = maxSpeed;
}

void KinematicBackend::setBaseVelocity(const Math::Pose2D& velocity) {
  fBaseVelocity = velocity;
}

void KinematicBackend::step(double dt) {
  const float fdt = static_cast<float>(dt);
  fBase =
      displace(fBase, {fBaseVelocity.x * fdt, fBaseVelocity.y * fdt, fBaseVelocity.theta * fdt});
  for (auto& j : fJoints) {
    const float maxStep = j.maxSpeed * fdt;
    const float move = std::max(-maxStep, std::min(maxStep, j.target - j.angle));
    j.angle += move;
    j.velocity = fdt > 0.0f ? move / fdt : 0.0f;
  }
}

float KinematicBackend::jointAngle(std::size_t joint) const {
  return xJoint(joint).angle;
}

float KinematicBackend::jointVelocity(std::size_t joint) const {
  return xJoint(joint).velocity;
}

void KinematicBackend::resetJoint(std::size_t joint, float angle) {
  xJoint(joint);
  fJoints[joint] = {angle, 0.0f, angle, 0.0f};
}

void KinematicBackend::resetBase(const Math::Pose2D& mapPose) {
  fBase = mapPose;
  fBaseVelocity = {};
}

}  // namespace Sim
}  // namespace KR
