#pragma once
// KinematicBackend: the servo model without dynamics. Each joint moves toward its target at
// its maximum speed and stops exactly on it; the base integrates its commanded velocity (at
// the mid-step heading). Deterministic and cheap: the backend of the tests.

#include <vector>

#include <krsim/physics.h>

namespace KR {
namespace Sim {

class KinematicBackend : public PhysicsBackend {
 public:
  explicit KinematicBackend(std::size_t jointCount);

  std::string name() const override { return "kinematic"; }
  void setJointTarget(std::size_t joint, float target, float maxSpeed) override;
  void setBaseVelocity(const Math::Pose2D& velocity) override;
  void step(double dt) override;
  float jointAngle(std::size_t joint) const override;
  float jointVelocity(std::size_t joint) const override;
  Math::Pose2D basePose() const override { return fBase; }
  void resetJoint(std::size_t joint, float angle) override;
  void resetBase(const Math::Pose2D& mapPose) override;

 private:
  struct Joint {
    float angle = 0.0f;     // [rad]
    float velocity = 0.0f;  // over the last step [rad/s]
    float target = 0.0f;    // [rad]
    float maxSpeed = 0.0f;  // [rad/s]
  };
  const Joint& xJoint(std::size_t joint) const;

  std::vector<Joint> fJoints;
  Math::Pose2D fBase;          // map frame
  Math::Pose2D fBaseVelocity;  // robot frame
};

}  // namespace Sim
}  // namespace KR
