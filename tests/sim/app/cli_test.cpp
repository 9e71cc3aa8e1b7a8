// krtracker-sim's command line: listing, help, the angles dry run, runs with their JSON, CSV and
// plot, user scenario files. A bad command line, robot description or scenario file gives
// exactly one line on the error stream naming the option or the file and what is wrong with
// it, exit code 2, nothing on the output stream, and no output file, not even an empty one.

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <map>
#include <set>

#include <nlohmann/json.hpp>

#include <kr/error.h>
#include <krsim/run/scenario.h>
#include <krtracker/tools/tools.h>

#include "sim/helpers.h"

namespace {

using krtest::filesIn;
using krtest::readFile;
using krtest::replaced;
using krtest::robotPath;
using Result = krtest::CommandResult;

Result run(const std::vector<std::string>& args) {
  return krtest::runCli(args);
}

Result runWithTracker(const std::vector<std::string>& args) {
  return krtest::runCli(args, &KR::Sim::createTrackerModules);
}

// An empty directory of its own for each test's outputs.
std::string freshDirectory(const std::string& name) {
  return krtest::freshDirectory("krtracker_cli_" + name);
}

// One line after "krtracker-sim: ", holding every fragment (or exactly the one given), exit
// code 2, nothing on the output stream and nothing in `outputs`.
void expectOneLineRefusal(const Result& r, const std::vector<std::string>& fragments,
                          const std::string& outputs, bool exact = false) {
  EXPECT_EQ(r.code, 2) << r.err;
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err.rfind("krtracker-sim: ", 0), 0u) << r.err;
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  EXPECT_EQ(r.err.back(), '\n');
  if (exact) {
    EXPECT_EQ(r.err, "krtracker-sim: " + fragments.at(0) + "\n");
  }
  for (const std::string& f : fragments)
    EXPECT_NE(r.err.find(f), std::string::npos) << "'" << f << "' not in: " << r.err;
  EXPECT_TRUE(filesIn(outputs).empty()) << "left behind: " << filesIn(outputs).front();
}

