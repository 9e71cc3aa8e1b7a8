#pragma once
// RunVideo: a run filmed into an MP4 file as it goes. A frame every 1/fps seconds of
// simulated time, the picture of RunFrame seen from the follow camera; frame k shows the
// first step that ends after k/fps seconds, so a run of T seconds gives ceil(T * fps) frames
// and a video of T seconds to within one frame. Each frame is drawn off screen
// (OffscreenContext: no window, no X server needed where EGL works) and encoded at once
// (VideoEncoder); only the frame being drawn is held (and the encoder's look-ahead).
//
// It only observes: the run's figures are the same with and without a video. It follows the
// run's samples from its construction on and must outlive the run's stepping; destroyed
// without finish(), e.g. when a run stops on an error, it still completes the file.

#include <memory>
#include <string>

#include <krsim/report/video_encoder.h>

namespace KR {
namespace Sim {

class ScenarioRun;

class RunVideo {
 public:
  struct Settings {
    VideoEncoder::Settings video;  // 1280x720 at 30 frames per second by default
    bool shadows = false;          // the light casts shadows (about twice the drawing time)
  };

  /// Opens the drawing context and the file. KRError ("rendering" or "video") when either
  /// cannot be opened, or when the picture exceeds what the renderer can draw.
  RunVideo(ScenarioRun& run, const std::string& path, const Settings& settings);
  RunVideo(ScenarioRun& run, const std::string& path);
  ~RunVideo();
  RunVideo(const RunVideo&) = delete;
  RunVideo& operator=(const RunVideo&) = delete;

  /// Completes the file; KRError when it cannot be, or when a frame could not be drawn or
  /// written during the run (the video then stops there; the run itself goes on).
  void finish();
  /// A frame could not be drawn or written: the video stopped before the run.
  bool stopped() const;
  int frames() const;
  /// Wall time spent drawing, reading back and encoding frames so far [s].
  double busySeconds() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> fImpl;
};

}  // namespace Sim
}  // namespace KR
