#pragma once
// Helpers shared by the look-at and point-at tests: robot models from the shipped descriptions
// and the sweeps' targets; the angles are checked with the model's forward kinematics.

#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include <Eigen/Core>
#include <Eigen/Geometry>

#include <kr/math/math.h>
#include <kr/model/modelutils.h>
#include <kr/model/robot.h>
#include <kr/model/trackermodel.h>
#include <support/fake_module.h>

#include <krtracker/tools/tools.h>

namespace geomtest {

// The vocabulary of the geometry tests, which open this namespace.
using KR::KRValue, KR::Model::KRTrackerModel;
using KR::Math::aimError, KR::Math::Position3D, KR::Math::Transform;
using KR::Math::FRAME_ROBOT, KR::Math::FRAME_TORSO, KR::Math::FRAME_WORLD;
using Names = std::vector<std::string>;
using Floats = std::vector<float>;
namespace tools = KR::Tracker::tools;

/// Fixed seed of every random sweep; change it here to explore other inputs.
constexpr unsigned kSeed = 20261121u;

inline KR::Model::KRTrackerModel loadModel(const std::string& robotFile) {
  KR::Model::KRTrackerModel model;
  krtest::loadRobot(robotFile)->fillTrackerModel(model);
  return model;
}

/// Angle between two vectors [rad], accurate for tiny angles too.
inline double angleBetween(const KR::Math::Position3D& a, const KR::Math::Position3D& b) {
  const Eigen::Vector3d u(a.x, a.y, a.z);
  const Eigen::Vector3d v(b.x, b.y, b.z);
  return std::atan2(u.cross(v).norm(), u.dot(v));
}

/// A point at `distance` from `origin` in the direction Rz(yaw) * Ry(pitch) * x.
inline KR::Math::Position3D pointInDirection(const KR::Math::Position3D& origin, float yaw,
                                             float pitch, float distance) {
  const KR::Math::Transform ray = KR::Math::transformFromPosition3D(origin) *
                                  KR::Math::Transform::fromRotZ(yaw) *
                                  KR::Math::Transform::fromRotY(pitch);
  return ray * KR::Math::Position3D(distance, 0.0f, 0.0f);
}

/// Height of the torso above the robot frame in the motion service of scriptTorsoRaised.
constexpr float kTorsoHeight = 0.3f;

/// Scripts the motion service's transforms: the torso is the robot frame raised by
/// kTorsoHeight; every other frame is the torso frame.
inline void scriptTorsoRaised(krtest::FakeModule& motion) {
  motion.answerWith("getTransform", [](const std::vector<KRValue>& args) {
    const bool robotFrame = args.size() > 1 && args[1] == KRValue(2);
    return KRValue(Floats{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, robotFrame ? kTorsoHeight : 0.0f});
  });
}

/// True when the angle sits on one of the joint's limits, i.e. the clip may have acted.
inline bool atLimit(float angle, const KR::Model::TrackerJoint& joint) {
  return angle == joint.min || angle == joint.max;
}

}  // namespace geomtest