TEST(CommandLineErrors, EachBadOptionIsNamedAndNothingIsWritten) {
  const std::string dir = freshDirectory("options");
  // Inputs that would block whoever opens them for reading.
  const std::string fifo = freshDirectory("fifos") + "/robot.xml";
  const std::string fifoScenario = freshDirectory("fifos") + "/scenario.yaml";
  for (const std::string& f : {fifo, fifoScenario}) {
    ::unlink(f.c_str());
    ASSERT_EQ(::mkfifo(f.c_str(), 0600), 0) << f;
  }
  const std::vector<std::string> outputs = {"--csv", dir + "/run.csv", "--plot", dir + "/run.png"};
  std::string tooLong = dir;  // longer than any path may be, in folders that do not exist
  for (int i = 0; i < 20; ++i)
    tooLong += "/" + std::string(250, 'a');
  tooLong += "/run.json";
  const struct {
    std::vector<std::string> args;
    std::vector<std::string> fragments;  // what the one line must say; "=..." all of it
  } cases[] = {
      {{"--bogus"}, {"=unknown option '--bogus' (see --help)"}},
      // An option that takes a value, without it.
      {{"--seed"}, {"=option --seed needs a value"}},
      {{"--csv", dir + "/other.csv", "--plot"}, {"--plot", "needs a value"}},
      // Values of the wrong kind or out of range.
      {{"--seed", "-3"}, {"=--seed expects an integer from 0 to 4294967295, not '-3'"}},
      {{"--seed", "4294967296"}, {"--seed", "'4294967296'"}},
      {{"--seed", "seven"}, {"--seed", "'seven'"}},
      {{"--noise", "inf"}, {"--noise", "'inf'"}},
      {{"--duration", "1s"}, {"=--duration expects a number, not '1s'"}},
      {{"--duration", "nan"}, {"--duration", "'nan'"}},
      // Beyond the range of the floats the numbers are kept in.
      {{"--noise", "1e39"}, {"--noise", "'1e39'"}},
      {{"--scenario", "dance"},
       {"=unknown scenario 'dance' (scenarios: ball, face, landmarks, navigate, people, pursuit, "
        "oneshot, step, search)"}},
      {{"--scenario", ""}, {"scenario ''"}},
      {{"--mode", "Navigate"}, {"=mode Navigate needs a robot of type 1; Kibo is of type 0"}},
      // A later bad option after good ones still refuses the whole line.
      {{"--seed", "3", "--duration", "2", "--frobnicate"}, {"'--frobnicate'"}},
      // The line names the file given and the parser's reason follows.
      {{"--robot", dir + "/missing.xml"},
       {"krtracker-sim: cannot load robot '" + dir + "/missing.xml': "}},
      // RunConfig::validate's texts (each checked in tests/sim/run/run_config_test.cpp) are
      // passed on whole.
      {{"--mode", "Walk"}, {"=--mode expects one of Head, WholeBody, Move, Navigate, not 'Walk'"}},
      // Switches and seed ranges.
      {{"--compensation", "maybe"}, {"--compensation", "'maybe'"}},
      {{"--seeds", "5-2"}, {"--seeds", "'5-2'"}},
      {{"--seeds", "1-x"}, {"--seeds", "'1-x'"}},
      // A duration past the end of the script: refused, not repeated.
      {{"--duration", "61"}, {"past the end", "ball", "60 s", "refused rather than repeated"}},
      // Inputs that are not regular files (devices and folders: scenario_file_test.cpp).
      {{"--robot", fifo}, {"robot '" + fifo + "' is not a regular file"}},
      {{"--scenario", fifoScenario}, {"scenario '" + fifoScenario + "' is not a regular file"}},
      {{"angles", "--robot", fifo, "--look-at", "1", "0", "0"},
       {"robot '" + fifo + "' is not a regular file"}},
      // Outputs: an input, twice the same file, a folder that cannot be written.
      {{"--csv", dir + "/x.csv", "--plot", dir + "/x.png", "--json", dir + "/x.csv"},
       {"--json", "also the file of --csv"}},
      {{"--csv", KRTRACKER_ROBOTS_DIR "/kibo.xml", "--plot", dir + "/x.png"},
       {"--csv", "kibo.xml", "input"}},
      {{"--csv", "/proc/krtracker/run.csv", "--plot", dir + "/x.png"},
       {"=--csv /proc/krtracker/run.csv: no folder /proc/krtracker (it is not created)"}},
      // A missing folder is refused the same way for every output, and never created.
      {{"--csv", dir + "/missing/run.csv", "--plot", dir + "/x.png"},
       {"=--csv " + dir + "/missing/run.csv: no folder " + dir + "/missing (it is not created)"}},
      {{"--plot", dir + "/missing/run.png", "--csv", dir + "/x.csv"},
       {"=--plot " + dir + "/missing/run.png: no folder " + dir + "/missing (it is not created)"}},
      {{"--json", dir + "/missing/run.json"},
       {"=--json " + dir + "/missing/run.json: no folder " + dir + "/missing (it is not created)"}},
      {{"--snapshots", dir + "/missing/pictures"},
       {"=--snapshots " + dir + "/missing/pictures: no folder " + dir +
        "/missing (it is not created)"}},
      {{"--json", dir + "/" + std::string(300, 'a') + "/b/run.json"}, {"--json", "no folder"}},
      {{"--json", tooLong}, {"--json", "no folder"}},
      {{"--json", fifo}, {"=--json " + fifo + " is not a regular file"}},
      {{"--snapshots", "/proc/krtracker"}, {"--snapshots", "not a folder that can be written"}},
      // The video: in a folder that does not exist, another output, not
      // MP4, or of many runs.
      {{"--video", dir + "/missing/run.mp4"},
       {"=--video " + dir + "/missing/run.mp4: no folder " + dir + "/missing (it is not created)"}},
      {{"--csv", dir + "/x.mp4", "--plot", dir + "/x.png", "--video", dir + "/x.mp4"},
       {"--video", "also the file of --csv"}},
      {{"--video", dir + "/run.avi"}, {"--video", "run.avi", "a name ending in .mp4"}},
      {{"--video", dir + "/run.mp4", "--seeds", "1-2"},
       {"=--video shows a single run, not --seeds or --compare"}},
      {{"--view", "--compare", "compensation"},
       {"=--view shows a single run, not --seeds or --compare"}},
      // The angles dry run.
      {{"angles", "--look-at", "1", "0", "0"}, {"=angles needs --robot FILE"}},
      {{"angles", "--robot", "kibo"}, {"=angles needs either --look-at X Y Z or --point-at"}},
      {{"angles", "--robot", "kibo", "--point-at", "None", "1", "0", "0"},
       {"=--point-at expects one of Arms, LArm, RArm, not 'None'"}},
      {{"angles", "--robot", "kibo", "--look-at", "1", "0"}, {"=option --look-at needs 3 values"}},
      {{"angles", "--robot", "kibo", "--look-at", "1", "x", "0"}, {"--look-at", "'x'"}},
      {{"angles", "--robot", "kibo", "--look-at", "1e39", "0", "0"}, {"--look-at", "'1e39'"}},
      {{"angles", "--robot", "kibo", "--point-at", "RArm", "1", "-4e38", "0"},
       {"--point-at", "'-4e38'"}},
      {{"angles", "--robot", "kibo", "--point-at", "Arms", "1", "0"}, {"--point-at", "4 values"}},
      {{"angles", "--robot", "kibo", "--look-at", "1", "0", "0", "--effector-id", "3"},
       {"--effector-id"}},
      {{"angles", "--robot", "kibo", "--point-at", "LArm", "1", "0", "0", "--whole-body"},
       {"--whole-body"}},
      {{"angles", "--robot", "kibo", "--look-at", "1", "0", "0", "--point-at", "LArm", "1", "0",
        "0"},
       {"either --look-at"}},
      {{"angles", "--robot", "kibo", "--look-at", "1", "0", "0", "--csv", "x"}, {"'--csv'"}},
      // The robot side of a run over DDS: refused before it waits for the tracking service.
      {{"remote-robot", "--physics", "bullet"},
       {"=--physics: unknown physics backend \"bullet\" (accepted: kinematic, mujoco)"}},
      {{"remote-robot", "ball", "step"}, {"=unexpected argument 'step' (see --help)"}},
  };
  for (const auto& c : cases) {
    std::vector<std::string> args = c.args;
    const bool ownOutputs = std::find(args.begin(), args.end(), "--plot") != args.end() &&
                            std::find(args.begin(), args.end(), "--csv") != args.end();
    if (args[0] != "angles" && args[0] != "remote-robot" && !ownOutputs)
      args.insert(args.begin(), outputs.begin(), outputs.end());
    std::string line;
    for (const std::string& a : args)
      line += " " + a;
    SCOPED_TRACE("krtracker-sim" + line);
    std::vector<std::string> fragments = c.fragments;
    const bool exact = fragments[0][0] == '=';
    if (exact)
      fragments[0].erase(0, 1);
    expectOneLineRefusal(run(args), fragments, dir, exact);
  }
}

