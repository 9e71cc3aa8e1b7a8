#include <krsim/robot/base_controller.h>

#include <algorithm>
#include <cmath>

#include <kr/error.h>
#include <kr/math/math.h>

namespace KR {
namespace Sim {

namespace {

constexpr float kGoalLinearTolerance = 0.001f;   // [m]
constexpr float kGoalAngularTolerance = 0.002f;  // [rad]
constexpr float kGazeTurnGain = 3.0f;            // [1/s]

float clampf(float v, float lo, float hi) {
  return std::max(lo, std::min(hi, v));
}

}  // namespace

BaseLimits BaseLimits::forRobotType(int type) {
  BaseLimits limits;
  if (type == 1) {
    limits.maxLinearSpeed = 0.45f;
    limits.maxAngularSpeed = 1.2f;
    limits.maxLinearAcceleration = 1.2f;
    limits.maxAngularAcceleration = 3.5f;
  }
  return limits;
}

float brakingSpeed(float distance, float acceleration, float dt) {
  // Speeds k * a * dt, k = n..1, cover a * dt^2 * n (n + 1) / 2: the largest n within distance.
  const float step = acceleration * dt * dt;
  if (!(step > 0.0f))
    return distance / dt;
  const float n = std::sqrt(0.25f + 2.0f * distance / step) - 0.5f;
  return std::max(n * acceleration * dt, 0.0f);
}

Math::Pose2D displace(const Math::Pose2D& pose, const Math::Pose2D& d) {
  const float mid = pose.theta + 0.5f * d.theta;
  return {pose.x + (d.x * std::cos(mid) - d.y * std::sin(mid)),
          pose.y + (d.x * std::sin(mid) + d.y * std::cos(mid)),
          Math::modulo2PI(pose.theta + d.theta)};
}

Math::Pose2D displacementBetween(const Math::Pose2D& from, const Math::Pose2D& to) {
  const float dtheta = Math::modulo2PI(to.theta - from.theta);
  const float mid = from.theta + 0.5f * dtheta;
  const float ex = to.x - from.x;
  const float ey = to.y - from.y;
  return {ex * std::cos(mid) + ey * std::sin(mid), -ex * std::sin(mid) + ey * std::cos(mid),
          dtheta};
}

void BaseController::moveTo(float x, float y, float theta) {
  const Math::Transform goal =
      Math::transformFromPose2D(fOdometry) * Math::transformFromPose2D({x, y, theta});
  fGoal = Math::pose2DFromTransform(goal);
  fGoal.theta = Math::modulo2PI(fOdometry.theta + theta);
  fMode = Mode::Goal;
}

void BaseController::move(float vx, float vy, float vtheta) {
  const float lin = fLimits.maxLinearSpeed;
  const float ang = fLimits.maxAngularSpeed;
  const float norm = std::hypot(vx, vy);
  const float scale = norm > lin ? lin / norm : 1.0f;
  fVelocity = {vx * scale, vy * scale, clampf(vtheta, -ang, ang)};
  fMode = (fVelocity.x == 0.0f && fVelocity.y == 0.0f && fVelocity.theta == 0.0f) ? Mode::Idle
                                                                                  : Mode::Velocity;
}

void BaseController::stop() {
  fMode = Mode::Idle;
  fVelocity = {};
}

Math::Pose2D BaseController::commandedVelocity() const {
  return fMode == Mode::Velocity ? fVelocity : Math::Pose2D();
}

void BaseController::lookAt(float pitch, float yaw, float fraction) {
  if (!Math::Validation::isFractionStrict(fraction)) {
    throw KRError("KRMotion", "_lookAtWb", "a speed fraction must lie in ]0, 1]");
  }
  const float base = fMode == Mode::Goal ? fGoal.theta : fOdometry.theta;
  fGaze = {true, Math::modulo2PI(base + yaw), pitch, fraction};
}

Math::Pose2D BaseController::plan(double dt) {
  const float fdt = static_cast<float>(dt);
  if (!(fdt > 0.0f))
    return {};
  Math::Pose2D wanted;  // robot frame [m/s, rad/s]
  if (fMode == Mode::Velocity)
    wanted = fVelocity;
  if (fMode == Mode::Goal) {
    const float ex = fGoal.x - fOdometry.x;
    const float ey = fGoal.y - fOdometry.y;
    const float et = Math::modulo2PI(fGoal.theta - fOdometry.theta);
    const float dist = std::hypot(ex, ey);
    if (dist >= kGoalLinearTolerance || std::fabs(et) >= kGoalAngularTolerance) {
      // As fast as the limits allow while still able to brake to rest on the goal.
      const float speed =
          std::min({fLimits.maxLinearSpeed, brakingSpeed(dist, fLimits.maxLinearAcceleration, fdt),
                    dist / fdt});
      const float turn = std::min({fLimits.maxAngularSpeed,
                                   brakingSpeed(std::fabs(et), fLimits.maxAngularAcceleration, fdt),
                                   std::fabs(et) / fdt});
      const float c = std::cos(fOdometry.theta);
      const float s = std::sin(fOdometry.theta);
      const float ux = dist > 0.0f ? ex / dist : 0.0f;
      const float uy = dist > 0.0f ? ey / dist : 0.0f;
      wanted = {speed * (c * ux + s * uy), speed * (-s * ux + c * uy), std::copysign(turn, et)};
    } else {
      fMode = Mode::Idle;
    }
  }
  if (fMode == Mode::Idle && fGaze.active) {
    // A whole-body gaze turns the base when the head would go beyond its comfort yaw.
    const float rel = Math::modulo2PI(fGaze.yaw - fOdometry.theta);
    const float excess = std::fabs(rel) - kComfortYaw;
    if (excess > 0.0f) {
      wanted.theta = std::copysign(std::min(fLimits.maxAngularSpeed, kGazeTurnGain * excess), rel);
    }
  }
  const float dv = fLimits.maxLinearAcceleration * fdt;
  const float dw = fLimits.maxAngularAcceleration * fdt;
  const float ax = wanted.x - fPlanned.x;
  const float ay = wanted.y - fPlanned.y;
  const float change = std::hypot(ax, ay);
  const float scale = change > dv ? dv / change : 1.0f;
  fPlanned = {fPlanned.x + ax * scale, fPlanned.y + ay * scale,
              fPlanned.theta + clampf(wanted.theta - fPlanned.theta, -dw, dw)};
  return {fPlanned.x * fdt, fPlanned.y * fdt, fPlanned.theta * fdt};
}

Math::Pose2D BaseController::odometryAfter(const Math::Pose2D& d) const {
  return displace(fOdometry, {d.x * (1.0f + fDriftLinear), d.y * (1.0f + fDriftLinear),
                              d.theta * (1.0f + fDriftAngular)});
}

void BaseController::reset() {
  fOdometry = {};
  fPlanned = {};
  fMode = Mode::Idle;
  fGaze.active = false;
}

void BaseController::setDrift(float linearScale, float angularScale) {
  fDriftLinear = linearScale;
  fDriftAngular = angularScale;
}

}  // namespace Sim
}  // namespace KR
