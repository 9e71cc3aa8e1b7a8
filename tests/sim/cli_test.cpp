#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <kr/model/modelutils.h>
#include <krsim/cli.h>
#include <krsim/scenario.h>
#include <krtracker/tools/tools.h>

#include "cli_fixture.h"
#include "support/fake_module.h"

namespace {

using Result = krtest::CommandResult;

Result run(const std::vector<std::string>& args) {
  return krtest::runCli(args);
}

std::string robotPath(const std::string& file) {
  return std::string(KRTRACKER_ROBOTS_DIR) + "/" + file;
}

TEST(CommandLineTest, BadInputGivesOneClearLineAndExitCodeTwo) {
  const std::string broken = ::testing::TempDir() + "/broken_robot.xml";
  std::ofstream(broken) << "<robot name=\"X\" type=\"0\"><torso height=\"abc\"/></robot>\n";
  struct Case {
    std::vector<std::string> args;
    std::string error;  // the whole line after "krtracker-sim: "
  };
  const Case cases[] = {
      {{"--bogus"}, "unknown option '--bogus' (see --help)"},
      {{"--seed"}, "option --seed needs a value"},
      {{"--seed", "-3"}, "--seed expects an integer from 0 to 4294967295, not '-3'"},
      {{"--duration", "0"}, "--duration expects a positive number of seconds"},
      {{"--duration", "1s"}, "--duration expects a number, not '1s'"},
      {{"--mode", "Walk"}, "--mode expects one of Head, WholeBody, Move, Navigate, not 'Walk'"},
      {{"--effector", "Leg"}, "--effector expects one of Arms, LArm, RArm, None, not 'Leg'"},
      {{"--scenario", "dance"},
       "unknown scenario 'dance' (scenarios: ball, face, landmarks, navigate, people, pursuit, "
       "oneshot, step)"},
      {{"--mode", "Navigate"}, "mode Navigate needs a robot of type 1; Kibo is of type 0"},
      {{"angles", "--look-at", "1", "0", "0"}, "angles needs --robot FILE"},
      {{"angles", "--robot", "kibo"}, "angles needs either --look-at X Y Z or --point-at"},
      {{"angles", "--robot", "kibo", "--point-at", "None", "1", "0", "0"},
       "--point-at expects one of Arms, LArm, RArm, not 'None'"},
      {{"angles", "--robot", "kibo", "--look-at", "1", "0"}, "option --look-at needs 3 values"},
  };
  for (const auto& c : cases) {
    const Result r = run(c.args);
    EXPECT_EQ(r.code, 2) << c.error;
    EXPECT_EQ(r.err, "krtracker-sim: " + c.error + "\n");
    EXPECT_EQ(r.out, "") << c.error;
  }
  // Robot files: the line names the file given and the parser's reason.
  for (const std::string& robot : {std::string("/nonexistent/robot.xml"), broken}) {
    const Result r = run({"--robot", robot, "--csv", ::testing::TempDir() + "/unused.csv"});
    EXPECT_EQ(r.code, 2);
    EXPECT_EQ(r.err.rfind("krtracker-sim: cannot load robot '" + robot + "': ", 0), 0u) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  }
}

TEST(CommandLineTest, ListsTheScenariosAndHelps) {
  const Result list = run({"--list"});
  EXPECT_EQ(list.code, 0);
  std::istringstream lines(list.out);
  for (const auto& s : KR::Sim::listScenarios()) {
    std::string line;
    ASSERT_TRUE(std::getline(lines, line)) << s.name;
    EXPECT_EQ(line.rfind(s.name + " ", 0), 0u) << line;
    EXPECT_EQ(line.substr(line.size() - s.description.size()), s.description) << line;
  }
  std::string extra;
  EXPECT_FALSE(std::getline(lines, extra)) << extra;
  const Result help = run({"--help"});
  EXPECT_EQ(help.code, 0);
  EXPECT_EQ(help.out, KR::Sim::usage());
}

TEST(CommandLineTest, AnglesPrintsTheLibraryAnglesOneJointPerLine) {
  const auto kibo = KR::Model::ModelUtils::robotFromFile(robotPath("kibo.xml"));
  const auto rover = KR::Model::ModelUtils::robotFromFile(robotPath("rover.xml"));
  auto expected = [](const std::vector<std::string>& names, const std::vector<float>& angles) {
    std::ostringstream os;
    os << std::fixed;
    os.precision(6);
    for (std::size_t i = 0; i < names.size(); ++i)
      os << names[i] << " " << angles[i] << "\n";
    return os.str();
  };
  const KR::Math::Position3D p(1.0f, 0.3f, -0.2f);
  {
    std::vector<std::string> names;
    std::vector<float> angles;
    ASSERT_TRUE(KR::Tracker::tools::computeLookAtAngles(
        p, kibo->trackerModel(), KR::Model::TRACK_EFFECTOR_DEPTH_CAMERA, true, names, angles));
    const Result r = run({"angles", "--robot", robotPath("kibo.xml"), "--look-at", "1", "0.3",
                          "-0.2", "--whole-body", "--effector-id", "2"});
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, expected(names, angles));
  }
  {
    std::vector<std::string> names;
    std::vector<float> angles;
    KR::Tracker::tools::computePointAtAngles(p, rover->trackerModel().leftArm, names, angles);
    KR::Tracker::tools::computePointAtAngles(p, rover->trackerModel().rightArm, names, angles);
    ASSERT_EQ(names.size(), 8u);  // no wrists on the rover
    const Result r = run({"angles", "--robot", "rover", "--point-at", "Arms", "1", "0.3", "-0.2"});
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, expected(names, angles));
  }
  const Result right = run({"angles", "--robot", "kibo", "--point-at", "RArm", "1", "0.3", "-0.2"});
  EXPECT_EQ(std::count(right.out.begin(), right.out.end(), '\n'), 5);
  EXPECT_EQ(right.out.rfind("RShoulderPitch ", 0), 0u);
  // The head pivot itself: no look-at solution.
  const auto& head = kibo->trackerModel().head.headPosition;
  const Result none = run({"angles", "--robot", "kibo", "--look-at", std::to_string(head.x),
                           std::to_string(head.y), std::to_string(head.z)});
  EXPECT_EQ(none.code, 1);
  EXPECT_EQ(none.err.rfind("krtracker-sim: no head angles look at (", 0), 0u) << none.err;
}