/// Sets (or, with null, unsets) an environment variable for the life of the object.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : fName(name) {
    const char* old = std::getenv(name);
    fHad = old != nullptr;
    if (fHad)
      fOld = old;
    if (value != nullptr)
      ::setenv(name, value, 1);
    else
      ::unsetenv(name);
  }
  ~ScopedEnv() {
    if (fHad)
      ::setenv(fName.c_str(), fOld.c_str(), 1);
    else
      ::unsetenv(fName.c_str());
  }

 private:
  std::string fName;
  std::string fOld;
  bool fHad = false;
};

// No display and EGL ruled out: the pictures that need drawing are refused before the run,
// nothing written; a window needs a display whatever EGL offers.
TEST(CommandLineErrors, PicturesThatCannotBeDrawnHereAreRefusedBeforeTheRun) {
  const std::string dir = freshDirectory("pictures");
  const std::vector<std::string> outputs = {"--csv", dir + "/run.csv", "--plot", dir + "/run.png"};
  ScopedEnv noDisplay("DISPLAY", nullptr);
  {
    ScopedEnv glfwOnly("KRTRACKER_GL", "glfw");
    for (const std::vector<std::string>& extra :
         {std::vector<std::string>{"--video", dir + "/run.mp4"},
          std::vector<std::string>{"--snapshots", dir + "/pictures"}}) {
      std::vector<std::string> args = outputs;
      args.insert(args.end(), extra.begin(), extra.end());
      expectOneLineRefusal(
          run(args),
          {extra[0] + ": cannot draw off-screen", "there is no X display", "xvfb-run -a"}, dir);
    }
  }
  {
    ScopedEnv wrong("KRTRACKER_GL", "vulkan");
    expectOneLineRefusal(run({"--csv", dir + "/run.csv", "--video", dir + "/run.mp4"}),
                         {"KRTRACKER_GL is egl or glfw, not 'vulkan'"}, dir);
  }
  std::vector<std::string> view = outputs;
  view.push_back("--view");
  expectOneLineRefusal(run(view), {"--view needs a display", "xvfb-run -a"}, dir);
}

