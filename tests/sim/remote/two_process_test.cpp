// The two processes of a run over DDS, started as the user starts them (krtracker-sim
// remote-tracker and remote-robot), each test on topic prefixes of its own, on loopback: a run
// that ends together on both sides; each side's death, stall or stop signal noticed by the
// other, which ends with its summary, a JSON status and a non-zero exit; a side alone that says
// what it waits for and gives up; a second side on a prefix in use refused. Times are waited
// for with generous bounds and printed, never asserted.

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "sim/helpers.h"

extern char** environ;

namespace {

using krtest::readFile;
using Clock = std::chrono::steady_clock;

// A generous bound on anything these tests wait for, so that a hang fails rather than blocks.
constexpr double kPatienceS = 60.0;

std::string freshFolder(const std::string& name) {
  const std::string dir = ::testing::TempDir() + "/krsim_two_process_" + name;
  ::mkdir(dir.c_str(), 0755);
  for (const char* file : {"robot.json", "robot.csv", "tracker.json"})
    ::unlink((dir + "/" + file).c_str());
  return dir;
}

// A topic prefix no other test run uses.
std::string uniquePrefix(const std::string& name) {
  return "krtest_" + std::to_string(::getpid()) + "_" + name;
}

// krtracker-sim started with `args` on `prefix`, its output and errors in DIR/NAME.out, .err.
struct Side {
  Side(const std::vector<std::string>& args, const std::string& prefix, const std::string& dir,
       const std::string& name)
      : out(dir + "/" + name + ".out"), err(dir + "/" + name + ".err") {
    std::vector<std::string> argv = {KRTRACKER_SIM_BINARY};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<std::string> env;
    for (char** e = environ; *e != nullptr; ++e) {
      const std::string entry = *e;
      // Loopback, the transport's default, whatever the environment asks for.
      if (entry.rfind("KRTRACKER_REMOTE_PREFIX=", 0) != 0 &&
          entry.rfind("KRTRACKER_DDS_CONFIG=", 0) != 0 && entry.rfind("CYCLONEDDS_URI=", 0) != 0)
        env.push_back(entry);
    }
    env.push_back("KRTRACKER_REMOTE_PREFIX=" + prefix);
    std::vector<char*> argp, envp;
    for (auto& a : argv)
      argp.push_back(a.data());
    argp.push_back(nullptr);
    for (auto& e : env)
      envp.push_back(e.data());
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int rc = posix_spawn(&pid, argp[0], &actions, nullptr, argp.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0)
      ADD_FAILURE() << "cannot start " << argv[0] << ": " << std::strerror(rc);
  }
  ~Side() {
    if (pid > 0 && code < 0) {
      ::kill(pid, SIGKILL);
      wait();
    }
  }

  // The exit code, 128 + the signal's number for a process killed by one.
  int wait() {
    if (code >= 0 || pid <= 0)
      return code;
    int status = 0;
    ::waitpid(pid, &status, 0);
    code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return code;
  }

  std::string output() const { return readFile(out); }
  std::string errors() const { return readFile(err); }

