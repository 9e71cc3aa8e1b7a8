#pragma once
// KinematicBackend: the servo model without dynamics, cheap and deterministic (the backend of
// the tests and of fast runs). Each joint behaves as a position servo:
// - a command takes effect one control period late (the next step() after the one that
//   followed it), as a command crosses the servo bus once per control cycle;
// - a trajectory generator moves a reference toward the target, its speed limited by the
//   commanded speed and its acceleration by ServoModel::acceleration, braking so that it
//   stops on the target;
// - the joint follows the reference with a first-order lag (ServoModel::lagTime), so the
//   measured angle trails the commanded one and settles on it.
// The base integrates its commanded velocity (at the mid-step heading); BaseController limits
// the base's acceleration.

#include <vector>

#include <krsim/robot/physics/backend.h>

namespace KR {
namespace Sim {

/// What a joint's servo does with a position command. Defaults of a small humanoid's head
/// and arm servos (coreless DC motors with position control at 100 Hz): full speed in about
/// a quarter of a second, 20 ms of lag between reference and measured angle.
struct ServoModel {
  float acceleration = 30.0f;  // [rad/s^2]
  float lagTime = 0.02f;       // first-order time constant [s]; 0: no lag
  bool commandDelay = true;    // one control period between a command and its effect

  /// Moves at the commanded speed at once, stops exactly on the target, no delay.
  static ServoModel ideal() { return {0.0f, 0.0f, false}; }
};

class KinematicBackend : public PhysicsBackend {
 public:
  explicit KinematicBackend(std::size_t jointCount, ServoModel servo = {});

  std::string name() const override { return "kinematic"; }
  void setJointTarget(std::size_t joint, float target, float maxSpeed) override;
  void setBaseVelocity(const Math::Pose2D& velocity) override;
  void step(double dt) override;
  float jointAngle(std::size_t joint) const override;
  float jointVelocity(std::size_t joint) const override;
  Math::Pose2D basePose() const override { return fBase; }
  void resetJoint(std::size_t joint, float angle) override;
  void resetBase(const Math::Pose2D& mapPose) override;

  void setServoModel(const ServoModel& servo) { fServo = servo; }
  const ServoModel& servoModel() const { return fServo; }

 private:
  struct Command {
    float target = 0.0f;    // [rad]
    float maxSpeed = 0.0f;  // [rad/s]
  };
  struct Joint {
    float angle = 0.0f;      // measured [rad]
    float velocity = 0.0f;   // measured, over the last step [rad/s]
    float reference = 0.0f;  // trajectory generator's position [rad]
    float speed = 0.0f;      // trajectory generator's speed [rad/s]
    Command active;          // what the servo executes
    Command received;        // the latest command, active from the next step
  };
  const Joint& xJoint(std::size_t joint) const;

  ServoModel fServo;
  std::vector<Joint> fJoints;
  Math::Pose2D fBase;          // map frame
  Math::Pose2D fBaseVelocity;  // robot frame
};

}  // namespace Sim
}  // namespace KR
