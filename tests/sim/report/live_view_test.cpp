// The live view, under Xvfb (the ctest "live_view_xvfb"): the program's window two seconds in
// shows the robot, its line of sight and the caption, and the run keeps to wall time; keys
// change the speed, pause and step; closing the window stops the run as SIGINT does. Without
// a display, the view is refused.

#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

#include <GLFW/glfw3.h>
#include <gmock/gmock.h>

#include <krsim/report/live_view.h>
#include <krsim/run/run_loop.h>
#include <krsim/tracking/context.h>

#include "sim/helpers.h"
#include "sim/report/child_process.h"

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

TEST(LiveView, ShowsTheRunInAWindowKeptToTheWallClock) {
  if (!haveDisplay()) {
    EXPECT_THAT(KR::Sim::liveViewProblem(), HasSubstr("--view needs a display"));
    return;
  }
  const std::string dir = testing::TempDir() + "krtracker_live_view";
  std::system(("rm -rf '" + dir + "' && mkdir -p '" + dir + "'").c_str());
  ChildProgram program({"--view", "--quiet", "--duration", "6", "--csv", dir + "/run.csv", "--json",
                        dir + "/run.json"},
                       dir + "/out.txt", dir + "/err.txt");
  ASSERT_TRUE(program.started());
  std::this_thread::sleep_for(std::chrono::seconds(2));
  const std::vector<unsigned char> shot = screenshot();
  EXPECT_EQ(program.wait(), 0) << readFile(dir + "/err.txt");
  ASSERT_FALSE(shot.empty());

  // The window, 1280x720 at the screen's top left (no window manager under Xvfb).
  auto dark = [](int r, int g, int b) { return r + g + b < 3 * 90; };
  auto white = [](int r, int g, int b) { return r > 200 && g > 200 && b > 200; };
  auto yellow = [](int r, int g, int b) { return r > 150 && g > 120 && b < 80; };
  auto grey = [](int r, int g, int b) {
    return r < 110 && std::abs(r - g) < 20 && std::abs(g - b) < 25;
  };
  // Legend (top left) and caption (bottom left): dark boxes with light text.
  for (const int top : {20, 600}) {
    EXPECT_GT(count(shot, 20, top, 300, 100, dark), 300 * 100 / 2) << top;
    EXPECT_GT(count(shot, 20, top, 300, 100, white), 300 * 100 / 50) << top;
  }
  // The robot, where the follow camera keeps it: its dark leg (the floor's grid lines alone
  // give some 700 such pixels there); and the yellow line of sight from its head.
  EXPECT_GT(count(shot, 650, 330, 200, 270, grey), 3000);
  EXPECT_GT(count(shot, 0, 0, 1280, 720, yellow), 100);
  // Nothing outside the window.
  EXPECT_EQ(count(shot, 0, 730, 1280, 294, [](int r, int g, int b) { return r + g + b > 0; }), 0);

  const std::string out = readFile(dir + "/out.txt");
  std::smatch m;
  ASSERT_TRUE(std::regex_search(out, m,
                                std::regex("Live view: 6.00 s simulated in ([0-9.]+) s of wall "
                                           "time at the chosen speeds \\(([0-9.]+) % apart, at "
                                           "most ([0-9.]+) s behind\\)")))
      << out;
  std::printf(
      "live view: 6.00 s simulated in %s s of wall time (%s %% apart, at most %s s "
      "behind)\n",
      m[1].str().c_str(), m[2].str().c_str(), m[3].str().c_str());
  EXPECT_LE(std::stod(m[2]), 2.0);
  std::system(("rm -rf '" + dir + "'").c_str());
}

/// Sends a key to the window under the pointer (the screen's middle, inside the window), as
/// the X server would from a keyboard (xdotool, through the XTEST extension).
void press(const std::string& key) {
  EXPECT_EQ(std::system(("xdotool key " + key).c_str()), 0) << key;
}

// ] doubles the speed, space pauses, the right arrow steps one control period while paused,
// space resumes: the 8 s run ends with 3 steps made while paused (7.97 s simulated while
// running), in well under 8 s of running wall time.
TEST(LiveView, KeysChangeTheSpeedPauseAndStep) {
  if (!haveDisplay()) {
    EXPECT_THAT(KR::Sim::liveViewProblem(), HasSubstr("--view needs a display"));
    return;
  }
  ASSERT_EQ(std::system("command -v xdotool >/dev/null"), 0) << "xdotool sends the keys";
  const std::string dir = testing::TempDir() + "krtracker_live_view_keys";
  std::system(("rm -rf '" + dir + "' && mkdir -p '" + dir + "'").c_str());
  ChildProgram program({"--view", "--quiet", "--duration", "8", "--csv", dir + "/run.csv", "--json",
                        dir + "/run.json"},
                       dir + "/out.txt", dir + "/err.txt");
  ASSERT_TRUE(program.started());
  auto wait = [](double s) { std::this_thread::sleep_for(std::chrono::duration<double>(s)); };
  wait(1.5);
  press("bracketright");
  wait(0.5);
  press("space");
  wait(1.0);
  press("Right");
  press("Right");
  press("Right");
  wait(0.5);
  press("space");
  EXPECT_EQ(program.wait(), 0) << readFile(dir + "/err.txt");
  const std::string out = readFile(dir + "/out.txt");
  std::smatch m;
  ASSERT_TRUE(std::regex_search(
      out, m,
      std::regex("Live view: 7.97 s simulated in ([0-9.]+) s of wall time at the chosen "
                 "speeds \\(([0-9.]+) % apart")))
      << out;
  EXPECT_LT(std::stod(m[1]), 6.0);
  EXPECT_LE(std::stod(m[2]), 2.0);
  std::system(("rm -rf '" + dir + "'").c_str());
}

TEST(LiveView, ClosingTheWindowStopsTheRunAsSigintDoes) {
  if (!haveDisplay()) {
    EXPECT_THAT(KR::Sim::liveViewProblem(), HasSubstr("xvfb-run -a"));
    return;
  }
  ScenarioOptions options;
  options.duration = 3.0;
  KR::Sim::SimulationConfig config;
  config.physics = "kinematic";
  config.modules = &KR::Sim::createTrackerModules;
  ScenarioRun run(KR::Sim::makeScenario("ball", options), config);
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