  // Waits until the output holds `text`; false after kPatienceS or when the process ended.
  bool waitForOutput(const std::string& text) const {
    const auto end = Clock::now() + std::chrono::duration<double>(kPatienceS);
    while (Clock::now() < end) {
      if (output().find(text) != std::string::npos)
        return true;
      int status = 0;
      if (::waitpid(pid, &status, WNOHANG) == pid) {
        const_cast<Side*>(this)->code = WIFEXITED(status) ? WEXITSTATUS(status) : 128;
        return output().find(text) != std::string::npos;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
  }

  pid_t pid = -1;
  int code = -1;
  std::string out, err;
};

nlohmann::json jsonOf(const std::string& path) {
  const std::string text = readFile(path);
  return text.empty() ? nlohmann::json() : nlohmann::json::parse(text, nullptr, false);
}

std::string statusOf(const std::string& path) {
  const auto j = jsonOf(path);
  return j.is_object() && j.contains("status") ? j["status"].get<std::string>() : "(no status)";
}

std::vector<std::string> robotArgs(const std::string& dir, const std::string& duration) {
  return {"remote-robot", "--physics", "kinematic",        "--quiet", "--duration",
          duration,       "--csv",     dir + "/robot.csv", "--json",  dir + "/robot.json"};
}

std::vector<std::string> trackerArgs(const std::string& dir) {
  return {"remote-tracker", "--json", dir + "/tracker.json"};
}

TEST(TwoProcessRun, BothSidesEndTogetherWithTheirSummaries) {
  const std::string dir = freshFolder("together");
  const std::string prefix = uniquePrefix("together");
  Side tracker(trackerArgs(dir), prefix, dir, "tracker");
  std::vector<std::string> args = robotArgs(dir, "1.5");
  args.insert(args.end(), {"--seed", "7", "--latency", "0.05"});
  Side robot(args, prefix, dir, "robot");
  ASSERT_EQ(robot.wait(), 0) << robot.errors();
  ASSERT_EQ(tracker.wait(), 0) << tracker.errors();
  const auto json = jsonOf(dir + "/robot.json");
  EXPECT_EQ(json["transport"], "dds");
  EXPECT_EQ(json["status"], "completed");
  EXPECT_EQ(json["seed"], 7);  // the run options of the one-process run
  EXPECT_EQ(json["latency_s"], 0.05);
  EXPECT_EQ(json["simulated_s"], 1.5);
  const std::string csv = readFile(dir + "/robot.csv");
  EXPECT_EQ(std::count(csv.begin(), csv.end(), '\n'), 151);  // header and 1.5 s of steps
  EXPECT_NE(robot.output().find("\nSummary: 1.5 s simulated"), std::string::npos);
  const auto served = jsonOf(dir + "/tracker.json");
  EXPECT_EQ(served["status"], "the robot side ended: completed");
  EXPECT_EQ(served["scenario"], "ball");
  EXPECT_EQ(served["seed"], "7");
  EXPECT_GT(served["calls_answered"].get<int>(), 0);
  EXPECT_NE(tracker.output().find("Summary (tracking service, topic prefix '" + prefix + "')"),
            std::string::npos);
  // The robot side's copy of the configuration after each action says nothing.
  EXPECT_EQ(tracker.errors(), "");
  EXPECT_EQ(robot.errors(), "");
}

// One side signalled while the run goes on: the other notices, prints its summary, writes its
// JSON with the reason and exits non-zero; a side stopped by SIGINT or SIGTERM does the same
// with 128 + the signal.
TEST(TwoProcessRun, EachSideNoticesTheOthersEnd) {
  const struct {
    const char* name;
    bool signalTracker;
    int signal;
    int signalledCode;
    std::string signalledStatus;  // of the signalled side's JSON, empty when it writes none
    int otherCode;
    std::string otherStatus;  // the start of the other side's JSON status
  } cases[] = {
      {"tracker_killed", true, SIGKILL, 128 + SIGKILL, "", 3,
       "the tracking service was lost: no sign of life for 500 ms"},
      {"tracker_stopped", true, SIGSTOP, 3, "", 3,
       "the tracking service was lost: no sign of life for 500 ms"},
      {"robot_killed", false, SIGKILL, 128 + SIGKILL, "", 3,
       "the robot side was lost: no sign of life for 500 ms"},
      {"robot_interrupted", false, SIGINT, 128 + SIGINT, "stopped by signal 2", 0,
       "the robot side ended: stopped by signal 2"},
      {"tracker_terminated", true, SIGTERM, 128 + SIGTERM, "stopped by signal 15", 3,
       "the tracking service ended: stopped by signal 15"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string dir = freshFolder(c.name);
    const std::string prefix = uniquePrefix(c.name);
    Side tracker(trackerArgs(dir), prefix, dir, "tracker");
    Side robot(robotArgs(dir, "30"), prefix, dir, "robot");
    ASSERT_TRUE(tracker.waitForOutput("serving")) << tracker.errors() << robot.errors();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));  // into the run
    Side& signalled = c.signalTracker ? tracker : robot;
    Side& other = c.signalTracker ? robot : tracker;
    const auto sent = Clock::now();
    ::kill(signalled.pid, c.signal);
    const int otherCode = other.wait();
    const double seconds = std::chrono::duration<double>(Clock::now() - sent).count();
    std::printf("%s: the other side exited %.2f s after the signal\n", c.name, seconds);
    if (c.signal == SIGSTOP)
      ::kill(signalled.pid, SIGCONT);
    EXPECT_EQ(signalled.wait(), c.signalledCode) << signalled.errors();
    EXPECT_EQ(otherCode, c.otherCode) << other.errors();
    const std::string otherJson = dir + (c.signalTracker ? "/robot.json" : "/tracker.json");
    EXPECT_EQ(statusOf(otherJson).rfind(c.otherStatus, 0), 0u) << statusOf(otherJson);
    EXPECT_NE(other.output().find("Summary"), std::string::npos) << other.output();
    if (!c.signalledStatus.empty()) {
      const std::string ownJson = dir + (c.signalTracker ? "/tracker.json" : "/robot.json");
      EXPECT_EQ(statusOf(ownJson), c.signalledStatus);
      EXPECT_NE(signalled.output().find("Summary"), std::string::npos) << signalled.output();
    }
    // The robot side's run ended early, measured as far as it went.
    const auto run = jsonOf(dir + "/robot.json");
    if (run.is_object()) {
      EXPECT_GT(run["simulated_s"].get<double>(), 0.0);
      EXPECT_LT(run["simulated_s"].get<double>(), 30.0);
    }
  }
}

TEST(TwoProcessRun, ASideAloneSaysWhatItWaitsForAndGivesUp) {
  const std::string dir = freshFolder("alone");
  const std::string trackerPrefix = uniquePrefix("alone_tracker");
  const std::string robotPrefix = uniquePrefix("alone_robot");
  std::vector<std::string> args = trackerArgs(dir);
  args.insert(args.end(), {"--wait", "1"});
  Side tracker(args, trackerPrefix, dir, "tracker");
  args = robotArgs(dir, "1");
  args.insert(args.end(), {"--wait", "1"});
  Side robot(args, robotPrefix, dir, "robot");
  EXPECT_EQ(tracker.wait(), 4);
  EXPECT_EQ(robot.wait(), 4);
  EXPECT_NE(tracker.output().find("tracking service: waiting for the robot side on topic prefix '" +
                                  trackerPrefix + "' (krtracker-sim remote-robot"),
            std::string::npos)
      << tracker.output();
  EXPECT_EQ(tracker.errors(),
            "krtracker-sim: tracking service: no robot side appeared on topic "
            "prefix '" +
                trackerPrefix + "' within 1 s\n");
  EXPECT_NE(robot.output().find("robot side: waiting for the tracking service on topic prefix '" +
                                robotPrefix + "' (krtracker-sim remote-tracker"),
            std::string::npos)
      << robot.output();
  EXPECT_EQ(robot.errors(),
            "krtracker-sim: robot side: no tracking service appeared on topic "
            "prefix '" +
                robotPrefix + "' within 1 s\n");
  // Nothing ran: nothing written.
  EXPECT_EQ(readFile(dir + "/robot.json"), "");
  EXPECT_EQ(readFile(dir + "/tracker.json"), "");
}

// A second robot side, or a second tracking service, on a prefix in use is refused before it
// does anything, naming the prefix; the run already there goes on undisturbed.
TEST(TwoProcessRun, ASecondSideOnAPrefixInUseIsRefused) {
  const std::string dir = freshFolder("in_use");
  const std::string prefix = uniquePrefix("in_use");
  Side tracker(trackerArgs(dir), prefix, dir, "tracker");
  Side robot(robotArgs(dir, "3"), prefix, dir, "robot");
  ASSERT_TRUE(tracker.waitForOutput("serving")) << tracker.errors() << robot.errors();
  const std::string refusal = "krtracker-sim: topic prefix '" + prefix + "' is in use: another ";
  const std::string other = freshFolder("in_use_other");
  Side secondRobot(robotArgs(other, "3"), prefix, dir, "second_robot");
  Side secondTracker(trackerArgs(other), prefix, dir, "second_tracker");
  EXPECT_EQ(secondRobot.wait(), 2);
  EXPECT_EQ(secondRobot.errors(), refusal +
                                      "robot side is on it; give each run a prefix of its "
                                      "own (KRTRACKER_REMOTE_PREFIX)\n");
  EXPECT_EQ(secondTracker.wait(), 2);
  EXPECT_EQ(secondTracker.errors().rfind(refusal + "tracking service is on it", 0), 0u)
      << secondTracker.errors();
  EXPECT_EQ(readFile(other + "/robot.json"), "");
  EXPECT_EQ(robot.wait(), 0) << robot.errors();
  EXPECT_EQ(tracker.wait(), 0) << tracker.errors();
  EXPECT_EQ(statusOf(dir + "/robot.json"), "completed");
}

}  // namespace