// Broken robot descriptions (the parser's texts: tests/platform/model_test.cpp): the line names
// the file, the element and its line.
TEST(CommandLineErrors, BadRobotDescriptionsNameTheFileAndTheLine) {
  const std::string dir = freshDirectory("robots");
  const std::string outputs = freshDirectory("robot_outputs");
  const std::string kibo = krtest::readRobotFile("kibo.xml");
  const struct {
    std::string name;
    std::string xml;
    std::vector<std::string> fragments;
  } cases[] = {
      {"truncated", kibo.substr(0, kibo.size() / 2), {"bad XML at line"}},
      {"unknown_attribute",
       replaced(kibo, "maxVelocity=\"7.3\"", "maxVelocty=\"7.3\""),
       {"robot/head/joint[role=yaw] (line 10)", "unknown attribute 'maxVelocty'"}},
      // Refused before it is read.
      {"big", kibo + "<!--" + std::string(2 << 20, 'x') + "-->\n", {"robot", "bytes"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string file = dir + "/" + c.name + ".xml";
    std::ofstream(file, std::ios::binary) << c.xml;
    std::vector<std::string> fragments = c.fragments;
    // The parser's reason follows the file's name.
    fragments.push_back(c.name == "big" ? file
                                        : "krtracker-sim: cannot load robot '" + file + "': ");
    expectOneLineRefusal(
        run({"--robot", file, "--csv", outputs + "/run.csv", "--plot", outputs + "/run.png"}),
        fragments, outputs);
    if (c.name != "big") {
      expectOneLineRefusal(run({"angles", "--robot", file, "--look-at", "1", "0", "0"}), fragments,
                           outputs);
    }
  }
}

// SIGTERM in the middle of a run: it stops, measures what ran, flushes the CSV and the JSON
// and exits non-zero. The signal is raised from the hook of the second phase's start.
TEST(CommandLineErrors, ASignalStopsTheRunWithEverythingMeasuredSoFarWritten) {
  const std::string dir = freshDirectory("signal");
  KR::Sim::RunHooks hooks;
  hooks.snapshot = [](KR::Sim::ScenarioRun&, const std::string&, const std::string& label) {
    if (label == "whole body + arms")
      std::raise(SIGTERM);
  };
  const Result r = krtest::runCli({"--quiet", "--csv", dir + "/run.csv", "--json",
                                   dir + "/run.json", "--snapshots", dir + "/pictures"},
                                  &KR::Sim::createTrackerModules, hooks);
  EXPECT_EQ(r.code, 128 + SIGTERM) << r.err;
  EXPECT_NE(r.out.find("Stopped by signal"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("head tracking"), std::string::npos);
  const std::string csv = readFile(dir + "/run.csv");
  EXPECT_EQ(std::count(csv.begin(), csv.end(), '\n'), 2002);  // header, 20 s and the last step
  const std::string json = readFile(dir + "/run.json");
  EXPECT_NE(json.find("\"simulated_s\": 20.01"), std::string::npos) << json;
  EXPECT_NE(json.find("\"name\": \"whole body + arms\""), std::string::npos);
  EXPECT_NE(json.find("\"status\": \"stopped by signal 15\""), std::string::npos);
  // Complete files of what ran, and nothing else.
  auto names = filesIn(dir);
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"pictures", "run.csv", "run.json"}));
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
  const auto kibo = krtest::loadRobot("kibo.xml");
  const auto rover = krtest::loadRobot("rover.xml");
  auto expected = [](const std::vector<std::string>& names, const std::vector<float>& angles) {
    std::ostringstream os;
    os << std::fixed;
    os.precision(6);
    for (std::size_t i = 0; i < names.size(); ++i)
      os << names[i] << " " << angles[i] << "\n";
    return os.str();
  };
  const KR::Math::Position3D p(1.0f, 0.3f, -0.2f);
  std::vector<std::string> names;
  std::vector<float> angles;
  ASSERT_TRUE(KR::Tracker::tools::computeLookAtAngles(
      p, kibo->trackerModel(), KR::Model::TRACK_EFFECTOR_DEPTH_CAMERA, true, names, angles));
  Result r = run({"angles", "--robot", robotPath("kibo.xml"), "--look-at", "1", "0.3", "-0.2",
                  "--whole-body", "--effector-id", "2"});
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.out, expected(names, angles));
  names.clear();
  angles.clear();
  KR::Tracker::tools::computePointAtAngles(p, rover->trackerModel().leftArm, names, angles);
  KR::Tracker::tools::computePointAtAngles(p, rover->trackerModel().rightArm, names, angles);
  ASSERT_EQ(names.size(), 8u);  // no wrists on the rover
  r = run({"angles", "--robot", "rover", "--point-at", "Arms", "1", "0.3", "-0.2"});
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.out, expected(names, angles));
  r = run({"angles", "--robot", "kibo", "--point-at", "RArm", "1", "0.3", "-0.2"});
  EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 5);
  EXPECT_EQ(r.out.rfind("RShoulderPitch ", 0), 0u);
  // The head pivot itself: no look-at solution.
  const auto& head = kibo->trackerModel().head.headPosition;
  r = run({"angles", "--robot", "kibo", "--look-at", std::to_string(head.x), std::to_string(head.y),
           std::to_string(head.z)});
  EXPECT_EQ(r.code, 1);
  EXPECT_EQ(r.err.rfind("krtracker-sim: no head angles look at (", 0), 0u) << r.err;
}

