#include <krsim/robot/physics/factory.h>

#include <algorithm>

#include <kr/error.h>
#include <kr/model/robot.h>

#include <krsim/robot/physics/mujoco.h>

namespace KR {
namespace Sim {

const std::vector<std::string>& physicsBackendNames() {
  static const std::vector<std::string> names{"kinematic", "mujoco"};
  return names;
}

void checkPhysicsBackendName(const std::string& name) {
  const auto& names = physicsBackendNames();
  if (std::find(names.begin(), names.end(), name) != names.end())
    return;
  std::string accepted;
  for (const auto& n : names)
    accepted += (accepted.empty() ? "" : ", ") + n;
  throw KRError("KRMotion", "physics",
                "unknown physics backend \"" + name + "\" (accepted: " + accepted + ")");
}

std::unique_ptr<PhysicsBackend> makePhysicsBackend(const std::string& name,
                                                   const Model::Robot& robot,
                                                   const ServoModel& servo,
                                                   const UrdfSource* urdf) {
  checkPhysicsBackendName(name);
  if (name == "mujoco")
    return std::make_unique<MujocoBackend>(robot, urdf);
  return std::make_unique<KinematicBackend>(simulatedJoints(robot).size(), servo);
}

}  // namespace Sim
}  // namespace KR
