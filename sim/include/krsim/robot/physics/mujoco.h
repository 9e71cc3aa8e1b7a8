#pragma once
// MujocoBackend: the simulated robot on the MuJoCo physics engine. The robot description
// becomes a MuJoCo model (mujocoModelXml) loaded from memory: a base on planar joints (x, y,
// yaw) driven by velocity actuators, a torso, a head on its yaw and pitch joints and two arms,
// each joint with its limits, armature and a position servo (stiffness and torque limit from
// the description, critically damped for the inertia it moves), gravity on, no contacts, the
// head's three cameras where the description puts its effectors, and motion-capture bodies
// for the targets of the world.
//
// Physics steps every kPhysicsStep seconds. A joint's servo setpoint moves toward the target
// at no more than the commanded speed, with that speed fed forward, so that the servo follows
// the same ramp as the kinematic backend's joint, less what gravity and inertia take. The
// base's velocity command is turned into the map frame at every physics step. Deterministic:
// the same commands give the same states, bit for bit.
//
// A simulation that goes unstable (a state that is not finite, the engine's own instability
// warning, a joint far outside its range) raises KRError("KRMotion", "physics", ...) from
// step() rather than letting the run report figures from it.

#include <map>
#include <memory>
#include <string>
#include <vector>

#include <kr/math/types.h>
#include <kr/model/robot.h>

#include <krsim/robot/physics/backend.h>
#include <krsim/robot/robot_description.h>

struct mjModel_;
struct mjData_;

namespace KR {
namespace Sim {

/// The MuJoCo model (MJCF text) of a robot description. Joints, bodies and cameras take the
/// description's names ("HeadYaw", "CameraTop"...); the base joints are "BaseX", "BaseY",
/// "BaseYaw"; the targets are the motion-capture bodies "Target0" to "Target<N-1>".
std::string mujocoModelXml(const Model::Robot& robot);

class MujocoBackend : public PhysicsBackend {
 public:
  static constexpr double kPhysicsStep = 0.002;  // [s]
  static constexpr int kTargetCount = 4;
  /// A joint this far outside its range [rad] means the simulation has gone unstable.
  static constexpr double kLimitTolerance = 0.35;

  /// Builds and loads the robot's model with its joints at rest (zero), the base at the
  /// origin: from the URDF when `urdf` is given (mujoco_urdf.h), else from the description.
  /// KRError("KRMotion", "mujoco", ...) naming the robot and the description field (the URDF
  /// link or joint) when MuJoCo rejects the model.
  explicit MujocoBackend(const Model::Robot& robot, const UrdfSource* urdf = nullptr);
  ~MujocoBackend() override;
  MujocoBackend(const MujocoBackend&) = delete;
  MujocoBackend& operator=(const MujocoBackend&) = delete;

  std::string name() const override { return "mujoco"; }
  void setJointTarget(std::size_t joint, float target, float maxSpeed) override;
  void setBaseVelocity(const Math::Pose2D& velocity) override;
  void step(double dt) override;
  float jointAngle(std::size_t joint) const override;
  float jointVelocity(std::size_t joint) const override;
  Math::Pose2D basePose() const override;
  void resetJoint(std::size_t joint, float angle) override;
  void resetBase(const Math::Pose2D& mapPose) override;

  /// Places motion-capture body `index` (0 to kTargetCount - 1) at a map point.
  void setTargetPosition(int index, const Math::Position3D& mapPosition);
  /// Pose in the map frame of head effector 0, 1 or 2 (its x axis the line of sight), as the
  /// model's camera of that effector sits after the last step or forward().
  Math::Transform effectorPose(int effector) const;
  /// Brings the bodies' poses up to date without advancing time (after a reset or a target
  /// move, before reading poses or drawing).
  void forward();

  const mjModel_* model() const { return fModel.get(); }
  mjData_* data() { return fData.get(); }
  const mjData_* data() const { return fData.get(); }

 private:
  struct Servo {
    std::string name;
    int qpos = 0;      // index in qpos
    int dof = 0;       // index in qvel
    int actuator = 0;  // its position servo
    float min = 0.0f, max = 0.0f;
    float target = 0.0f;     // [rad]
    float maxSpeed = 0.0f;   // [rad/s]
    double setpoint = 0.0;   // moves toward the target at no more than maxSpeed [rad]
    double feedForward = 0;  // damping over stiffness [s]: setpoint speed to servo input
  };
  struct ModelDeleter {
    void operator()(mjModel_* m) const;
  };
  struct DataDeleter {
    void operator()(mjData_* d) const;
  };

  const Servo& xServo(std::size_t joint) const;
  void xTuneGains();
  void xCheckStable() const;

  std::string fRobotName;
  std::unique_ptr<mjModel_, ModelDeleter> fModel;
  std::unique_ptr<mjData_, DataDeleter> fData;
  std::vector<Servo> fServos;  // in simulatedJoints() order
  int fBaseQpos = 0;           // BaseX, BaseY, BaseYaw in a row
  int fBaseDof = 0;
  int fBaseActuator = 0;          // three velocity actuators in the same order
  std::vector<int> fTargetMocap;  // mocap index of each target body
  Math::Pose2D fBaseVelocity;     // robot frame
};

}  // namespace Sim
}  // namespace KR
