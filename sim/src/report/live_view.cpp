#include <krsim/report/live_view.h>

#include <GLFW/glfw3.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <thread>
#include <vector>

#include <kr/error.h>

#include <krsim/report/gl_context.h>
#include <krsim/report/run_frame.h>
#include <krsim/report/scene_renderer.h>
#include <krsim/run/run_loop.h>
#include <krsim/run/scenario_run.h>

namespace KR {
namespace Sim {

namespace {

using Clock = std::chrono::steady_clock;

constexpr double kDrawPeriodS = 1.0 / 30.0;  // at most this often while ahead [s]
constexpr double kLongestBlindS = 0.25;      // drawn at least this often when behind [s]
constexpr double kMinSpeed = 1.0 / 16.0;
constexpr double kMaxSpeed = 16.0;
constexpr double kOrbitDegPerPixel = 0.3;

double seconds(Clock::duration d) {
  return std::chrono::duration<double>(d).count();
}

struct Window {
  GLFWwindow* handle;
  explicit Window(GLFWwindow* w) : handle(w) {}
  ~Window() { destroyGlfwWindow(handle); }
  Window(const Window&) = delete;
  Window& operator=(const Window&) = delete;
};

}  // namespace

struct LiveView::Impl {
  ScenarioRun& run;
  Window window;
  std::optional<SceneRenderer> renderer;  // made once the window's context is current
  RunFrame frame;
  ViewAngles angles;
  bool paused = false;
  int stepsAsked = 0;  // right arrow presses not yet stepped (paused)
  bool closed = false;
  double speed = 1.0;
  // Pacing: simulated time runs from (anchorSim at anchorWall) at `speed`.
  Clock::time_point anchorWall;
  double anchorSim = 0.0;
  Clock::time_point lastDraw;
  // Totals over the closed stretches of running, for the pacing report.
  double runWall = 0.0;      // [s]
  double runSim = 0.0;       // simulated [s]
  double expectedSim = 0.0;  // speed x wall time [s]
  double maxBehind = 0.0;    // the most wall time ran ahead of simulated time [s]
  // Mouse.
  int button = -1;  // the one held, -1: none
  double mouseX = 0.0;
  double mouseY = 0.0;

  Impl(ScenarioRun& r, int width, int height)
      : run(r),
        window(createGlfwWindow(width, height, "krtracker-sim: " + r.scenario().name, true)),
        frame(r) {
    makeWindowCurrent(window.handle);
    glfwSwapInterval(0);  // pacing is ours, not the display's
    renderer.emplace(run.simulation());
    glfwSetWindowUserPointer(window.handle, this);
    installCallbacks();
    draw();
    anchor();
  }

  static Impl& of(GLFWwindow* w) { return *static_cast<Impl*>(glfwGetWindowUserPointer(w)); }

  void installCallbacks() {
    glfwSetKeyCallback(window.handle, [](GLFWwindow* w, int key, int, int action, int) {
      if (action != GLFW_RELEASE)
        of(w).onKey(key);
    });
    glfwSetCharCallback(window.handle, [](GLFWwindow* w, unsigned int c) { of(w).onChar(c); });
    glfwSetMouseButtonCallback(window.handle, [](GLFWwindow* w, int button, int action, int) {
      Impl& v = of(w);
      v.button = action == GLFW_PRESS ? button : -1;
      glfwGetCursorPos(w, &v.mouseX, &v.mouseY);
    });
    glfwSetCursorPosCallback(window.handle,
                             [](GLFWwindow* w, double x, double y) { of(w).onMouse(x, y); });
    glfwSetScrollCallback(window.handle, [](GLFWwindow* w, double, double dy) {
      ViewAngles& a = of(w).angles;
      a.distanceM = std::clamp(a.distanceM * std::pow(0.9, dy), 0.4, 12.0);
    });
  }

  /// A new stretch of running from now: the one before counts toward the pacing report.
  void anchor() {
    const Clock::time_point now = Clock::now();
    const double sim = run.simulation().time();
    if (!paused && anchorWall != Clock::time_point()) {
      runWall += seconds(now - anchorWall);
      runSim += sim - anchorSim;
      expectedSim += speed * seconds(now - anchorWall);
    }
    anchorWall = now;
    anchorSim = sim;
  }

  void onKey(int key) {
    if (key == GLFW_KEY_SPACE) {
      anchor();
      paused = !paused;
      stepsAsked = 0;  // resuming drops single steps not made yet
      anchor();
    } else if (key == GLFW_KEY_RIGHT) {
      if (!paused) {
        anchor();
        paused = true;
      }
      ++stepsAsked;
    }
  }

  void onChar(unsigned int c) {
    if (c != '[' && c != ']')
      return;
    anchor();
    speed = std::clamp(c == '[' ? speed / 2.0 : speed * 2.0, kMinSpeed, kMaxSpeed);
  }

