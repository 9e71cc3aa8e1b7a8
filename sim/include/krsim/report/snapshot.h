#pragma once
// Pictures of a run: the picture of RunFrame (the robot, its target, the head camera's line
// of sight and view, the legend of the colours, the caption with time, phase, target state,
// line-of-sight error and the tracker's recent events), seen from behind the robot and to its
// side, framing the robot and its target; written as PNG files.
//
// Drawing is off screen (krsim/report/gl_context.h): through EGL without any display server
// where Mesa or a GPU driver offers it, else in a hidden GLFW window on the X display (under
// Xvfb on a headless machine). Without either, the constructor throws
// KRError("krsim", "rendering", ...) saying so. The OpenGL context belongs to the thread that
// built the renderer; use it from that thread.

#include <memory>
#include <string>
#include <vector>

namespace KR {
namespace Sim {

class ScenarioRun;

/// An RGB picture, rows top-down, 3 bytes a pixel.
struct Picture {
  int width = 0;
  int height = 0;
  std::vector<unsigned char> rgb;
};

class SnapshotRenderer {
 public:
  /// Opens the off-screen drawing context; pictures are width x height pixels. Follows the
  /// run's samples from now on (for the events and detections it shows): it must outlive
  /// the run's stepping.
  explicit SnapshotRenderer(ScenarioRun& run, int width = 1280, int height = 720);
  ~SnapshotRenderer();
  SnapshotRenderer(const SnapshotRenderer&) = delete;
  SnapshotRenderer& operator=(const SnapshotRenderer&) = delete;

  /// Draws the run as it is at its last sample.
  Picture render();
  /// render() written to a PNG file; KRError when the file cannot be written.
  void write(const std::string& pngPath);

 private:
  struct Impl;
  std::unique_ptr<Impl> fImpl;
};

}  // namespace Sim
}  // namespace KR
