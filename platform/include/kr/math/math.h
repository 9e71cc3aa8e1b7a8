#pragma once
// KR::Math functions over the value types of types.h. The conversions to Eigen are in
// kr/math/eigen.h.

#include <cmath>
#include <tuple>

#include <kr/math/types.h>

namespace KR {
namespace Math {

constexpr float kPi = 3.1415927f;
constexpr float kPi2 = 1.5707964f;
constexpr float k2Pi = 6.2831855f;

// ---- transforms -------------------------------------------------------------------------

/// Translation (x, y, z) and rotation Rz(wz) * Ry(wy) * Rx(wx).
Transform transformFromPosition6D(const Position6D& p);
/// Translation (x, y, 0) and rotation Rz(theta).
Transform transformFromPose2D(const Pose2D& p);
/// Pure translation.
Transform transformFromPosition3D(const Position3D& p);
/// Rotation part only.
Transform transformFromRotation(const Rotation& r);

/// Translation and roll, pitch, yaw of a transform (pitch in [-pi/2, pi/2]).
Position6D position6DFromTransform(const Transform& t);
/// The translation (as Transform::translation).
Position3D position3DFromTransform(const Transform& t);
/// Translation x, y and the yaw of a transform.
Pose2D pose2DFromTransform(const Transform& t);
Position6D position6DFromPose2D(const Pose2D& p);

/// Inverse of a rigid transform (transposed rotation, rotated negated translation).
Transform pinv(const Transform& t);

/// Rotation about z (as Rotation::fromRotZ).
Rotation rotationFromRotZ(float angle);
/// R = Rz(wz) * Ry(wy) * Rx(wx).
Rotation rotationFromAngles(float wx, float wy, float wz);
/// Roll, pitch, yaw of a rotation (inverse of rotationFromAngles, pitch in [-pi/2, pi/2]).
Rotation3D rotation3DFromRotation(const Rotation& r);

// ---- distances --------------------------------------------------------------------------

/// Euclidean distance of the translations only.
float distance(const Position6D& a, const Position6D& b);
float distance(const Position3D& a, const Position3D& b);

/// Angle [rad] between the x axis of a frame and the direction from the frame's origin to a
/// point: how far an effector or a forearm with that pose misses the point. Accurate for tiny
/// angles too; pi when the point is the origin itself.
float aimError(const Transform& frame, const Position3D& target);

// ---- angles -----------------------------------------------------------------------------

/// Clamps value into [min, max].
inline void clipData(float min, float max, float& value) {
  if (value < min) {
    value = min;
  } else if (value > max) {
    value = max;
  }
}

/// Wraps an angle into (-pi, pi].
float modulo2PI(float angle);

/// atan2 in single precision for the control loops: one atanf of the smaller-over-larger
/// ratio, the quadrant put back in double. As accurate as the C library's atan2f (within 1.5
/// ulp of the exact angle) at about half its cost on the look-at and point-at paths. Zeros,
/// infinities and NaN get the C library's answer.
inline float fastAtan2(float y, float x) {
  const float ax = std::fabs(x);
  const float ay = std::fabs(y);
  const bool steep = ay > ax;
  // NaN exactly when an input is NaN, both are zero or both are infinite.
  const float ratio = steep ? ax / ay : ay / ax;
  if (std::isnan(ratio)) {
    return std::atan2(y, x);
  }
  double angle = steep ? 1.5707963267948966 - double(std::atan(ratio))
                       : double(std::atan(ratio));  // in [0, pi/2]
  if (x < 0.0f) {
    angle = 3.141592653589793 - angle;
  }
  return std::copysign(float(angle), y);
}

/// (distance, yaw = atan2(y, x), pitch = atan2(-z, hypot(x, y))): a positive pitch looks down.
std::tuple<float, float, float> polar3DFromPosition3D(const Position3D& p);

/// The angles with Ry(wy) * Rz(wz) turning the x axis onto d:
/// wz = atan2(dy, hypot(dx, dz)), wy = atan2(-dz, dx).
inline void oldComputePointAtAnglesWyWz(const Position3D& d, float& wy, float& wz) {
  wz = fastAtan2(d.y, std::hypot(d.x, d.z));
  wy = fastAtan2(-d.z, d.x);
}

/// Head yaw and pitch that make the effector's x axis pass through the target, the effector's
/// pose being Translation(headPosition) * Rz(yaw) * Ry(pitch) * neckToEffector. Exact for any
/// fixed offset and tilt of the effector; the solution looking forward is chosen. Returns
/// false, leaving yaw and pitch untouched, when no solution exists (target at the head
/// position or inside the effector's offset).
bool computeLookAtAngles(const Position3D& target, const Position3D& headPosition,
                         const Transform& neckToEffector, float& yaw, float& pitch);

/// The same for a head whose pitch joint is not on the yaw axis: the effector's pose is
/// Translation(headPosition) * Rz(yaw) * Translation(yawToPitch) * Ry(pitch) * neckToEffector,
/// yawToPitch being the pitch joint's position from the yaw joint in the frame turned by yaw
/// (a pan-tilt head's tilt joint a few centimetres in front of its pan axis). With yawToPitch
/// zero this is the function above, bit for bit. Closed form when the axes meet (x of
/// yawToPitch zero) or the line of sight is square to the pitch axis (the usual mounting);
/// otherwise the closed form of the square mounting starts Newton steps on the exact equation,
/// converged to double precision or refused. The solution looking forward is chosen.
bool computeLookAtAngles(const Position3D& target, const Position3D& headPosition,
                         const Position3D& yawToPitch, const Transform& neckToEffector, float& yaw,
                         float& pitch);

namespace DSP {
/// Dead band: when |value - stored| >= threshold, stored takes value and the result is true;
/// otherwise stored is kept and the result is false. A threshold of 0 always takes the value.
inline bool applyThreshold(float threshold, float value, float& stored) {
  if (std::fabs(value - stored) >= threshold) {
    stored = value;
    return true;
  }
  return false;
}
}  // namespace DSP

namespace Validation {
/// True when 0 < f <= 1.
inline bool isFractionStrict(float f) {
  return f > 0.0f && f <= 1.0f;
}
}  // namespace Validation

}  // namespace Math
}  // namespace KR