  void onMouse(double x, double y) {
    const double dx = x - mouseX;
    const double dy = y - mouseY;
    mouseX = x;
    mouseY = y;
    if (button == GLFW_MOUSE_BUTTON_LEFT) {
      angles.azimuthDeg -= kOrbitDegPerPixel * dx;
      angles.elevationDeg = std::clamp(angles.elevationDeg - kOrbitDegPerPixel * dy, -89.0, 5.0);
    } else if (button == GLFW_MOUSE_BUTTON_RIGHT) {
      angles.distanceM = std::clamp(angles.distanceM * std::exp(0.005 * dy), 0.4, 12.0);
    }
  }

  /// The speed and what the keys do, two lines, the first at the top.
  std::vector<std::string> statusLines() const {
    char speedText[64];
    std::snprintf(speedText, sizeof speedText, "%s x%g", paused ? "PAUSED" : "real time", speed);
    return {speedText, "space: pause   right arrow: step   [ ]: speed   mouse: orbit, zoom"};
  }

  /// The status lines in a box at the bottom right (the caption has the bottom left).
  void drawStatus(int width) {
    const std::vector<std::string> lines = statusLines();
    int textWidth = 0;
    for (const std::string& line : lines)
      textWidth = std::max(textWidth, renderer->textWidth(line));
    const int lineHeight = renderer->lineHeight();
    const int right = width - 14;
    const int height = static_cast<int>(lines.size()) * lineHeight;
    renderer->fill({right - textWidth - 20, 14, textWidth + 20, height + 20}, SceneColours::kBox);
    for (std::size_t i = 0; i < lines.size(); ++i) {
      const int y = 14 + 10 + height - static_cast<int>(i + 1) * lineHeight;
      renderer->text(right - 10 - renderer->textWidth(lines[i]), y, lines[i], SceneColours::kText);
    }
  }

  void draw() {
    makeWindowCurrent(window.handle);
    renderer->useWindow(true);
    int width = 0;
    int height = 0;
    glfwGetFramebufferSize(window.handle, &width, &height);
    if (width > 0 && height > 0) {
      const PixelRect all{0, 0, width, height};
      frame.drawScene(*renderer, all, RunFrame::Camera::Follow, angles);
      frame.drawOverlay(*renderer, *renderer, all);
      drawStatus(width);
      glfwSwapBuffers(window.handle);
    }
    lastDraw = Clock::now();
  }

  bool checkClosed() {
    if (!closed && glfwWindowShouldClose(window.handle)) {
      closed = true;
      StopSignals::request(SIGINT);
    }
    return closed;
  }

  /// Paused, returns once per right arrow press, so that each press makes exactly one step
  /// however the presses arrive between polls.
  void afterStep() {
    glfwPollEvents();
    while (paused && stepsAsked == 0 && !checkClosed() && StopSignals::received() == 0) {
      draw();
      glfwWaitEventsTimeout(0.05);
    }
    if (checkClosed())
      return;
    if (paused) {
      if (stepsAsked > 0)
        --stepsAsked;  // the next step is the one asked for
      return;
    }
    const Clock::time_point due =
        anchorWall + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(
                         (run.simulation().time() - anchorSim) / speed));
    const Clock::time_point now = Clock::now();
    maxBehind = std::max(maxBehind, seconds(now - due));
    const double sinceDraw = seconds(now - lastDraw);
    if ((now < due && sinceDraw >= kDrawPeriodS) || sinceDraw >= kLongestBlindS)
      draw();
    std::this_thread::sleep_until(due);
  }
};

LiveView::LiveView(ScenarioRun& run, int width, int height)
    : fImpl(std::make_unique<Impl>(run, width, height)) {}

LiveView::~LiveView() {
  // The renderer frees its buffers in the window's context.
  makeWindowCurrent(fImpl->window.handle);
}

void LiveView::afterStep() {
  fImpl->afterStep();
}

bool LiveView::windowClosed() const {
  return fImpl->closed;
}

bool LiveView::paused() const {
  return fImpl->paused;
}

double LiveView::speed() const {
  return fImpl->speed;
}

std::string LiveView::pacingReport() const {
  Impl& v = *fImpl;
  v.anchor();
  char text[200];
  const double apart =
      v.expectedSim > 0.0 ? 100.0 * std::fabs(v.runSim - v.expectedSim) / v.expectedSim : 0.0;
  std::snprintf(text, sizeof text,
                "%.2f s simulated in %.2f s of wall time at the chosen speeds (%.1f %% apart, "
                "at most %.3f s behind)",
                v.runSim, v.runWall, apart, v.maxBehind);
  return text;
}

std::string liveViewProblem() {
  const char* display = std::getenv("DISPLAY");
  if (display == nullptr || *display == '\0')
    return "--view needs a display: a desktop, or Xvfb (xvfb-run -a <command>)";
  try {
    destroyGlfwWindow(createGlfwWindow(64, 64, "krtracker probe", false));
  } catch (const KRError& e) {
    return "--view cannot open a window: " + e.message();
  }
  return {};
}

}  // namespace Sim
}  // namespace KR
