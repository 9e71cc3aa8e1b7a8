// The live view, under Xvfb (the ctest "live_view_xvfb"): the program's window two seconds in
// shows the robot, its line of sight and the caption; keys change the speed, pause and step;
// closing the window stops the run as SIGINT does. Without a display, the view is refused.
// How closely the view keeps to wall time is measured, not asserted here (README).

#include <atomic>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <GLFW/glfw3.h>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <krsim/report/live_view.h>
#include <krsim/run/run_loop.h>
#include <krsim/tracking/context.h>

#include "sim/helpers.h"
#include "sim/report/child_process.h"
#include "sim/report/tracked_run.h"

namespace {

using namespace krtest;
using testing::HasSubstr;

constexpr int kScreenWidth = 1280;  // Xvfb's screen, as the ctest starts it
constexpr int kScreenHeight = 1024;

bool haveDisplay() {
  const char* display = std::getenv("DISPLAY");
  return display != nullptr && *display != '\0';
}

/// The X screen, RGB, rows top-down; empty when it cannot be read.
std::vector<unsigned char> screenshot() {
  const std::string command = std::string("ffmpeg -v error -f x11grab -video_size ") +
                              std::to_string(kScreenWidth) + "x" + std::to_string(kScreenHeight) +
                              " -i " + std::getenv("DISPLAY") +
                              " -frames:v 1 -f rawvideo -pix_fmt rgb24 - 2>/dev/null";
  std::vector<unsigned char> rgb(3 * kScreenWidth * kScreenHeight);
  FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr)
    return {};
  const bool whole = std::fread(rgb.data(), 1, rgb.size(), pipe) == rgb.size();
  ::pclose(pipe);
  return whole ? rgb : std::vector<unsigned char>();
}

/// Pixels of a rectangle (from the top left) that pass `test`.
template <class Test>
int count(const std::vector<unsigned char>& rgb, int x0, int y0, int w, int h, Test test) {
  int n = 0;
  for (int y = y0; y < y0 + h; ++y) {
    for (int x = x0; x < x0 + w; ++x) {
      const unsigned char* p = &rgb[3 * static_cast<std::size_t>(y * kScreenWidth + x)];
      n += test(p[0], p[1], p[2]) ? 1 : 0;
    }
  }
  return n;
}

/// Waits until the run's window is on the screen (false if it has not come within 5 minutes).
/// xdotool is asked again and again rather than with --sync: a window that closes while it
/// walks the window tree (the program's probe window) makes it fail with BadWindow.
bool waitForTheWindow() {
  for (int attempt = 0; attempt < 600; ++attempt) {
    if (std::system("xdotool search --onlyvisible --name '^krtracker-sim: ball$' >/dev/null "
                    "2>&1") == 0)
      return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
  }
  return false;
}

/// What a screenshot must show of the window (1280x720 at the screen's top left, no window
/// manager under Xvfb); empty when it does, else what is missing.
std::string missingFromWindow(const std::vector<unsigned char>& shot) {
  if (shot.empty())
    return "no screenshot";
  auto dark = [](int r, int g, int b) { return r + g + b < 3 * 90; };
  auto white = [](int r, int g, int b) { return r > 200 && g > 200 && b > 200; };
  auto yellow = [](int r, int g, int b) { return r > 150 && g > 120 && b < 80; };
  auto grey = [](int r, int g, int b) {
    return r < 110 && std::abs(r - g) < 20 && std::abs(g - b) < 25;
  };
  std::string missing;
  // Legend (top left) and caption (bottom left): dark boxes with light text.
  for (const int top : {20, 600}) {
    if (count(shot, 20, top, 300, 100, dark) <= 300 * 100 / 2 ||
        count(shot, 20, top, 300, 100, white) <= 300 * 100 / 50)
      missing += top == 20 ? " legend" : " caption";
  }
  // The robot, where the follow camera keeps it: its dark leg (the floor's grid lines alone
  // give some 700 such pixels there); and the yellow line of sight from its head.
  if (count(shot, 650, 330, 200, 270, grey) <= 3000)
    missing += " robot";
  if (count(shot, 0, 0, 1280, 720, yellow) <= 100)
    missing += " line-of-sight";
  if (count(shot, 0, 730, 1280, 294, [](int r, int g, int b) { return r + g + b > 0; }) != 0)
    missing += " (something drawn outside the window)";
  return missing;
}

