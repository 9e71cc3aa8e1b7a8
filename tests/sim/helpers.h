#pragma once
// Small helpers shared by the simulator's tests: their vocabulary, files read whole, robot
// descriptions loaded or edited, a motion service on a broker of its own, the command line run
// in the test's process.

#include <dirent.h>
#include <sys/stat.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <app/cli.h>
#include <kr/model/modelutils.h>
#include <krsim/robot/base_controller.h>
#include <krsim/robot/motion.h>
#include <krsim/robot/physics/kinematic.h>
#include <krsim/robot/physics/mujoco.h>
#include <krsim/run/measures.h>
#include <krsim/run/scenario.h>
#include <krsim/run/scenario_run.h>
#include <krsim/run/simulation.h>
#include <krsim/world/world.h>

#include "support/fake_module.h"

namespace krtest {

// The vocabulary of the simulator's tests, which open this namespace.
using KR::KRValue, KR::Math::Pose2D, KR::Math::Position3D, KR::Math::Transform;
using KR::Sim::BaseController, KR::Sim::BaseLimits, KR::Sim::KinematicBackend,
    KR::Sim::MujocoBackend, KR::Sim::SimClock, KR::Sim::SimMemory, KR::Sim::SimMotion,
    KR::Sim::Simulation;
using KR::Sim::Layout, KR::Sim::Path, KR::Sim::TargetScript, KR::Sim::World;
using KR::Sim::MeasureSample, KR::Sim::PhaseMeasures, KR::Sim::PhaseMeter, KR::Sim::PhaseSetup,
    KR::Sim::PhaseSummary, KR::Sim::Sample, KR::Sim::Scenario, KR::Sim::ScenarioOptions,
    KR::Sim::ScenarioRun;

inline std::string readFile(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

/// A file of the robots folder.
inline std::string robotPath(const std::string& file) {
  return std::string(KRTRACKER_ROBOTS_DIR) + "/" + file;
}

/// The names in a folder, "." and ".." aside.
inline std::vector<std::string> filesIn(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = ::opendir(dir.c_str())) {
    while (const dirent* e = ::readdir(d)) {
      const std::string n = e->d_name;
      if (n != "." && n != "..")
        names.push_back(n);
    }
    ::closedir(d);
  }
  return names;
}

/// A folder of the tests' temporary folder, made if missing.
inline std::string freshDirectory(const std::string& name) {
  const std::string dir = ::testing::TempDir() + "/" + name;
  ::mkdir(dir.c_str(), 0755);
  return dir;
}

/// The lines of a text, without their ends.
inline std::vector<std::string> linesOf(const std::string& text) {
  std::istringstream in(text);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);)
    lines.push_back(line);
  return lines;
}

/// A robot's motion service on a broker of its own, stepped by hand on a clock the test
/// advances. The servos are ideal unless told otherwise.
struct SimRobot {
  explicit SimRobot(const std::string& file = "kibo.xml", bool idealServos = true) {
    load(file, idealServos);
  }
  ~SimRobot() { broker->shutdown(); }

  /// Builds the robot again from `file` on a new broker; the clock runs on.
  void load(const std::string& file, bool idealServos = true) {
    if (broker)
      broker->shutdown();
    robot = loadRobot(file);
    motion = std::make_shared<SimMotion>(
        *robot, clock,
        idealServos ? std::make_unique<KinematicBackend>(KR::Sim::simulatedJoints(*robot).size(),
                                                         KR::Sim::ServoModel::ideal())
                    : nullptr);
    broker = KR::KRBroker::create("t");
    broker->addModule(motion);
    proxy = broker->getProxy("KRMotion", 0);
  }

  std::shared_ptr<SimClock> clock = std::make_shared<SimClock>();
  std::unique_ptr<KR::Model::Robot> robot;
  std::shared_ptr<SimMotion> motion;
  std::shared_ptr<KR::KRBroker> broker;
  std::shared_ptr<KR::KRProxy> proxy;
};

struct CommandResult {
  int code;
  std::string out;
  std::string err;
};

/// krtracker-sim's command line with `args`, without the tracking service's sub-modules
/// unless given.
inline CommandResult runCli(const std::vector<std::string>& args,
                            const KR::Sim::SubModuleFactory& modules = {},
                            const KR::Sim::RunHooks& hooks = {}) {
  std::ostringstream out;
  std::ostringstream err;
  const int code = KR::Sim::runCommandLine(args, out, err, modules, hooks);
  return {code, out.str(), err.str()};
}

}  // namespace krtest