TEST(CommandLineTest, ARunWithoutTrackingServiceFailsWithOneLine) {
  const Result r = run({"--quiet", "--csv", ::testing::TempDir() + "/no_service.csv"});
  EXPECT_EQ(r.code, 1);
  EXPECT_EQ(r.err.rfind("krtracker-sim: ", 0), 0u);
  EXPECT_NE(r.err.find("KRTracker"), std::string::npos) << r.err;
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
}

Result runWithTracker(const std::vector<std::string>& args) {
  return krtest::runCli(args, &KR::Sim::createTrackerModules);
}

std::string readFile(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

// One run: the JSON summary has the documented keys in order, null where a measure does not
// apply; nothing is left of gnuplot on the terminal.
TEST(CommandLineTest, TheJsonSummaryFollowsTheSchema) {
  const std::string dir = ::testing::TempDir() + "/krtracker_json";
  const Result r = runWithTracker({"--scenario", "step", "--quiet", "--csv", dir + "/step.csv",
                                   "--plot", dir + "/step.png", "--json", dir + "/step.json"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.err, "");
  const std::string json = readFile(dir + "/step.json");
  std::size_t at = 0;
  for (const char* key : {"scenario",       "robot",         "seed",          "physics",
                          "transport",      "latency_s",     "compensation",  "simulated_s",
                          "cpu_s",          "phases",        "name",          "time_to_on_target_s",
                          "los_rms_deg",    "los_p95_deg",   "los_max_deg",   "los_bias_deg",
                          "los_jitter_deg", "on_target_pct", "overshoot_deg", "settling_s",
                          "arms_rms_deg",   "events"}) {
    const auto next = json.find("\"" + std::string(key) + "\":", at);
    ASSERT_NE(next, std::string::npos) << key << " missing or out of order in " << json;
    at = next;
  }
  EXPECT_NE(json.find("\"transport\": \"inproc\""), std::string::npos);
  EXPECT_NE(json.find("\"arms_rms_deg\": null"), std::string::npos);  // effector None
  EXPECT_NE(json.find("\"name\": \"step 4\""), std::string::npos);
  struct stat png {};
  ASSERT_EQ(::stat((dir + "/step.png").c_str(), &png), 0);
  EXPECT_GT(png.st_size, 10000);
}

// Many seeds, and compensation on against off: a mean and a p95 row per phase, both in the
// table and in the JSON, with each seed's own summary kept.
TEST(CommandLineTest, SeedsAndComparisonsAggregateEveryMeasure) {
  const std::string json = ::testing::TempDir() + "/krtracker_seeds.json";
  const Result seeds =
      runWithTracker({"--scenario", "step", "--seeds", "3-5", "--json", json, "--quiet"});
  ASSERT_EQ(seeds.code, 0) << seeds.err;
  EXPECT_NE(seeds.out.find("seeds 3-5"), std::string::npos) << seeds.out;
  EXPECT_NE(seeds.out.find("\nstep 2 mean "), std::string::npos) << seeds.out;
  EXPECT_NE(seeds.out.find("\nstep 2 p95 "), std::string::npos) << seeds.out;
  const std::string text = readFile(json);
  EXPECT_NE(text.find("\"seeds\": {\n    \"first\": 3,\n    \"last\": 5\n  }"), std::string::npos)
      << text;
  EXPECT_NE(text.find("\"los_rms_deg\": {\n        \"mean\": "), std::string::npos) << text;
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n') > 100, true);
  std::size_t runs = 0;
  for (auto at = text.find("\"seed\": "); at != std::string::npos;
       at = text.find("\"seed\": ", at + 1))
    ++runs;
  EXPECT_EQ(runs, 4u);  // the aggregate's null and the three seeds

  const Result compare =
      runWithTracker({"--scenario", "step", "--compare", "compensation", "--json", json});
  ASSERT_EQ(compare.code, 0) << compare.err;
  const auto on = compare.out.find("Compensation on");
  const auto off = compare.out.find("Compensation off");
  ASSERT_NE(on, std::string::npos);
  ASSERT_NE(off, std::string::npos);
  EXPECT_LT(on, off);
  const std::string both = readFile(json);
  EXPECT_EQ(both.front(), '[');
  EXPECT_NE(both.find("\"compensation\": true"), std::string::npos);
  EXPECT_NE(both.find("\"compensation\": false"), std::string::npos);
}

// A run that simulates nothing draws no picture.
TEST(CommandLineTest, NothingSimulatedDrawsNoPlot) {
  const std::string dir = ::testing::TempDir() + "/krtracker_empty";
  const Result r = runWithTracker(
      {"--duration", "0.001", "--quiet", "--csv", dir + "/e.csv", "--plot", dir + "/e.png"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("Plot: not drawn, nothing was simulated"), std::string::npos) << r.out;
  struct stat png {};
  EXPECT_NE(::stat((dir + "/e.png").c_str(), &png), 0);
}

}  // namespace

namespace {

// A robot without the look-behind turn and without pointing runs the one-shot scenario to its
// end: the skipped steps are named in notes and their measures left out, never run otherwise.
TEST(CommandLineTest, ARobotLackingCapabilitiesRunsToTheEndWithNotes) {
  std::ifstream in(robotPath("kibo.xml"));
  std::stringstream text;
  text << in.rdbuf();
  std::string xml = text.str();
  for (const std::string attribute : {"canLookBehind=\"true\"", "canPointAt=\"true\""}) {
    const auto at = xml.find(attribute);
    ASSERT_NE(at, std::string::npos) << attribute;
    xml.replace(at, attribute.size(), attribute.substr(0, attribute.find('=')) + "=\"false\"");
  }
  const std::string robot = ::testing::TempDir() + "/krtracker_limited_robot.xml";
  std::ofstream(robot) << xml;
  const std::string json = ::testing::TempDir() + "/krtracker_limited.json";
  const Result r = runWithTracker(
      {"--scenario", "oneshot", "--robot", robot, "--physics", "kinematic", "--quiet", "--csv",
       ::testing::TempDir() + "/krtracker_limited.csv", "--json", json});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("note: Kibo cannot look behind: phase 'look behind' runs without the turn"),
            std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("note: Kibo cannot point: 3 pointAt call(s) skipped"), std::string::npos)
      << r.out;
  // Every phase ran; none has a line of sight or an arm measured.
  const auto summary = nlohmann::json::parse(std::ifstream(json));
  std::vector<std::string> phases;
  for (const auto& phase : summary.at("phases")) {
    phases.push_back(phase.at("name").get<std::string>());
    EXPECT_TRUE(phase.at("los_rms_deg").is_null()) << phases.back();
    EXPECT_TRUE(phase.at("arms_rms_deg").is_null()) << phases.back();
  }
  EXPECT_EQ(phases,
            (std::vector<std::string>{"look behind", "point LArm", "point RArm", "point Arms"}));
}

}  // namespace