TEST(CommandLineTest, ARunWithoutTrackingServiceFailsWithOneLine) {
  const Result r = run({"--quiet", "--csv", ::testing::TempDir() + "/no_service.csv"});
  EXPECT_EQ(r.code, 1);
  EXPECT_EQ(r.err.rfind("krtracker-sim: ", 0), 0u);
  EXPECT_NE(r.err.find("KRTracker"), std::string::npos) << r.err;
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
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
  std::istringstream keys(
      "scenario robot seed physics transport latency_s compensation simulated_s cpu_s phases name "
      "time_to_on_target_s los_rms_deg los_p95_deg los_max_deg los_bias_deg los_jitter_deg "
      "on_target_pct overshoot_deg settling_s arms_rms_deg acquisition_s search_s "
      "los_rms_tracking_deg found_after_s found_after_lost_s events");
  for (std::string key; keys >> key;) {
    const auto next = json.find("\"" + std::string(key) + "\":", at);
    ASSERT_NE(next, std::string::npos) << key << " missing or out of order in " << json;
    at = next;
  }
  EXPECT_NE(json.find("\"transport\": \"inproc\""), std::string::npos);
  EXPECT_NE(json.find("\"arms_rms_deg\": null"), std::string::npos);  // effector None
  EXPECT_NE(json.find("\"name\": \"step 4\""), std::string::npos);
  EXPECT_GT(readFile(dir + "/step.png").size(), 10000u);
}

