// The backends by name: the accepted names, the name check that builds nothing, and the
// factory, which builds the backend of each name and refuses others with the check's error.

#include <functional>

#include <gmock/gmock.h>

#include <kr/error.h>
#include <krsim/robot/physics/factory.h>

#include "sim/helpers.h"

namespace {

using namespace krtest;
using testing::AllOf;
using testing::HasSubstr;

std::string errorOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const KR::KRError& e) {
    return e.what();
  }
  ADD_FAILURE() << "no KRError";
  return {};
}

TEST(PhysicsFactory, BuildsTheBackendOfEachAcceptedName) {
  EXPECT_EQ(KR::Sim::physicsBackendNames(), (std::vector<std::string>{"kinematic", "mujoco"}));
  const auto robot = loadRobot("kibo.xml");
  for (const auto& name : KR::Sim::physicsBackendNames()) {
    EXPECT_NO_THROW(KR::Sim::checkPhysicsBackendName(name));
    EXPECT_EQ(KR::Sim::makePhysicsBackend(name, *robot)->name(), name);
  }
  // The kinematic backend takes the servo model it is given.
  const auto ideal = KR::Sim::makePhysicsBackend("kinematic", *robot, KR::Sim::ServoModel::ideal());
  const auto& servo = dynamic_cast<const KinematicBackend&>(*ideal).servoModel();
  EXPECT_EQ(servo.acceleration, 0.0f);
  EXPECT_EQ(servo.lagTime, 0.0f);
  EXPECT_FALSE(servo.commandDelay);
}

TEST(PhysicsFactory, RefusesAnyOtherNameWithTheAcceptedOnes) {
  const auto robot = loadRobot("kibo.xml");
  for (const std::string name : {"rigid", "", "MuJoCo", "kinematic "}) {
    SCOPED_TRACE("\"" + name + "\"");
    const std::string checked = errorOf([&] { KR::Sim::checkPhysicsBackendName(name); });
    EXPECT_THAT(checked, AllOf(HasSubstr("unknown physics backend \"" + name + "\""),
                               HasSubstr("(accepted: kinematic, mujoco)")));
    EXPECT_EQ(errorOf([&] { KR::Sim::makePhysicsBackend(name, *robot); }), checked);
  }
  KR::Sim::SimulationConfig config;
  config.robot = KR::Sim::RobotDescription::load("kibo");
  config.physics = "rigid";
  EXPECT_THROW(Simulation{config}, KR::KRError);
}

}  // namespace
