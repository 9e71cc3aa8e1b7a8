// Scenarios written by users as YAML files: one runs end to end through the command line, and
// each kind of mistake is refused on one line naming the file, the line and the field.

#include <sys/stat.h>

#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include <kr/error.h>
#include <krsim/cli.h>
#include <krsim/scenario.h>

namespace {

const char* const kUserScenario = R"(# A ball on a table to the right, then to the left.
name: table
description: a ball moved across a table
robot: kibo
duration: 12
targets:
  - name: ball
    kind: RedBall
    layout: torso
    points:
      - [0, 1.2, -0.3, 0.2]
      - [5, 1.2, -0.3, 0.2]
      - [8, 1.2, 0.4, 0.2]
      - [12, 1.2, 0.4, 0.2]
actions:
  - {time: 0, call: registerTarget, args: [RedBall, 0.06]}
  - {time: 0, call: setMode, args: [Head]}
  - {time: 0, call: track, args: [RedBall]}
phases:
  - {name: right, begin: 0, end: 5, target: ball}
  - {name: across, begin: 5, target: ball, on_target_deg: 4}
)";

std::string write(const std::string& name, const std::string& text) {
  const std::string dir = ::testing::TempDir() + "/krtracker_scenarios";
  ::mkdir(dir.c_str(), 0755);
  const std::string path = dir + "/" + name + ".yaml";
  std::ofstream(path) << text;
  return path;
}

TEST(ScenarioFileTest, AUserScenarioRunsFromItsPathWithItsPhasesMeasured) {
  const std::string file = write("table", kUserScenario);
  const std::string json = ::testing::TempDir() + "/krtracker_table.json";
  std::ostringstream out;
  std::ostringstream err;
  const int code = KR::Sim::runCommandLine(
      {"--scenario", file, "--quiet", "--csv", ::testing::TempDir() + "/table.csv", "--json", json},
      out, err, &KR::Sim::createTrackerModules);
  ASSERT_EQ(code, 0) << err.str();
  EXPECT_NE(out.str().find("scenario table: a ball moved across a table"), std::string::npos);
  std::stringstream text;
  text << std::ifstream(json).rdbuf();
  EXPECT_NE(text.str().find("\"scenario\": \"table\""), std::string::npos) << text.str();
  EXPECT_NE(text.str().find("\"name\": \"across\""), std::string::npos);
  // The open end of the last phase is the end of the run; the mode is the file's.
  const auto s = KR::Sim::makeScenario(file, {});
  ASSERT_EQ(s.phases.size(), 2u);
  EXPECT_DOUBLE_EQ(s.phases[1].end, 12.0);
  EXPECT_DOUBLE_EQ(s.phases[1].acquireDegrees, 4.0);
  EXPECT_EQ(s.modeText, "Head");
  EXPECT_EQ(KR::Sim::makeScenario(file, {"", "WholeBody", "", 0.0}).modeText, "WholeBody");
}

TEST(ScenarioFileTest, MistakesNameTheFileTheLineAndTheField) {
  auto edited = [](const std::string& from, const std::string& to) {
    std::string text = kUserScenario;
    const auto at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return text.replace(at, from.size(), to);
  };
  const struct {
    std::string name;
    std::string text;
    std::string where;  // after the file's name
  } cases[] = {
      {"missing_name", edited("name: table\n", ""), ":2: name: missing"},
      {"bad_duration", edited("duration: 12", "duration: soon"), ":5: duration: expects a number"},
      {"infinite", edited("duration: 12", "duration: .inf"), ":5: duration: expects a number"},
      {"unknown_field", edited("robot: kibo", "robto: kibo"), ":4: robto: unknown field"},
      {"short_point", edited("[5, 1.2, -0.3, 0.2]", "[5, 1.2, -0.3]"),
       ":12: targets[0].points[1]: expects a list of 4 numbers"},
      {"backwards", edited("[8, 1.2, 0.4, 0.2]", "[3, 1.2, 0.4, 0.2]"),
       ":13: targets[0].points[2]: keyframes go back in time"},
      {"bad_layout", edited("layout: torso", "layout: head"), ":9: targets[0].layout: expects"},
      {"unknown_target", edited("end: 5, target: ball", "end: 5, target: cup"),
       ":20: phases[0].target: no target is called 'cup'"},
      {"late_call", edited("{time: 0, call: track", "{time: -1, call: track"),
       ":18: actions[2].time: expects a number from 0"},
      {"misspelt", edited("on_target_deg: 4", "on_targt_deg: 4"),
       ":21: phases[1].on_targt_deg: unknown field"},
      {"bad_yaml", edited("phases:\n", "phases: [\n"), ": bad YAML"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string file = write(c.name, c.text);
    try {
      KR::Sim::makeScenario(file, {});
      ADD_FAILURE() << "accepted";
    } catch (const KR::KRError& e) {
      EXPECT_EQ(e.message().rfind(file + c.where.substr(0, c.where.find(' ')), 0), 0u)
          << e.message();
      EXPECT_NE(e.message().find(c.where), std::string::npos) << e.message();
    }
  }
}

}  // namespace
