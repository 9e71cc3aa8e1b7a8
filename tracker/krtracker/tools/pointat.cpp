// Arm point-at angles: shoulder angles toward the target, elbow angles from the target seen
// from the upper arm, and a wrist angle that keeps the hand level.
//
// Like the head functions, these run in control loops: no state, no allocation beyond growing
// the caller's lists, no logging.

#include <cmath>
#include <mutex>
#include <shared_mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include <kr/math/math.h>
#include <kr/value/valueutils.h>

#include <krtracker/config/krgenerictrackerconfig.h>
#include <krtracker/tools/tools.h>
#include <krtracker/tools/toolsinternal.h>

namespace KR {
namespace Tracker {
namespace tools {

namespace {

constexpr float kDeadRadius = 0.001f;        // [m] target this close to the shoulder: arm at rest
constexpr float kNearZero = 0.001f;          // [m] coordinates below this count as zero
constexpr float kElbowYawWrap = 3.0787609f;  // [rad] 0.98 pi

const std::string kLeftArm = "LArm";
const std::string kRightArm = "RArm";

// ARMS_THRESHOLD through the common getter. A stored value of the wrong kind is reported under
// this computation's name rather than the getter's.
float readArmsThreshold() {
  try {
    return getConfigFloatValue(ARMS_THRESHOLD);
  } catch (const std::exception&) {
    KRValue stored;
    {
      KRGenericTrackerConfig* config = getConfig();
      std::shared_lock<std::shared_mutex> lock(config->fMutex);
      const auto it = config->fValueMap.find(ARMS_THRESHOLD);
      if (it != config->fValueMap.end()) {
        stored = it->second;
      }
    }
    return extractFloat(stored, "KRTracker.computePointAtAnglesWithThreshold", "KRValue");
  }
}

// Rotation part of t applied to the direction (x, y, z).
Math::Position3D rotate(const Math::Transform& t, float x, float y, float z) {
  return {t.r1_c1 * x + t.r1_c2 * y + t.r1_c3 * z, t.r2_c1 * x + t.r2_c2 * y + t.r2_c3 * z,
          t.r3_c1 * x + t.r3_c2 * y + t.r3_c3 * z};
}

// r * t for an r without translation, written out: the general product goes through Eigen in
// another library, too far for the compiler to fold into the arm's solve.
Math::Transform rotationTimes(const Math::Transform& r, const Math::Transform& t) {
  Math::Transform out;
  const Math::Position3D c1 = rotate(r, t.r1_c1, t.r2_c1, t.r3_c1);
  const Math::Position3D c2 = rotate(r, t.r1_c2, t.r2_c2, t.r3_c2);
  const Math::Position3D c3 = rotate(r, t.r1_c3, t.r2_c3, t.r3_c3);
  const Math::Position3D c4 = rotate(r, t.r1_c4, t.r2_c4, t.r3_c4);
  out.r1_c1 = c1.x, out.r2_c1 = c1.y, out.r3_c1 = c1.z;
  out.r1_c2 = c2.x, out.r2_c2 = c2.y, out.r3_c2 = c2.z;
  out.r1_c3 = c3.x, out.r2_c3 = c3.y, out.r3_c3 = c3.z;
  out.r1_c4 = c4.x, out.r2_c4 = c4.y, out.r3_c4 = c4.z;
  return out;
}

inline void wristFromElbowAngles(const Math::Transform& M, float a4, float a3, float& a5) {
  // The forearm frame is M · Rz(a4) · Rx(a3); only two of its axes are needed: the x axis,
  // M's rotation of (c4, s4, 0), and the z axis, M's rotation of (s4 s3, -c4 s3, c3).
  const float c4 = std::cos(a4);
  const float s4 = std::sin(a4);
  const float c3 = std::cos(a3);
  const float s3 = std::sin(a3);
  const Math::Position3D xAxis = rotate(M, c4, s4, 0.0f);
  const Math::Position3D zAxis = rotate(M, s4 * s3, -c4 * s3, c3);
  const Math::Position3D up(0.0f, 0.0f, 1.0f);

  // |xAxis × up|, compared squared.
  if (xAxis.x * xAxis.x + xAxis.y * xAxis.y < kNearZero * kNearZero) {
    a5 = 0.0f;  // forearm vertical: no level to keep
    return;
  }
  // The vertical made perpendicular to the forearm, and the horizontal across it. Both are left
  // at the same length rather than normalised: the angle between them does not depend on it.
  const Math::Position3D v = up - xAxis * xAxis.z;
  const Math::Position3D w = xAxis.cross(v);
  a5 = -Math::fastAtan2(zAxis.dot(w), zAxis.dot(v));
}

inline bool armDeadBand(float threshold, float a1, float a2, float a3, float a4, float a5,
                        const Model::TrackerArm& arm, Model::TrackerArmAngle& remembered,
                        std::vector<std::string>& names, std::vector<float>& angles) {
  const float computed[5] = {a1, a2, a3, a4, a5};
  const int jointCount = arm.joints[4].name.empty() ? 4 : 5;
  bool changed = false;
  for (int i = 0; i < jointCount; ++i) {
    if (Math::DSP::applyThreshold(threshold, computed[i], remembered.angles[i])) {
      changed = true;
    }
    names.push_back(arm.joints[i].name);
    angles.push_back(remembered.angles[i]);
  }
  return changed;
}

}  // namespace

void xComputePointAtAngles(const Math::Position3D& target, const Model::TrackerArm& arm, float& a1,
                           float& a2, float& a3, float& a4, float& a5) {
  const bool isLeft = sameText(arm.name, kLeftArm);
  if (!isLeft && !sameText(arm.name, kRightArm)) {
    throw std::runtime_error("Invalid effector name: " + arm.name);
  }
  a1 = a2 = a3 = a4 = a5 = 0.0f;

  const Math::Position3D shoulderToTarget = target - arm.shoulderPosition;
  if (shoulderToTarget.dot(shoulderToTarget) < kDeadRadius * kDeadRadius) {
    return;
  }

  // Shoulder: turn the upper arm toward the target.
  Math::oldComputePointAtAnglesWyWz(shoulderToTarget, a1, a2);
  Math::clipData(arm.joints[0].min, arm.joints[0].max, a1);
  Math::clipData(arm.joints[1].min, arm.joints[1].max, a2);

  // Elbow: the target seen from the end of the upper arm. Ry(a1) · Rz(a2) is written out, and
  // the target goes through the inverse as a point, R^T (d - t): no transform products beyond
  // the one with the arm transform, as this runs in every control cycle.
  const float c1 = std::cos(a1);
  const float s1 = std::sin(a1);
  const float c2 = std::cos(a2);
  const float s2 = std::sin(a2);
  Math::Transform shoulder;
  shoulder.r1_c1 = c1 * c2;
  shoulder.r1_c2 = -c1 * s2;
  shoulder.r1_c3 = s1;
  shoulder.r2_c1 = s2;
  shoulder.r2_c2 = c2;
  shoulder.r2_c3 = 0.0f;
  shoulder.r3_c1 = -s1 * c2;
  shoulder.r3_c2 = s1 * s2;
  shoulder.r3_c3 = c1;
  const Math::Transform shoulderToElbow = rotationTimes(shoulder, arm.armTransform);
  const Math::Position3D fromElbow = shoulderToTarget - shoulderToElbow.translation();
  Math::Position3D p(shoulderToElbow.r1_c1 * fromElbow.x + shoulderToElbow.r2_c1 * fromElbow.y +
                         shoulderToElbow.r3_c1 * fromElbow.z,
                     shoulderToElbow.r1_c2 * fromElbow.x + shoulderToElbow.r2_c2 * fromElbow.y +
                         shoulderToElbow.r3_c2 * fromElbow.z,
                     shoulderToElbow.r1_c3 * fromElbow.x + shoulderToElbow.r2_c3 * fromElbow.y +
                         shoulderToElbow.r3_c3 * fromElbow.z);
  if (std::fabs(p.x) < kNearZero) {
    p.x = 0.0f;
  }
  if (std::fabs(p.y) < kNearZero) {
    p.y = 0.0f;
  }
  if (std::fabs(p.z) < kNearZero) {
    p.z = 0.0f;
  }

  a4 = Math::fastAtan2(p.y, p.x);
  const float elbowYaw = Math::fastAtan2(p.z, p.y);
  if (isLeft) {
    // The left elbow yaw is mounted half a turn from the right one.
    a3 = p.z >= 0.0f ? elbowYaw - Math::kPi : elbowYaw + Math::kPi;
  } else {
    a3 = elbowYaw;
  }
  if (a3 < -kElbowYawWrap) {
    a3 += Math::kPi;
  }
  if (a3 > kElbowYawWrap) {
    a3 -= Math::kPi;
  }
  Math::clipData(arm.joints[3].min, arm.joints[3].max, a4);
  Math::clipData(arm.joints[2].min, arm.joints[2].max, a3);

  wristFromElbowAngles(shoulderToElbow, a4, a3, a5);
  Math::clipData(arm.joints[4].min, arm.joints[4].max, a5);
}

void xComputeWristFromElbowAngles(const Math::Transform& M, float a4, float a3, float& a5) {
  wristFromElbowAngles(M, a4, a3, a5);
}

void computePointAtAngles(const Math::Position3D& target, const Model::TrackerArm& arm,
                          std::vector<std::string>& names, std::vector<float>& angles) {
  float a[5];
  xComputePointAtAngles(target, arm, a[0], a[1], a[2], a[3], a[4]);
  for (int i = 0; i < 4; ++i) {
    names.push_back(arm.joints[i].name);
    angles.push_back(a[i]);
  }
  if (!arm.joints[4].name.empty()) {
    names.push_back(arm.joints[4].name);
    angles.push_back(a[4]);
  }
}

bool applyThreshold(float threshold, float a1, float a2, float a3, float a4, float a5,
                    const Model::TrackerArm& arm, Model::TrackerArmAngle& remembered,
                    std::vector<std::string>& names, std::vector<float>& angles) {
  return armDeadBand(threshold, a1, a2, a3, a4, a5, arm, remembered, names, angles);
}

bool computePointAtAnglesWithThreshold(const Math::Position3D& target, const Model::TrackerArm& arm,
                                       Model::TrackerArmAngle& remembered,
                                       std::vector<std::string>& names,
                                       std::vector<float>& angles) {
  float a[5];
  xComputePointAtAngles(target, arm, a[0], a[1], a[2], a[3], a[4]);
  const float threshold = readArmsThreshold();
  return armDeadBand(threshold, a[0], a[1], a[2], a[3], a[4], arm, remembered, names, angles);
}

}  // namespace tools
}  // namespace Tracker
}  // namespace KR
