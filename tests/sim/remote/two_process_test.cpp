// The two processes of a run over DDS, started as the user starts them (krtracker-sim
// remote-tracker and remote-robot), each case on a topic prefix of its own, on loopback: a run
// that ends together on both sides; each side's stop signal, death or stall noticed by the
// other, which ends with its summary, a JSON status and a non-zero exit; a side alone that says
// what it waits for and gives up; a second side on a prefix in use refused. Times are waited
// for with generous bounds and printed, never asserted.

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <kr/broker/remote.h>
#include <nlohmann/json.hpp>

#include "sim/helpers.h"

extern char** environ;

namespace {

using krtest::readFile;
using Clock = std::chrono::steady_clock;

// A generous bound on anything these tests wait for, so that a hang fails rather than blocks.
constexpr double kPatienceS = 60.0;

std::string freshFolder(const std::string& name) {
  const std::string dir =
      ::testing::TempDir() + "/krsim_two_process_" + name + "_" + std::to_string(::getpid());
  ::mkdir(dir.c_str(), 0755);
  for (const char* file :
       {"robot.json", "robot.csv", "robot.png", "tracker.json", "second.json", "second.csv"})
    ::unlink((dir + "/" + file).c_str());
  return dir;
}

// A topic prefix no other test run uses.
std::string uniquePrefix(const std::string& name) {
  return "krtest_" + std::to_string(::getpid()) + "_" + name;
}

// krtracker-sim started with `args` on `prefix`, its output and errors in DIR/NAME.out, .err.
struct Side {
  // `fromScript`: started as a script starts a job in the background, SIGINT ignored.
  Side(const std::vector<std::string>& args, const std::string& prefix, const std::string& dir,
       const std::string& name, bool fromScript = false)
      : out(dir + "/" + name + ".out"), err(dir + "/" + name + ".err") {
    std::vector<std::string> argv = {KRTRACKER_SIM_BINARY};
    if (fromScript)
      argv = {"/bin/sh", "-c", "trap '' INT; exec \"$0\" \"$@\"", KRTRACKER_SIM_BINARY};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<std::string> env;
    for (char** e = environ; *e != nullptr; ++e) {
      const std::string entry = *e;
      // Loopback whatever the environment asks for: interface lo, multicast off, 127.0.0.1
      // the one discovery peer (KR::kLoopbackDdsConfig), given explicitly.
      if (entry.rfind("KRTRACKER_REMOTE_PREFIX=", 0) != 0 &&
          entry.rfind("KRTRACKER_DDS_CONFIG=", 0) != 0 && entry.rfind("CYCLONEDDS_URI=", 0) != 0)
        env.push_back(entry);
    }
    env.push_back("KRTRACKER_REMOTE_PREFIX=" + prefix);
    env.push_back(std::string("KRTRACKER_DDS_CONFIG=") + KR::kLoopbackDdsConfig);
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
      ::kill(pid, SIGCONT);
      ::kill(pid, SIGKILL);
      ::waitpid(pid, nullptr, 0);
    }
  }

  // Whether the process has ended (its exit code kept, 128 + the signal's number for a process
  // killed by one).
  bool ended() {
    int status = 0;
    if (code < 0 && pid > 0 && ::waitpid(pid, &status, WNOHANG) == pid)
      code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return code >= 0 || pid <= 0;
  }

  // The exit code; -1 when the process is still running after kPatienceS.
  int wait() {
    const auto end = Clock::now() + std::chrono::duration<double>(kPatienceS);
    while (!ended() && Clock::now() < end)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return code;
  }

  std::string output() const { return readFile(out); }
  std::string errors() const { return readFile(err); }

