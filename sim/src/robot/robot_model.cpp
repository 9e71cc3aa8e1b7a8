#include <krsim/robot/robot_model.h>

#include <kr/model/modelutils.h>

namespace KR {
namespace Sim {

SimRobotModel::SimRobotModel(std::shared_ptr<const RobotDescription> description)
    : KRModule("KRRobotModel"), fDescription(std::move(description)), fRobot(fDescription->robot) {
  bind("getConfig", [this]() { return fDescription->text; });
  bind("getRobotName", [this]() { return fRobot->getName(); });
  bind("getRobotType", [this]() { return fRobot->getRobotType(); });
}

}  // namespace Sim
}  // namespace KR
