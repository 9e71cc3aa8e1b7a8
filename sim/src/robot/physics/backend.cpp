#include <krsim/robot/physics/backend.h>

#include <set>

#include <kr/math/math.h>
#include <kr/model/robot.h>

namespace KR {
namespace Sim {

namespace {
constexpr float kArmRestPitch = 1.4f;  // arms hanging down [rad]
}

std::vector<SimJoint> simulatedJoints(const Model::Robot& robot) {
  const Model::KRTrackerModel& model = robot.trackerModel();
  std::vector<SimJoint> out;
  std::set<std::string> seen;
  auto add = [&](const Model::TrackerJoint& joint, const char* chain, float rest) {
    if (joint.name.empty() || !seen.insert(joint.name).second)
      return;
    Math::clipData(joint.min, joint.max, rest);
    out.push_back({joint, chain, rest});
  };
  add(model.head.yaw, "Head", 0.0f);
  add(model.head.pitch, "Head", 0.0f);
  for (const auto* arm : {&model.leftArm, &model.rightArm}) {
    const char* chain = arm == &model.leftArm ? "LArm" : "RArm";
    for (std::size_t i = 0; i < arm->joints.size(); ++i)
      add(arm->joints[i], chain, i == 0 ? kArmRestPitch : 0.0f);
  }
  for (const auto& entry : robot.getJoints())
    add(entry.second, "Body", 0.0f);
  return out;
}

}  // namespace Sim
}  // namespace KR
