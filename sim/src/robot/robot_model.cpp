#include <krsim/robot/robot_model.h>

#include <kr/model/modelutils.h>

namespace KR {
namespace Sim {

SimRobotModel::SimRobotModel(std::string xml)
    : KRModule("KRRobotModel"),
      fXml(std::move(xml)),
      fRobot(Model::ModelUtils::robotFromXml(fXml)) {
  bind("getConfig", [this]() { return fXml; });
  bind("getRobotName", [this]() { return fRobot->getName(); });
  bind("getRobotType", [this]() { return fRobot->getRobotType(); });
}

}  // namespace Sim
}  // namespace KR
