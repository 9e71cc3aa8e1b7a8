#include "app/run_pictures.h"

#include <algorithm>
#include <iomanip>
#include <ostream>
#include <sstream>

#include <kr/error.h>

#include <krsim/report/gl_context.h>
#include <krsim/report/live_view.h>
#include <krsim/report/output_files.h>
#include <krsim/report/run_video.h>
#include <krsim/report/snapshot.h>
#include <krsim/run/scenario_run.h>

#include "app/option_values.h"

namespace KR {
namespace Sim {

void checkPictures(const RunConfig& config, bool snapshotHook) {
  if (!config.video.empty() || (!config.snapshots.empty() && !snapshotHook)) {
    const std::string problem = offscreenRenderingProblem();
    if (!problem.empty())
      throw UsageError((config.video.empty() ? "--snapshots: " : "--video: ") + problem);
  }
  if (config.view) {
    const std::string problem = liveViewProblem();
    if (!problem.empty())
      throw UsageError(problem);
  }
}

RunPictures::RunPictures(ScenarioRun& run, const RunConfig& config, SnapshotHook hook)
    : fRun(run), fVideoPath(config.video), fFolder(config.snapshots), fHook(std::move(hook)) {
  if (config.view)
    fView = std::make_unique<LiveView>(run);
  if (!config.video.empty())
    fVideo = std::make_unique<RunVideo>(run, config.video);
  if (!fFolder.empty() && !fHook)
    fSnapshots = std::make_unique<SnapshotRenderer>(run);
  if (!fFolder.empty())
    run.setPhaseHook([this](const std::string& label) { xSnapshot(label); });
}

RunPictures::~RunPictures() = default;

void RunPictures::xSnapshot(const std::string& label) {
  if (fHook) {
    fHook(fRun, label);
    return;
  }
  std::string name = label;
  std::replace(name.begin(), name.end(), ' ', '-');
  std::ostringstream path;
  path << fFolder << "/" << std::setw(2) << std::setfill('0') << ++fTaken << "-" << name << ".png";
  fSnapshots->write(path.str());
}

AfterStep RunPictures::afterStep(bool realtime) {
  if (fView) {
    LiveView* view = fView.get();
    return [view] { view->afterStep(); };
  }
  return realtime ? realTimePacing(fRun) : AfterStep();
}

std::string RunPictures::finish() {
  try {
    if (fVideo)
      fVideo->finish();
  } catch (const KRError& e) {
    return e.message();
  }
  return {};
}

void RunPictures::report(std::ostream& out) const {
  if (fVideo && fVideo->stopped()) {
    out << "Video: " << absolutePath(fVideoPath)
        << " stopped before the run did (see the error below)\n";
  } else if (fVideo) {
    out << "Video: " << absolutePath(fVideoPath) << " (" << fVideo->frames()
        << " frames; drawn and encoded in " << std::fixed << std::setprecision(1)
        << fVideo->busySeconds() << " s)\n";
  }
  if (fView)
    out << "Live view: " << fView->pacingReport() << "\n";
}

bool RunPictures::windowClosed() const {
  return fView && fView->windowClosed();
}

}  // namespace Sim
}  // namespace KR
