// Bad command lines and bad robot descriptions given to krtracker-sim: each gives exactly one
// line on the error stream that names the option or the file and what is wrong with it, exit
// code 2, nothing on the output stream, and no output file, not even an empty one.

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <krsim/cli.h>

#include "cli_fixture.h"
#include "support/fake_module.h"

namespace {

using Result = krtest::CommandResult;

Result run(const std::vector<std::string>& args) {
  return krtest::runCli(args);
}

// An empty directory of its own for each test's outputs.
std::string freshDirectory(const std::string& name) {
  const std::string dir = ::testing::TempDir() + "/krtracker_cli_" + name;
  ::mkdir(dir.c_str(), 0755);
  return dir;
}

std::vector<std::string> filesIn(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = ::opendir(dir.c_str())) {
    while (const dirent* e = ::readdir(d)) {
      const std::string n = e->d_name;
      if (n != "." && n != "..") {
        names.push_back(n);
      }
    }
    ::closedir(d);
  }
  return names;
}

void expectOneLineRefusal(const Result& r, const std::vector<std::string>& fragments,
                          const std::string& outputs) {
  EXPECT_EQ(r.code, 2) << r.err;
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err.rfind("krtracker-sim: ", 0), 0u) << r.err;
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  EXPECT_EQ(r.err.back(), '\n');
  for (const std::string& f : fragments) {
    EXPECT_NE(r.err.find(f), std::string::npos) << "'" << f << "' not in: " << r.err;
  }
  EXPECT_TRUE(filesIn(outputs).empty()) << "left behind: " << filesIn(outputs).front();
}

TEST(CommandLineErrors, EachBadOptionIsNamedAndNothingIsWritten) {
  const std::string dir = freshDirectory("options");
  const std::vector<std::string> outputs = {"--csv", dir + "/run.csv", "--plot", dir + "/run.png"};
  const struct {
    std::vector<std::string> args;
    std::vector<std::string> fragments;  // what the one line must say
  } cases[] = {
      // Every option that takes a value, without it.
      {{"--scenario"}, {"--scenario", "needs a value"}},
      {{"--robot"}, {"--robot", "needs a value"}},
      {{"--mode"}, {"--mode", "needs a value"}},
      {{"--effector"}, {"--effector", "needs a value"}},
      {{"--seed"}, {"--seed", "needs a value"}},
      {{"--noise"}, {"--noise", "needs a value"}},
      {{"--duration"}, {"--duration", "needs a value"}},
      {{"--csv", dir + "/other.csv", "--plot"}, {"--plot", "needs a value"}},
      // Values of the wrong kind or out of range.
      {{"--seed", "4294967296"}, {"--seed", "'4294967296'"}},
      {{"--seed", "seven"}, {"--seed", "'seven'"}},
      {{"--noise", "-0.1"}, {"--noise", "non-negative"}},
      {{"--noise", "inf"}, {"--noise", "'inf'"}},
      {{"--duration", "-5"}, {"--duration", "positive"}},
      {{"--duration", "nan"}, {"--duration", "'nan'"}},
      // Beyond the range of the floats the numbers are kept in.
      {{"--noise", "1e39"}, {"--noise", "'1e39'"}},
      {{"--mode", "head"}, {"--mode", "'head'"}},
      {{"--effector", "arms"}, {"--effector", "'arms'"}},
      {{"--scenario", ""}, {"scenario ''"}},
      {{"--mode", "Navigate", "--robot", "kibo"}, {"Navigate", "Kibo", "type 0"}},
      // A later bad option after good ones still refuses the whole line.
      {{"--seed", "3", "--duration", "2", "--frobnicate"}, {"'--frobnicate'"}},
      {{"--robot", dir + "/missing.xml"}, {"cannot load robot", dir + "/missing.xml"}},
      // New options: values out of their range, non-finite, of the wrong kind.
      {{"--latency", "nan"}, {"--latency", "'nan'"}},
      {{"--latency", "-0.1"}, {"--latency", "0 to 10"}},
      {{"--dropout", "1.5"}, {"--dropout", "probability"}},
      {{"--camera-rate", "0"}, {"--camera-rate", "above 0"}},
      {{"--camera-rate", "inf"}, {"--camera-rate", "'inf'"}},
      {{"--compensation", "maybe"}, {"--compensation", "'maybe'"}},
      {{"--compare", "latency"}, {"--compare", "'latency'"}},
      {{"--seeds", "5-2"}, {"--seeds", "'5-2'"}},
      {{"--seeds", "1-x"}, {"--seeds", "'1-x'"}},
      {{"--physics", "bullet"}, {"--physics", "bullet"}},
      // A duration the run cannot hold, or past the end of the script (refused, not repeated).
      {{"--duration", "1e9"}, {"--duration", "longest run"}},
      {{"--duration", "61"}, {"past the end", "ball", "60 s", "refused rather than repeated"}},
      // A scenario that needs a mode the robot lacks: refused, not run in another mode.
      {{"--scenario", "navigate", "--robot", "kibo"}, {"Navigate", "Kibo"}},
      // Inputs that are not regular files.
      {{"--robot", "/dev/zero"}, {"robot", "/dev/zero", "not a regular file"}},
      {{"--robot", dir}, {"robot", "not a regular file"}},
      {{"--scenario", "/dev/null"}, {"scenario", "not a regular file"}},
      // Outputs: an input, twice the same file, a folder that cannot be written.
      {{"--csv", dir + "/x.csv", "--plot", dir + "/x.png", "--json", dir + "/x.csv"},
       {"--json", "also the file of --csv"}},
      {{"--csv", KRTRACKER_ROBOTS_DIR "/kibo.xml", "--plot", dir + "/x.png"},
       {"--csv", "kibo.xml", "input"}},
      {{"--csv", "/proc/krtracker/run.csv", "--plot", dir + "/x.png"}, {"--csv", "cannot write"}},
      {{"--snapshots", "/proc/krtracker"}, {"--snapshots", "not a folder that can be written"}},
      // The angles dry run.
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
  };
  for (const auto& c : cases) {
    std::vector<std::string> args = c.args;
    const bool ownOutputs = std::find(args.begin(), args.end(), "--plot") != args.end() &&
                            std::find(args.begin(), args.end(), "--csv") != args.end();
    if ((args.empty() || args[0] != "angles") && !ownOutputs) {
      args.insert(args.begin(), outputs.begin(), outputs.end());
    }
    std::string line;
    for (const std::string& a : args) {
      line += " " + a;
    }
    SCOPED_TRACE("krtracker-sim" + line);
    expectOneLineRefusal(run(args), c.fragments, dir);
  }
}

