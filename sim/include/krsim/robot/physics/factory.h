#pragma once
// The physics backends by name: the names `--physics` and SimulationConfig::physics accept, a
// check of a name that builds nothing, and the one place that builds a backend.

#include <memory>
#include <string>
#include <vector>

#include <krsim/robot/physics/backend.h>
#include <krsim/robot/physics/kinematic.h>

namespace KR {
namespace Model {
class Robot;
}
namespace Sim {
struct UrdfSource;

/// The accepted names, in the order errors list them: "kinematic", "mujoco".
const std::vector<std::string>& physicsBackendNames();

/// Does nothing for an accepted name; KRError("KRMotion", "physics", ...) naming the accepted
/// names for any other. Cheap: no model is built.
void checkPhysicsBackendName(const std::string& name);

/// The backend called `name`, its joints and base at rest; the kinematic one with `servo`.
/// The KRError of checkPhysicsBackendName for an unknown name; the MuJoCo backend's KRError
/// when MuJoCo rejects the robot's model.
/// A URDF robot's MuJoCo model is built from `urdf` when given (RobotDescription::urdf).
std::unique_ptr<PhysicsBackend> makePhysicsBackend(const std::string& name,
                                                   const Model::Robot& robot,
                                                   const ServoModel& servo = {},
                                                   const UrdfSource* urdf = nullptr);

}  // namespace Sim
}  // namespace KR
