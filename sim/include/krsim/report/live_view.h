#pragma once
// LiveView: a run shown in a window as it goes, in real time, for a user at a desktop. The
// picture is RunFrame's (follow camera, head camera inset, legend, caption and events) with
// a box saying the speed and what the keys do. The left mouse button drags the camera around
// the robot, the wheel (or the right button dragged up and down) zooms; space pauses and
// resumes; the right arrow steps one control period (10 ms) and pauses; [ and ] halve and
// double the speed (1/16 to 16 times real time).
//
// Pacing: after each step the view sleeps until the wall-clock instant the step is due at
// (counted from where the current speed was chosen, so that late wake-ups do not add up to a
// drift), drawing a frame at most every 1/30 s of wall time while it is ahead; when drawing
// falls behind, steps run without drawing until the run has caught up, so that simulated time
// keeps to wall time whatever the drawing costs. Closing the window stops the
// run as SIGINT does (StopSignals::request).
//
// Needs an X display (a desktop, or Xvfb): KRError("krsim", "rendering", ...) otherwise. Runs
// on the thread that steps the run, which must be the program's main thread (GLFW's rule).

#include <memory>
#include <string>

namespace KR {
namespace Sim {

class ScenarioRun;

class LiveView {
 public:
  /// Opens the window (width x height pixels) and shows the run as it is now. Follows the
  /// run's samples from now on: it must outlive the run's stepping.
  explicit LiveView(ScenarioRun& run, int width = 1280, int height = 720);
  ~LiveView();
  LiveView(const LiveView&) = delete;
  LiveView& operator=(const LiveView&) = delete;

  /// To call after each step (playRun's AfterStep): draws, handles input, paces.
  void afterStep();
  bool windowClosed() const;
  /// Paused by the keys (space, or the right arrow while running), and the chosen speed.
  bool paused() const;
  double speed() const;
  /// How closely simulated time followed wall time at the chosen speeds while running (not
  /// paused): "12.00 s simulated in 12.01 s of wall time at the chosen speeds (0.1 % apart, at
  /// most 0.040 s behind)"; behind: how late a step ended, at worst, against the wall clock.
  std::string pacingReport() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> fImpl;
};

/// Empty when a window can be opened here; otherwise why not, one line.
std::string liveViewProblem();

}  // namespace Sim
}  // namespace KR
