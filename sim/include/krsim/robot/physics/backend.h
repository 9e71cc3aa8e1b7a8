#pragma once
// PhysicsBackend: what moves the simulated robot's joints and base. The motion service decides
// what each joint and the base should do (commands, limits, gaze and walk control); a backend
// turns that into motion over time: the kinematic servo model (fast, for tests) or a physics
// engine (mass, inertia, gravity, position servos). factory.h builds one by name.
//
// Joints are numbered in the robot's order: head (yaw, pitch), then the left arm, then the right
// arm, each arm in chain order; SimMotion::jointNames() lists them. Angles [rad], speeds
// [rad/s], base poses in the simulation's map frame [m, rad], base velocities in the robot
// frame [m/s, rad/s].

#include <cstddef>
#include <string>
#include <vector>

#include <kr/math/types.h>
#include <kr/model/trackermodel.h>

namespace KR {
namespace Model {
class Robot;
}
namespace Sim {

class PhysicsBackend {
 public:
  virtual ~PhysicsBackend() = default;

  /// "kinematic" or "mujoco": the name `--physics` takes and the run summary reports.
  virtual std::string name() const = 0;

  /// Joint `joint` moves toward `target` (already within the joint's limits) no faster than
  /// `maxSpeed`; it holds there until the next target.
  virtual void setJointTarget(std::size_t joint, float target, float maxSpeed) = 0;
  /// The base moves at this velocity, robot frame, until the next command (zero stops it).
  virtual void setBaseVelocity(const Math::Pose2D& velocity) = 0;

  /// Advances the simulated robot by dt seconds.
  virtual void step(double dt) = 0;

  /// Measured angle and velocity of a joint, as its sensors read them. Every method taking a
  /// joint throws KRError("KRMotion", "physics", ...) for a number the robot lacks.
  virtual float jointAngle(std::size_t joint) const = 0;
  virtual float jointVelocity(std::size_t joint) const = 0;
  /// Pose of the base in the map frame (ground truth).
  virtual Math::Pose2D basePose() const = 0;

  /// Test and start-up hooks: puts a joint or the base at once where asked, at rest.
  virtual void resetJoint(std::size_t joint, float angle) = 0;
  virtual void resetBase(const Math::Pose2D& mapPose) = 0;
};

/// One joint of the simulated robot: its model (name, limits, velocity limit), the chain it
/// belongs to ("Head", "LArm", "RArm" or "Body") and its angle at start-up [rad].
struct SimJoint {
  Model::TrackerJoint joint;
  std::string chain;
  float rest = 0.0f;
};

/// The robot's joints in the backends' order, which every backend numbers its joints by: head
/// (yaw, pitch), left arm, right arm (each in chain order), then the other joints of the robot
/// description by name. A joint named twice counts once.
std::vector<SimJoint> simulatedJoints(const Model::Robot& robot);

}  // namespace Sim
}  // namespace KR
