#include <krsim/report/run_video.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <kr/error.h>

#include <krsim/report/gl_context.h>
#include <krsim/report/run_frame.h>
#include <krsim/report/scene_renderer.h>
#include <krsim/run/scenario_run.h>

namespace KR {
namespace Sim {

struct RunVideo::Impl {
  // Declared in the order they are needed: the context outlives the renderer.
  OffscreenContext context;
  SceneRenderer renderer;
  RunFrame frame;
  std::optional<VideoEncoder> encoder;  // opened once the renderer can draw its frames
  std::vector<unsigned char> rgb;       // the frame being encoded
  long next = 0;                        // index of the next frame
  std::string error;                    // why the video stopped before the run did
  double busy = 0.0;                    // [s]

  Impl(ScenarioRun& run, const std::string& path, const Settings& settings)
      : renderer(run.simulation(), settings.shadows), frame(run) {
    const VideoEncoder::Settings& v = settings.video;
    if (v.width > renderer.maxWidth() || v.height > renderer.maxHeight()) {
      throw KRError("krsim", "video",
                    "a frame is at most " + std::to_string(renderer.maxWidth()) + "x" +
                        std::to_string(renderer.maxHeight()) + " pixels, not " +
                        std::to_string(v.width) + "x" + std::to_string(v.height));
    }
    renderer.glyphs();  // drawn off screen now rather than between two frames
    encoder.emplace(path, v);
    rgb.resize(3 * static_cast<std::size_t>(v.width) * static_cast<std::size_t>(v.height));
  }

  void onSample(const Sample& s) {
    const double fps = encoder->settings().fps;
    try {
      while (error.empty() && static_cast<double>(next) / fps < s.time - 1e-9) {
        addFrame();
        ++next;
      }
    } catch (const KRError& e) {
      // The run goes on and keeps its outputs; the video stops at the last frame written.
      error = e.message();
    } catch (const std::exception& e) {
      error = e.what();
    }
  }

  void addFrame() {
    const auto start = std::chrono::steady_clock::now();
    const VideoEncoder::Settings& v = encoder->settings();
    context.makeCurrent();
    frame.drawInMemory(renderer, {0, 0, v.width, v.height}, RunFrame::Camera::Follow, rgb.data());
    encoder->addFrame(rgb.data(), VideoEncoder::Rows::BottomUp);
    busy += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  }
};

RunVideo::RunVideo(ScenarioRun& run, const std::string& path, const Settings& settings)
    : fImpl(std::make_unique<Impl>(run, path, settings)) {
  Impl* impl = fImpl.get();
  run.addSampleObserver([impl](const Sample& s) { impl->onSample(s); });
}

RunVideo::RunVideo(ScenarioRun& run, const std::string& path) : RunVideo(run, path, Settings{}) {}

RunVideo::~RunVideo() {
  // The context must be current while the renderer frees its buffers.
  fImpl->context.makeCurrent();
}

void RunVideo::finish() {
  if (fImpl->error.empty()) {
    fImpl->encoder->finish();
    return;
  }
  try {
    fImpl->encoder->finish();  // what it holds, if it still can
  } catch (const std::exception&) {
  }
  throw KRError("krsim", "video", fImpl->error);
}

bool RunVideo::stopped() const {
  return !fImpl->error.empty();
}

int RunVideo::frames() const {
  return fImpl->encoder->frames();
}

double RunVideo::busySeconds() const {
  return fImpl->busy;
}

}  // namespace Sim
}  // namespace KR