  // Waits until the output holds `text`; false after kPatienceS or when the process ended
  // without it.
  bool waitForOutput(const std::string& text) {
    const auto end = Clock::now() + std::chrono::duration<double>(kPatienceS);
    while (Clock::now() < end) {
      if (output().find(text) != std::string::npos)
        return true;
      if (ended())
        return output().find(text) != std::string::npos;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
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

std::vector<std::string> robotArgs(const std::string& json, const std::string& duration) {
  const std::string stem = json.substr(0, json.size() - 5);
  return {"remote-robot", "--physics", "kinematic", "--quiet",     "--robot", "rover",
          "--seed",       "7",         "--latency", "0.05",        "--json",  json,
          "--duration",   duration,    "--csv",     stem + ".csv", "--plot",  stem + ".png"};
}

std::vector<std::string> trackerArgs(const std::string& json) {
  return {"remote-tracker", "--json", json};
}

enum class Start { Both, RobotAlone, TrackerAlone, SecondRobot, SecondTracker };
enum class Who { Robot, Tracker };

// How a side ends. "{P}" in a text stands for the case's topic prefix.
struct Ending {
  int code = -1;                      // -1: the side is not started
  std::optional<std::string> status;  // the start of its JSON's status; "" no JSON; unchecked
  std::string errors;                 // its whole error stream
  std::string said = "";              // a line of its output
};

Ending ends(int code, std::optional<std::string> status, std::string errors = "",
            std::string said = "") {
  return {code, std::move(status), std::move(errors), std::move(said)};
}

struct Fault {
  std::string name;
  Start start;
  std::string duration;  // of the robot side's run [s]
  int signal;            // sent to `target` once the run goes on; 0 none
  Who target;
  bool fromScript;  // the target started in the background of a script (SIGINT ignored)
  Ending robot, tracker, second = {};
};

std::string withPrefix(std::string text, const std::string& prefix) {
  for (auto at = text.find("{P}"); at != std::string::npos; at = text.find("{P}", at))
    text.replace(at, 3, prefix);
  return text;
}

const std::string kTrackerLost =
    "the tracking service was lost: no sign of life for 500 ms (killed, stopped or cut off)";
const std::string kRobotLost =
    "the robot side was lost: no sign of life for 500 ms (killed, stopped or cut off)";
const std::string kInUse =
    "krtracker-sim: topic prefix '{P}' is in use: another {S} is on it; give each run a prefix "
    "of its own (KRTRACKER_REMOTE_PREFIX)\n";

std::string inUse(const std::string& side) {
  std::string text = kInUse;
  return text.replace(text.find("{S}"), 3, side);
}

// Each way a two-process run can end: how it is started, what is done to it, how each side
// ends.
const Fault kFaults[] = {
    {"completed", Start::Both, "1.5", 0, Who::Robot, false, ends(0, "completed"),
     ends(0, "the robot side ended: completed")},
    {"robot_sigint_from_a_script", Start::Both, "30", SIGINT, Who::Robot, true,
     ends(128 + SIGINT, "stopped by signal 2"),
     ends(0, "the robot side ended: stopped by signal 2")},
    {"robot_sigterm", Start::Both, "30", SIGTERM, Who::Robot, false,
     ends(128 + SIGTERM, "stopped by signal 15"),
     ends(0, "the robot side ended: stopped by signal 15")},
    {"tracker_sigint_from_a_script", Start::Both, "30", SIGINT, Who::Tracker, true,
     ends(3, "the tracking service ended: stopped by signal 2"),
     ends(128 + SIGINT, "stopped by signal 2")},
    {"tracker_sigterm", Start::Both, "30", SIGTERM, Who::Tracker, false,
     ends(3, "the tracking service ended: stopped by signal 15"),
     ends(128 + SIGTERM, "stopped by signal 15")},
    // Killed before the action at 20 s, or after the last action (the run ends at 4 s).
    {"tracker_killed", Start::Both, "30", SIGKILL, Who::Tracker, false, ends(3, kTrackerLost),
     ends(128 + SIGKILL, "")},
    {"tracker_killed_after_the_last_action", Start::Both, "4", SIGKILL, Who::Tracker, false,
     ends(3, kTrackerLost), ends(128 + SIGKILL, "")},
    {"robot_killed", Start::Both, "30", SIGKILL, Who::Robot, false, ends(128 + SIGKILL, ""),
     ends(3, kRobotLost)},
    // Stopped, then let go once the other side has ended: it finds the run over.
    {"tracker_stopped", Start::Both, "30", SIGSTOP, Who::Tracker, false, ends(3, kTrackerLost),
     ends(3, std::nullopt)},
    {"robot_stopped", Start::Both, "30", SIGSTOP, Who::Robot, false, ends(3, std::nullopt),
     ends(3, kRobotLost)},
    {"robot_alone", Start::RobotAlone, "1", 0, Who::Robot, false,
     ends(4, "",
          "krtracker-sim: robot side: no tracking service appeared on topic prefix '{P}' within "
          "1 s\n",
          "robot side: waiting for the tracking service on topic prefix '{P}' (krtracker-sim "
          "remote-tracker with the same KRTRACKER_REMOTE_PREFIX), giving up after 1 s"),
     Ending()},
    {"tracker_alone", Start::TrackerAlone, "1", 0, Who::Tracker, false, Ending(),
     ends(4, "",
          "krtracker-sim: tracking service: no robot side appeared on topic prefix '{P}' within "
          "1 s\n",
          "tracking service: waiting for the robot side on topic prefix '{P}' (krtracker-sim "
          "remote-robot with the same KRTRACKER_REMOTE_PREFIX), giving up after 1 s")},
    // The run already on the prefix goes on undisturbed.
    {"second_robot", Start::SecondRobot, "3", 0, Who::Robot, false, ends(0, "completed"),
     ends(0, "the robot side ended: completed"), ends(2, "", inUse("robot side"))},
    {"second_tracker", Start::SecondTracker, "3", 0, Who::Robot, false, ends(0, "completed"),
     ends(0, "the robot side ended: completed"), ends(2, "", inUse("tracking service"))},
};

class TwoProcessRun : public ::testing::TestWithParam<Fault> {};

// The other side's line saying why it stops, and the time from the signal to it and to the
// other side's exit; printed, not asserted.
void measure(const Fault& f, Side& other, Clock::time_point sent) {
  const bool robot = f.target == Who::Tracker;
  const bool noticed = other.waitForOutput(robot ? "Stopped (" : "; stopping");
  const double noticedS = std::chrono::duration<double>(Clock::now() - sent).count();
  other.wait();
  const double exitedS = std::chrono::duration<double>(Clock::now() - sent).count();
  EXPECT_TRUE(noticed) << other.output();
  std::printf("%s: the %s said why it stops %.2f s after the signal, exited after %.2f s\n",
              f.name.c_str(), robot ? "robot side" : "tracking service", noticedS, exitedS);
}

void expectEnding(const char* side, Side* process, const Ending& e, const std::string& json,
                  const std::string& prefix) {
  SCOPED_TRACE(side);
  if (e.code < 0) {
    EXPECT_EQ(process, nullptr);
    return;
  }
  ASSERT_NE(process, nullptr);
  EXPECT_EQ(process->wait(), e.code) << process->errors();
  EXPECT_EQ(process->errors(), withPrefix(e.errors, prefix));
  if (!e.said.empty()) {
    EXPECT_NE(process->output().find(withPrefix(e.said, prefix)), std::string::npos)
        << process->output();
  }
  if (e.status && e.status->empty()) {
    EXPECT_EQ(readFile(json), "") << "nothing written";
  } else if (e.status) {
    EXPECT_EQ(statusOf(json).rfind(*e.status, 0), 0u) << statusOf(json);
  }
  // A side that ran to an end of its own prints its summary.
  if (e.code != 2 && e.code != 4 && e.code != 128 + SIGKILL) {
    EXPECT_NE(process->output().find("Summary"), std::string::npos) << process->output();
  }
}

TEST_P(TwoProcessRun, EachSideEndsAsItSays) {
  const Fault& f = GetParam();
  const std::string dir = freshFolder(f.name);
  const std::string prefix = uniquePrefix(f.name);
  const std::string robotJson = dir + "/robot.json", trackerJson = dir + "/tracker.json";
  const std::string secondJson = dir + "/second.json";
  std::vector<std::string> trackerLine = trackerArgs(trackerJson);
  std::vector<std::string> robotLine = robotArgs(robotJson, f.duration);
  if (f.start == Start::RobotAlone || f.start == Start::TrackerAlone) {
    trackerLine.insert(trackerLine.end(), {"--wait", "1"});
    robotLine.insert(robotLine.end(), {"--wait", "1"});
  }
  std::optional<Side> tracker, robot, second;
  if (f.start != Start::RobotAlone)
    tracker.emplace(trackerLine, prefix, dir, "tracker", f.fromScript && f.target == Who::Tracker);
  if (f.start != Start::TrackerAlone)
    robot.emplace(robotLine, prefix, dir, "robot", f.fromScript && f.target == Who::Robot);
  if (tracker && robot) {
    ASSERT_TRUE(robot->waitForOutput("robot side: found the tracking service; running ball"))
        << tracker->errors() << robot->errors();
    std::this_thread::sleep_for(std::chrono::seconds(1));  // into the run
  }
  if (f.start == Start::SecondRobot)
    second.emplace(robotArgs(secondJson, f.duration), prefix, dir, "second");
  if (f.start == Start::SecondTracker)
    second.emplace(trackerArgs(secondJson), prefix, dir, "second");
  if (f.signal != 0) {
    Side& target = f.target == Who::Robot ? *robot : *tracker;
    Side& other = f.target == Who::Robot ? *tracker : *robot;
    const auto sent = Clock::now();
    ::kill(target.pid, f.signal);
    measure(f, other, sent);
    if (f.signal == SIGSTOP)
      ::kill(target.pid, SIGCONT);
  }
  expectEnding("second", second ? &*second : nullptr, f.second, secondJson, prefix);
  expectEnding("robot side", robot ? &*robot : nullptr, f.robot, robotJson, prefix);
  expectEnding("tracking service", tracker ? &*tracker : nullptr, f.tracker, trackerJson, prefix);

  // The robot side's run, measured as far as it went, with the options it was given; the
  // tracking service knows the run it served.
  const auto run = jsonOf(robotJson);
  const double duration = std::stod(f.duration);
  if (run.is_object()) {
    EXPECT_EQ(run["transport"], "dds");
    EXPECT_EQ(run["robot"], "Rover");
    EXPECT_EQ(run["seed"], 7);
    EXPECT_EQ(run["latency_s"], 0.05);
    const double simulated = run["simulated_s"].get<double>();
    if (run["status"] == "completed") {
      EXPECT_EQ(simulated, duration);
      const std::string csv = readFile(dir + "/robot.csv");
      EXPECT_EQ(std::count(csv.begin(), csv.end(), '\n'), std::lround(duration * 100) + 1);
      EXPECT_EQ(readFile(dir + "/robot.png").rfind("\x89PNG", 0), 0u);
    } else {
      EXPECT_GT(simulated, 0.0);
      EXPECT_LT(simulated, duration);
    }
  }
  const auto served = jsonOf(trackerJson);
  if (served.is_object() && run.is_object()) {
    EXPECT_EQ(served["scenario"], "ball");
    EXPECT_EQ(served["robot"], "Rover");
    EXPECT_EQ(served["seed"], "7");
    EXPECT_GT(served["calls_answered"].get<int>(), 0);
  }
  if (!HasFailure())
    std::filesystem::remove_all(dir);  // kept for a look when the case failed
}

INSTANTIATE_TEST_SUITE_P(Faults, TwoProcessRun, ::testing::ValuesIn(kFaults),
                         [](const ::testing::TestParamInfo<Fault>& info) {
                           return info.param.name;
                         });

}  // namespace
