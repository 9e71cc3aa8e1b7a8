#pragma once
// RunFrame: the picture of a moment of a run, as the video, the live view and the snapshots
// show it, drawn in two parts: the scene through OpenGL, then what lies over it on a Canvas
// (in memory after reading the picture back, or through OpenGL in a window). The scene fills the
// picture (krsim/report/scene_renderer.h); the head camera's view is inset in its top right corner;
// the legend of the colours sits at the top left; the caption (time, phase, the target's state, the
// line-of-sight error) and the tracker's events of the last seconds at the bottom left.
//
// It follows the run's samples from its construction on, for the events and the detections
// it shows; it must outlive the run's stepping, and stay where it is (the run calls it).

#include <deque>
#include <string>

#include <krsim/report/caption.h>
#include <krsim/report/scene_renderer.h>
#include <krsim/run/scenario_run.h>

namespace KR {
namespace Sim {

class RunFrame {
 public:
  enum class Camera {
    Follow,    // behind and above the robot, turning with it (ViewAngles)
    Overview,  // framing the robot and its target
  };

  explicit RunFrame(ScenarioRun& run);
  RunFrame(const RunFrame&) = delete;
  RunFrame& operator=(const RunFrame&) = delete;

  /// Draws the scene of the run as it is now, with the inset, into `r` of the renderer's
  /// current buffer.
  void drawScene(SceneRenderer& renderer, const PixelRect& r, Camera camera,
                 const ViewAngles& angles = {});
  /// Then what lies over it: the inset's frame, axis, detection boxes and title, the legend,
  /// the caption and the events.
  void drawOverlay(Canvas& canvas, const SceneRenderer& renderer, const PixelRect& r);
  /// Both, off screen: the scene drawn into the renderer's off-screen buffer and read back
  /// into `rgb` (3 bytes a pixel, rows bottom-up), the overlay drawn over it in memory. The
  /// renderer's context must be current.
  void drawInMemory(SceneRenderer& renderer, const PixelRect& r, Camera camera, unsigned char* rgb);
  /// Where the inset lies in a picture `r`, for a head camera whose picture is
  /// `cameraAspect` times wider than high.
  static PixelRect insetRect(double cameraAspect, const PixelRect& r);

  /// The detections received in the last 0.6 s, with their age at the last sample.
  std::vector<DetectionMark> recentDetections() const;

 private:
  void xObserve(const Sample& s);
  void xCaption(Canvas& canvas, const PixelRect& r);
  void xLegend(Canvas& canvas, const PixelRect& r);

  ScenarioRun& fRun;
  EventTicker fEvents;
  struct Received {
    double time;
    Math::Position3D position;
  };
  std::deque<Received> fDetections;  // the last 0.6 s's, oldest first
};

}  // namespace Sim
}  // namespace KR