// Broken copies of a shipped robot: the line names the file, the element and its line.
TEST(CommandLineErrors, BadRobotDescriptionsNameTheFileAndTheLine) {
  const std::string dir = freshDirectory("robots");
  const std::string outputs = freshDirectory("robot_outputs");
  const std::string kibo = krtest::readRobotFile("kibo.xml");
  auto edited = [&kibo](const std::string& from, const std::string& to) {
    std::string text = kibo;
    const std::size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return at == std::string::npos ? text : text.replace(at, from.size(), to);
  };
  const struct {
    std::string name;
    std::string xml;
    std::vector<std::string> fragments;
  } cases[] = {
      {"truncated", kibo.substr(0, kibo.size() / 2), {"bad XML at line"}},
      {"unknown_attribute",
       edited("maxVelocity=\"7.3\"", "maxVelocty=\"7.3\""),
       {"robot/head/joint[role=yaw] (line 10)", "unknown attribute 'maxVelocty'"}},
      {"text_number",
       edited("range=\"3.2\"", "range=\"far\""),
       {"robot/camera (line 6)", "'range' is not a number: 'far'"}},
      {"inverted_limits",
       edited("min=\"-0.64\" max=\"0.47\"", "min=\"0.64\" max=\"0.47\""),
       {"robot/head/joint[role=pitch] (line 11)", "greater than"}},
      {"missing_arm",
       edited("  <arm side=\"right\">", "  <!-- no right arm -->\n  <arm side=\"left\">"),
       {"duplicate arm side 'left'"}},
      {"binary",
       std::string("\x7f"
                   "ELF\0\x01\x02",
                   7),
       {"bad XML at line 1"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string file = dir + "/" + c.name + ".xml";
    std::ofstream(file, std::ios::binary) << c.xml;
    std::vector<std::string> fragments = c.fragments;
    fragments.push_back("cannot load robot '" + file + "'");
    fragments.push_back(file + ": ");  // the parser's reason follows the file's name
    expectOneLineRefusal(
        run({"--robot", file, "--csv", outputs + "/run.csv", "--plot", outputs + "/run.png"}),
        fragments, outputs);
    expectOneLineRefusal(run({"angles", "--robot", file, "--look-at", "1", "0", "0"}), fragments,
                         outputs);
  }
}

// A big robot description is refused before it is read.
TEST(CommandLineErrors, AnOversizedRobotDescriptionIsRefused) {
  const std::string dir = freshDirectory("big");
  const std::string outputs = freshDirectory("big_outputs");
  const std::string file = dir + "/big.xml";
  std::ofstream(file) << krtest::readRobotFile("kibo.xml") << "<!--" << std::string(2 << 20, 'x')
                      << "-->\n";
  expectOneLineRefusal(
      run({"--robot", file, "--csv", outputs + "/run.csv", "--plot", outputs + "/run.png"}),
      {"robot", file, "bytes"}, outputs);
}

// SIGTERM in the middle of a run: it stops, measures what ran, flushes the CSV and the JSON
// and exits non-zero. The signal is raised from the hook of the second phase's start.
TEST(CommandLineErrors, ASignalStopsTheRunWithEverythingMeasuredSoFarWritten) {
  const std::string dir = freshDirectory("signal");
  KR::Sim::RunHooks hooks;
  hooks.snapshot = [](KR::Sim::Simulation&, const std::string&, const std::string& label) {
    if (label == "whole body + arms")
      std::raise(SIGTERM);
  };
  std::ostringstream out;
  std::ostringstream err;
  const int code = KR::Sim::runCommandLine({"--quiet", "--csv", dir + "/run.csv", "--json",
                                            dir + "/run.json", "--snapshots", dir + "/pictures"},
                                           out, err, &KR::Sim::createTrackerModules, hooks);
  EXPECT_EQ(code, 128 + SIGTERM) << err.str();
  EXPECT_NE(out.str().find("Stopped by signal"), std::string::npos) << out.str();
  EXPECT_NE(out.str().find("head tracking"), std::string::npos);
  std::ifstream csv(dir + "/run.csv");
  std::string line;
  std::string last;
  int rows = -1;
  while (std::getline(csv, line)) {
    ++rows;
    last = line;
  }
  EXPECT_EQ(rows, 2001);  // 20 s, and the step in which the signal came
  std::ifstream json(dir + "/run.json");
  std::stringstream text;
  text << json.rdbuf();
  EXPECT_NE(text.str().find("\"simulated_s\": 20.01"), std::string::npos) << text.str();
  EXPECT_NE(text.str().find("\"name\": \"whole body + arms\""), std::string::npos);
}

}  // namespace