// Many seeds, and compensation on against off: a mean and a p95 row per phase, both in the
// table and in the JSON, with each seed's own summary kept.
TEST(CommandLineTest, SeedsAndComparisonsAggregateEveryMeasure) {
  const std::string json = ::testing::TempDir() + "/krtracker_seeds.json";
  const Result seeds =
      runWithTracker({"--scenario", "step", "--seeds", "3-5", "--json", json, "--quiet"});
  ASSERT_EQ(seeds.code, 0) << seeds.err;
  for (const char* text : {"seeds 3-5", "\nstep 2 mean ", "\nstep 2 p95 "})
    EXPECT_NE(seeds.out.find(text), std::string::npos) << text << " not in " << seeds.out;
  const std::string text = readFile(json);
  EXPECT_NE(text.find("\"seeds\": {\n    \"first\": 3,\n    \"last\": 5\n  }"), std::string::npos)
      << text;
  EXPECT_NE(text.find("\"los_rms_deg\": {\n        \"mean\": "), std::string::npos) << text;
  EXPECT_GT(std::count(text.begin(), text.end(), '\n'), 100);
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
  ASSERT_NE(off, std::string::npos);
  EXPECT_LT(on, off);
  const std::string both = readFile(json);
  EXPECT_EQ(both.front(), '[');
  EXPECT_NE(both.find("\"compensation\": true"), std::string::npos);
  EXPECT_NE(both.find("\"compensation\": false"), std::string::npos);
}

// A robot without the look-behind turn and without pointing runs the one-shot scenario to its
// end: the skipped steps are named in notes and their measures left out, never run otherwise.
TEST(CommandLineTest, ARobotLackingCapabilitiesRunsToTheEndWithNotes) {
  const std::string robot = ::testing::TempDir() + "/krtracker_limited_robot.xml";
  std::ofstream(robot) << replaced(replaced(krtest::readRobotFile("kibo.xml"),
                                            "canLookBehind=\"true\"", "canLookBehind=\"false\""),
                                   "canPointAt=\"true\"", "canPointAt=\"false\"");
  const std::string json = ::testing::TempDir() + "/krtracker_limited.json";
  const Result r = runWithTracker(
      {"--scenario", "oneshot", "--robot", robot, "--physics", "kinematic", "--quiet", "--csv",
       ::testing::TempDir() + "/krtracker_limited.csv", "--json", json});
  ASSERT_EQ(r.code, 0) << r.err;
  for (const char* note :
       {"note: Kibo cannot look behind: phase 'look behind' runs without the turn",
        "note: Kibo cannot point: 3 pointAt call(s) skipped"})
    EXPECT_NE(r.out.find(note), std::string::npos) << r.out;
  // Every phase ran; none has a line of sight or an arm measured.
  const auto summary = nlohmann::json::parse(readFile(json));
  std::vector<std::string> phases;
  for (const auto& phase : summary.at("phases")) {
    phases.push_back(phase.at("name").get<std::string>());
    EXPECT_TRUE(phase.at("los_rms_deg").is_null()) << phases.back();
    EXPECT_TRUE(phase.at("arms_rms_deg").is_null()) << phases.back();
  }
  EXPECT_EQ(phases,
            (std::vector<std::string>{"look behind", "point LArm", "point RArm", "point Arms"}));
}

// Scenarios written by users as YAML files.
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

std::string writeScenario(const std::string& name, const std::string& text) {
  const std::string path = freshDirectory("scenarios") + "/" + name + ".yaml";
  std::ofstream(path) << text;
  return path;
}

// Outputs are written whole or not at all, and a run's files all come from that run.
std::string outputsIn(const std::string& dir) {
  auto names = filesIn(dir);
  std::sort(names.begin(), names.end());
  std::string text;
  for (const auto& n : names)
    text += n + " ";
  return text;
}

