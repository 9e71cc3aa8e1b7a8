#include <krsim/robot/physics/kinematic.h>

#include <algorithm>
#include <cmath>

#include <kr/error.h>

#include <krsim/robot/base_controller.h>

namespace KR {
namespace Sim {

KinematicBackend::KinematicBackend(std::size_t jointCount, ServoModel servo)
    : fServo(servo), fJoints(jointCount) {}

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
  fJoints[joint].received = {target, maxSpeed};
  if (!fServo.commandDelay)
    fJoints[joint].active = fJoints[joint].received;
}

void KinematicBackend::setBaseVelocity(const Math::Pose2D& velocity) {
  fBaseVelocity = velocity;
}

void KinematicBackend::step(double dt) {
  const float fdt = static_cast<float>(dt);
  fBase =
      displace(fBase, {fBaseVelocity.x * fdt, fBaseVelocity.y * fdt, fBaseVelocity.theta * fdt});
  const float lag = fServo.lagTime > 0.0f ? 1.0f - std::exp(-fdt / fServo.lagTime) : 1.0f;
  const float accel = fServo.acceleration;
  for (auto& j : fJoints) {
    const float error = j.active.target - j.reference;
    const float maxSpeed = std::max(0.0f, j.active.maxSpeed);
    if (accel <= 0.0f) {
      // No acceleration limit: at the commanded speed at once.
      const float move = std::clamp(error, -maxSpeed * fdt, maxSpeed * fdt);
      j.reference += move;
      j.speed = fdt > 0.0f ? move / fdt : 0.0f;
    } else {
      // The speed that still brakes to rest on the target, reached within the acceleration.
      const float braking = brakingSpeed(std::fabs(error), accel, fdt);
      const float wanted = std::copysign(std::min(maxSpeed, braking), error);
      j.speed += std::clamp(wanted - j.speed, -accel * fdt, accel * fdt);
      const float move = j.speed * fdt;
      if (std::fabs(move) >= std::fabs(error) && move * error >= 0.0f) {
        j.reference = j.active.target;  // arrives within this step
        j.speed = 0.0f;
      } else {
        j.reference += move;
      }
    }
    const float before = j.angle;
    j.angle += (j.reference - j.angle) * lag;
    j.velocity = fdt > 0.0f ? (j.angle - before) / fdt : 0.0f;
    j.active = j.received;
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
  fJoints[joint] = {angle, 0.0f, angle, 0.0f, {angle, 0.0f}, {angle, 0.0f}};
}

void KinematicBackend::resetBase(const Math::Pose2D& mapPose) {
  fBase = mapPose;
  fBaseVelocity = {};
}

}  // namespace Sim
}  // namespace KR
