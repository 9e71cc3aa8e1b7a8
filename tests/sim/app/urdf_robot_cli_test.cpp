// krtracker-sim with a robot brought as a URDF and its mapping: every built-in scenario runs on
// Lumen on both backends, the scenario field `robot:` and `angles --robot` take a mapping, and a
// bad URDF or mapping gives one line, exit code 2 and no output file, whichever class of
// mistake it is.

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>

#include <nlohmann/json.hpp>

#include <krsim/run/scenario.h>

#include "sim/helpers.h"

namespace {

using namespace krtest;
using Result = CommandResult;

// An empty directory of its own for each test's outputs.
std::string freshDirectory(const std::string& name) {
  return krtest::freshDirectory("krtracker_urdf_" + name);
}

TEST(UrdfRobotCli, EveryScenarioRunsOnLumenOnBothBackends) {
  const std::string dir = freshDirectory("runs");
  for (const auto& info : KR::Sim::listScenarios()) {
    for (const char* physics : {"kinematic", "mujoco"}) {
      SCOPED_TRACE(info.name + " on " + physics);
      const std::string json = dir + "/" + info.name + "-" + physics + ".json";
      const Result r =
          krtest::runCli({"--scenario", info.name, "--robot", "lumen", "--physics", physics,
                          "--quiet", "--csv", dir + "/run.csv", "--json", json},
                         &KR::Sim::createTrackerModules);
      ASSERT_EQ(r.code, 0) << r.err;
      EXPECT_NE(r.out.find("robot Lumen (" + robotPath("lumen.yaml") + ")"), std::string::npos)
          << r.out;
      // The meshes are not shipped: one note, on MuJoCo only.
      const bool meshNote = r.out.find("note: 5 mesh files of " + robotPath("lumen.urdf") +
                                       " not found") != std::string::npos;
      EXPECT_EQ(meshNote, std::string(physics) == "mujoco") << r.out;
      const auto summary = nlohmann::json::parse(readFile(json));
      EXPECT_EQ(summary.at("robot"), "Lumen");
      EXPECT_FALSE(summary.at("phases").empty());
    }
  }
}

TEST(UrdfRobotCli, AnglesAndScenarioFilesTakeAMapping) {
  const Result angles = krtest::runCli(
      {"angles", "--robot", robotPath("lumen.yaml"), "--look-at", "1.5", "0.3", "0.4"});
  ASSERT_EQ(angles.code, 0) << angles.err;
  EXPECT_EQ(angles.out.rfind("head_pan_joint ", 0), 0u) << angles.out;
  EXPECT_NE(angles.out.find("\nhead_tilt_joint "), std::string::npos) << angles.out;

  const std::string file = freshDirectory("scenario") + "/lumen_table.yaml";
  std::ofstream(file) << R"(name: table
description: a ball on a table
robot: lumen.yaml
duration: 6
targets:
  - {name: ball, kind: RedBall, layout: torso, points: [[0, 1.5, -0.2, 0.2], [6, 1.5, 0.3, 0.2]]}
actions:
  - {time: 0, call: registerTarget, args: [RedBall, 0.06]}
  - {time: 0, call: setMode, args: [Head]}
  - {time: 0, call: track, args: [RedBall]}
phases:
  - {name: table, begin: 0, target: ball}
)";
  const Result r = krtest::runCli({"--scenario", file, "--physics", "kinematic", "--quiet", "--csv",
                                   ::testing::TempDir() + "/lumen_table.csv", "--json",
                                   ::testing::TempDir() + "/lumen_table.json"},
                                  &KR::Sim::createTrackerModules);
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("scenario table: a ball on a table"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("robot Lumen"), std::string::npos) << r.out;
}

// A mistake in the URDF, in the mapping, and a URDF too big (the import's other texts are
// checked in tests/platform/urdf): one line naming the file and the element, exit 2, nothing
// written.
TEST(UrdfRobotCli, EveryBadUrdfRobotIsRefusedOnOneLine) {
  const std::string dir = freshDirectory("bad");
  const std::string outputs = freshDirectory("bad_outputs");
  const std::string yaml = krtest::readRobotFile("lumen.yaml");
  const std::string urdf = krtest::readRobotFile("lumen.urdf");
  const struct {
    std::string name;
    std::string yaml;
    std::string urdf;
    std::string fragment;
  } cases[] = {
      {"truncated", yaml, urdf.substr(0, urdf.size() / 2), "truncated.urdf: refused by urdfdom: "},
      {"unknown_key", replaced(yaml, "torso: torso_lift_link", "torso: torso_lift_link\ntorsoo: x"),
       urdf, "unknown_key.yaml: torsoo (line 7): unknown key 'torsoo'"},
      {"big", yaml, urdf + "<!--" + std::string(2 << 20, 'x') + "-->\n", "bytes, more than"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string mapping = dir + "/" + c.name + ".yaml";
    std::ofstream(mapping) << replaced(c.yaml, "urdf: lumen.urdf", "urdf: " + c.name + ".urdf");
    std::ofstream(dir + "/" + c.name + ".urdf", std::ios::binary) << c.urdf;
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{"--robot", mapping, "--csv", outputs + "/run.csv", "--plot",
                                   outputs + "/run.png", "--json", outputs + "/run.json"},
          std::vector<std::string>{"angles", "--robot", mapping, "--look-at", "1", "0", "0"}}) {
      const Result r = krtest::runCli(args);
      EXPECT_EQ(r.code, 2) << r.err;
      EXPECT_EQ(r.out, "");
      EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
      EXPECT_EQ(r.err.rfind("krtracker-sim: ", 0), 0u) << r.err;
      EXPECT_NE(r.err.find("cannot load robot '" + mapping + "': "), std::string::npos) << r.err;
      EXPECT_NE(r.err.find(c.fragment), std::string::npos)
          << "'" << c.fragment << "' not in " << r.err;
      EXPECT_TRUE(filesIn(outputs).empty());
    }
  }
}

}  // namespace
