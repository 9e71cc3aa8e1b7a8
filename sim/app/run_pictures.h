#pragma once
// The pictures of a single run that the command line asks for: --snapshots (a picture at each
// phase boundary, DIR/NN-<phase>.png), --video (an MP4 file of the whole run) and --view (the
// run live in a window, in real time). What cannot be drawn here is refused before the run.

#include <functional>
#include <iosfwd>
#include <memory>
#include <string>

#include <krsim/run/run_config.h>
#include <krsim/run/run_loop.h>

namespace KR {
namespace Sim {

class LiveView;
class RunVideo;
class ScenarioRun;
class SnapshotRenderer;

/// Called at each phase boundary of a single run with the run and the phase's name ("end"
/// at the end), once the sample of that step is recorded.
using SnapshotHook = std::function<void(ScenarioRun& run, const std::string& label)>;

/// UsageError when a picture asked for cannot be drawn here: --video or --snapshots (unless
/// `snapshotHook`, which replaces the drawing) without EGL nor an X display, --view without
/// a display.
void checkPictures(const RunConfig& config, bool snapshotHook);

class RunPictures {
 public:
  /// Attaches to `run` what `config` asks for; `hook`, when set, is called instead of drawing
  /// the snapshots.
  RunPictures(ScenarioRun& run, const RunConfig& config, SnapshotHook hook);
  ~RunPictures();
  RunPictures(const RunPictures&) = delete;
  RunPictures& operator=(const RunPictures&) = delete;

  /// What to do after each step: the live view's drawing and pacing, else real-time pacing
  /// when `realtime`, else nothing.
  AfterStep afterStep(bool realtime);
  /// Completes the video; what went wrong with it, or empty.
  std::string finish();
  /// Where the video went and, for the live view, how closely it kept to real time.
  void report(std::ostream& out) const;
  bool windowClosed() const;

 private:
  void xSnapshot(const std::string& label);

  ScenarioRun& fRun;
  std::string fVideoPath;
  std::string fFolder;  // of the snapshots
  SnapshotHook fHook;
  int fTaken = 0;
  std::unique_ptr<LiveView> fView;
  std::unique_ptr<RunVideo> fVideo;
  std::unique_ptr<SnapshotRenderer> fSnapshots;
};

}  // namespace Sim
}  // namespace KR