// The program's window, 2 s after it opened, shows the robot, its line of sight, the legend
// and the caption; SIGINT then ends the run with its summary, pacing line and outputs. The
// screenshot is taken again while the window is still settling (a loaded machine may draw
// its first frames late); a window that never shows them fails.
TEST(LiveView, ShowsTheRunInAWindow) {
  if (!haveDisplay()) {
    EXPECT_THAT(KR::Sim::liveViewProblem(), HasSubstr("--view needs a display"));
    return;
  }
  ASSERT_EQ(std::system("command -v xdotool >/dev/null"), 0) << "xdotool finds the window";
  const std::string dir = scratchPath("krtracker_live_view");
  std::system(("rm -rf '" + dir + "' && mkdir -p '" + dir + "'").c_str());
  ChildProgram program({"--view", "--quiet", "--duration", "60", "--csv", dir + "/run.csv",
                        "--json", dir + "/run.json"},
                       dir + "/out.txt", dir + "/err.txt");
  ASSERT_TRUE(program.started());
  // The run starts once the window has drawn its first frame.
  ASSERT_TRUE(waitForTheWindow()) << readFile(dir + "/err.txt");
  std::this_thread::sleep_for(std::chrono::seconds(2));
  std::string missing = missingFromWindow(screenshot());
  for (int attempt = 0; attempt < 20 && !missing.empty(); ++attempt) {
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    missing = missingFromWindow(screenshot());
  }
  EXPECT_EQ(missing, "");
  program.signal(SIGINT);
  EXPECT_EQ(program.wait(), 128 + SIGINT) << readFile(dir + "/err.txt");
  const std::string out = readFile(dir + "/out.txt");
  EXPECT_THAT(out, HasSubstr("Stopped by signal 2 after"));
  EXPECT_TRUE(std::regex_search(
      out, std::regex("Live view: [0-9.]+ s simulated in [0-9.]+ s of wall time at the chosen "
                      "speeds \\([0-9.]+ % apart, at most [0-9.]+ s behind\\)")))
      << out;
  EXPECT_GT(readFile(dir + "/run.csv").size(), 0u);
  EXPECT_GT(nlohmann::json::parse(readFile(dir + "/run.json"))["simulated_s"].get<double>(), 0.0);
  std::system(("rm -rf '" + dir + "'").c_str());
}

/// Sends keys to the window under the pointer (the screen's middle, inside the window), as
/// the X server would from a keyboard (xdotool, through the XTEST extension).
void press(const std::string& keys) {
  EXPECT_EQ(std::system(("xdotool key " + keys).c_str()), 0) << keys;
}

// The keys: ] doubles the speed, [ halves it, the right arrow pauses and then steps once per
// press, ] stops at 16 times, space resumes. Each key waits until the one before has acted, so
// the outcome does not depend on the machine's speed (a key that never acts: ctest's timeout).
TEST(LiveView, KeysChangeTheSpeedPauseAndStep) {
  if (!haveDisplay()) {
    EXPECT_THAT(KR::Sim::liveViewProblem(), HasSubstr("--view needs a display"));
    return;
  }
  ASSERT_EQ(std::system("command -v xdotool >/dev/null"), 0) << "xdotool sends the keys";
  ScenarioRun run(scenarioFor("ball", 30.0), trackedKinematicConfig());
  KR::Sim::StopSignals signals;
  KR::Sim::LiveView view(run);

  // The view is the stepping thread's own: what the keys did is published after each step.
  std::atomic<double> speed{view.speed()};
  std::atomic<bool> paused{view.paused()};
  std::atomic<int> pausedSteps{0};
  std::atomic<bool> ended{false};
  std::string failure;  // the keys' thread's, read once it has been joined
  std::thread keys([&] {
    auto await = [&](auto done, const std::string& what) {
      while (failure.empty() && !done()) {
        if (ended)
          failure = "the run ended before " + what;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      }
    };
    // Keys go to the window under the pointer: once it is on the screen.
    EXPECT_TRUE(waitForTheWindow());
    press("bracketright");
    await([&] { return speed == 2.0; }, "] doubled the speed");
    press("bracketleft bracketleft");
    await([&] { return speed == 0.5; }, "[ [ halved it twice");
    press("Right");
    await([&] { return pausedSteps == 1; }, "the right arrow paused after one step");
    press("Right Right");
    await([&] { return pausedSteps == 3; }, "two more presses made two steps");
    // Paused, the view waits for keys: what they did shows once space has resumed.
    press("bracketright bracketright bracketright bracketright bracketright bracketright space");
    await([&] { return !paused && speed == 16.0; }, "] reached 16 times and space resumed");
  });
  KR::Sim::RunResult result;
  try {
    result = KR::Sim::playRun(run, [&] {
      view.afterStep();
      speed = view.speed();
      paused = view.paused();
      pausedSteps += view.paused() ? 1 : 0;  // the step that follows is made paused
    });
  } catch (...) {
    ended = true;
    keys.join();
    throw;
  }
  ended = true;
  keys.join();
  EXPECT_EQ(failure, "");
  EXPECT_FALSE(result.interrupted);
  EXPECT_NEAR(result.simulatedS, 30.0, 1e-9);
  EXPECT_EQ(pausedSteps, 3);
  EXPECT_EQ(view.speed(), 16.0);
  EXPECT_THAT(view.pacingReport(), testing::StartsWith("29.97 s simulated"));
}

TEST(LiveView, ClosingTheWindowStopsTheRunAsSigintDoes) {
  if (!haveDisplay()) {
    EXPECT_THAT(KR::Sim::liveViewProblem(), HasSubstr("xvfb-run -a"));
    return;
  }
  ScenarioRun run(scenarioFor("ball", 3.0), trackedKinematicConfig());
  KR::Sim::StopSignals signals;
  KR::Sim::LiveView view(run);
  GLFWwindow* window = glfwGetCurrentContext();
  ASSERT_NE(window, nullptr);
  ASSERT_TRUE(run.step());
  view.afterStep();
  EXPECT_FALSE(view.windowClosed());
  EXPECT_EQ(KR::Sim::StopSignals::received(), 0);

  glfwSetWindowShouldClose(window, GLFW_TRUE);
  const KR::Sim::RunResult r = KR::Sim::playRun(run, [&view] { view.afterStep(); });
  EXPECT_TRUE(view.windowClosed());
  EXPECT_EQ(KR::Sim::StopSignals::received(), SIGINT);
  EXPECT_TRUE(r.interrupted);
  EXPECT_NEAR(r.simulatedS, 0.02, 1e-9);  // the step during which it was closed
}

}  // namespace
