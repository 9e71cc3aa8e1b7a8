#pragma once
// SimRobotModel: the robot-model service "KRRobotModel" of the simulated robot. It serves the
// robot description text that it was built with.
//
// Remote methods: "getConfig"() -> string (the description, XML), "getRobotName"() -> string,
// "getRobotType"() -> int.

#include <string>

#include <kr/broker/broker.h>
#include <kr/model/robot.h>

namespace KR {
namespace Sim {

class SimRobotModel : public KR::KRModule {
 public:
  /// Parses the description (KRError when it is malformed) and serves it as given.
  explicit SimRobotModel(std::string xml);

  const std::string& getConfig() const { return fXml; }
  const Model::Robot& robot() const { return *fRobot; }

 private:
  std::string fXml;
  std::shared_ptr<const Model::Robot> fRobot;
};

}  // namespace Sim
}  // namespace KR