// Each case: an optional first run of 2 s, then a second one into the same outputs (--csv o.csv
// --plot o.png --json o.json), with what the folder holds after it. A run writes one CSV and
// plot per run of many (suffixes -compensation-on/off, -seedN), replaces all of a previous
// run's outputs together, and leaves them as they were when it is refused or fails.
TEST(OutputFilesTest, EachRunLeavesCompleteFilesOfItsOwnOrThePreviousOnes) {
  const std::string track = "  - {time: 0, call: track, args: [RedBall]}";
  const std::string kept = "o.csv o.json o.png ";
  const struct {
    std::string name;
    bool first;
    std::string options;   // of the second run, which also has the scenario's edit below
    std::string from, to;  // the edit
    int code;
    std::string error;  // in the one line of a refused or failed run
    std::string files;
  } cases[] = {
      {"seeds", false, "--duration 2 --seeds 3-4", "", "", 0, "",
       "o-seed3.csv o-seed3.png o-seed4.csv o-seed4.png o.json "},
      {"compare", false, "--duration 2 --compare compensation", "", "", 0, "",
       "o-compensation-off.csv o-compensation-off.png o-compensation-on.csv "
       "o-compensation-on.png o.json "},
      {"seeds_and_compare", false, "--duration 2 --seeds 3-4 --compare compensation", "", "", 0, "",
       "o-compensation-off-seed3.csv o-compensation-off-seed3.png o-compensation-off-seed4.csv "
       "o-compensation-off-seed4.png o-compensation-on-seed3.csv o-compensation-on-seed3.png "
       "o-compensation-on-seed4.csv o-compensation-on-seed4.png o.json "},
      // A run that simulates nothing draws no plot: the older run's picture goes with its CSV.
      {"replaced_together", true, "--duration 0.001", "", "", 0, "", "o.csv o.json "},
      // Refused before anything runs (each fault of a file: scenario_file_test.cpp): the first
      // run's files stay as they were.
      {"misspelt_call", true, "--duration 2", "call: track", "call: trak", 2,
       ".yaml:18: actions[2].call: KRTracker has no method 'trak'", kept},
      // A value the tracker itself rejects is only found when the call runs, 1 s in.
      {"failed_run", true, "--duration 2", track,
       track + "\n  - {time: 1, call: setEffector, args: [Leg]}", 1, "Invalid effector name", kept},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string dir = freshDirectory("outputs_" + c.name);
    auto run = [&](const std::string& options, const std::string& scenario) {
      std::vector<std::string> a = {"--scenario",   scenario, "--quiet",      "--physics",
                                    "kinematic",    "--csv",  dir + "/o.csv", "--plot",
                                    dir + "/o.png", "--json", dir + "/o.json"};
      std::istringstream words(options);
      for (std::string w; words >> w;)
        a.push_back(w);
      return runWithTracker(a);
    };
    std::map<std::string, std::string> before;
    if (c.first) {
      ASSERT_EQ(run("--duration 2", writeScenario("table", kUserScenario)).code, 0);
      for (const auto& n : filesIn(dir))
        before[n] = readFile(dir + "/" + n);
    }
    const std::string edited =
        c.from.empty() ? kUserScenario : replaced(kUserScenario, c.from, c.to);
    const Result r = run(c.options, writeScenario("table_" + c.name, edited));
    EXPECT_EQ(r.code, c.code) << r.err;
    EXPECT_NE(r.err.find(c.error), std::string::npos) << r.err;
    EXPECT_EQ(outputsIn(dir), c.files);
    if (c.name == "replaced_together") {
      EXPECT_NE(r.out.find("Plot: not drawn, nothing was simulated"), std::string::npos) << r.out;
    }
    // Each CSV left holds the whole run that wrote it: 100 lines a second and the header.
    const double seconds = c.code != 0 ? 2.0 : std::stod(c.options.substr(11));
    std::set<std::string> csvs;
    for (const auto& n : filesIn(dir)) {
      const std::string text = readFile(dir + "/" + n);
      if (c.code != 0) {
        EXPECT_EQ(text, before[n]) << n;
      }
      if (n.size() > 4 && n.compare(n.size() - 4, 4, ".csv") == 0) {
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), std::lround(seconds * 100) + 1) << n;
        csvs.insert(text);
      }
    }
    // Each file of many runs is its own run: another seed, or compensation off, gives other
    // samples.
    std::size_t listed = 0;
    for (auto at = c.files.find(".csv"); at != std::string::npos; at = c.files.find(".csv", at + 1))
      ++listed;
    EXPECT_EQ(csvs.size(), listed);
  }
}

}  // namespace
