#pragma once
// SimRobotModel: the robot-model service "KRRobotModel" of the simulated robot. It serves the
// robot description text that it was built with.
//
// Remote methods: "getConfig"() -> string (the description, XML), "getRobotName"() -> string,
// "getRobotType"() -> int.

#include <string>

#include <kr/broker/broker.h>
#include <kr/model/robot.h>

#include <krsim/robot/robot_description.h>

namespace KR {
namespace Sim {

class SimRobotModel : public KR::KRModule {
 public:
  /// Serves the description's text as it was read.
  explicit SimRobotModel(std::shared_ptr<const RobotDescription> description);

  const std::string& getConfig() const { return fDescription->text; }
  const Model::Robot& robot() const { return *fRobot; }

 private:
  std::shared_ptr<const RobotDescription> fDescription;
  std::shared_ptr<const Model::Robot> fRobot;
};

}  // namespace Sim
}  // namespace KR
