// The video's cost per frame, in wall time (drawing is in the OpenGL driver's threads, the
// encoder in libx264's): drawing a 1280x720 frame of the default scenario (follow view, head
// camera inset, legend, caption) and reading it back, with and without shadows; encoding one
// frame into H.264; and a whole 10 s run filmed at 30 frames per second, whose counter
// "sim_s" is the simulated time per second of wall time (1 or more keeps up with real time).
// Off screen as krtracker-sim draws: EGL without a display server, else GLFW under Xvfb.

#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include <krsim/report/gl_context.h>
#include <krsim/report/run_frame.h>
#include <krsim/report/run_video.h>
#include <krsim/report/scene_renderer.h>
#include <krsim/report/video_encoder.h>
#include <krsim/run/scenario.h>
#include <krsim/run/scenario_run.h>
#include <krsim/tracking/context.h>

namespace {

KR::Sim::ScenarioRun makeRun(double seconds) {
  KR::Sim::ScenarioOptions options;
  options.duration = seconds;
  KR::Sim::SimulationConfig config;
  config.modules = &KR::Sim::createTrackerModules;
  return KR::Sim::ScenarioRun(KR::Sim::makeScenario("ball", options), config);
}

std::string scratchVideo() {
  return "/tmp/krtracker_bench_video_" + std::to_string(::getpid()) + ".mp4";
}

/// Parts of a frame: 0 the follow view alone, 1 the head camera's inset alone, 2 reading a
/// whole frame back, 3 the texts of a caption.
void drawPart(benchmark::State& state, int part) {
  KR::Sim::OffscreenContext context;
  auto run = makeRun(10.0);
  KR::Sim::SceneRenderer renderer(run.simulation(), false);
  while (run.simulatedSeconds() < 5.0)
    run.step();
  renderer.update(run.simulation(), "ball");
  std::vector<unsigned char> rgb(3);
  for (auto _ : state) {
    if (part == 0) {
      renderer.drawFollowView({0, 0, 1280, 720}, {});
    } else if (part == 1) {
      renderer.drawHeadCamera({0, 0, 384, 287});
    } else if (part == 2) {
      rgb.resize(3 * 1280 * 720);
      renderer.readPixels({0, 0, 1280, 720}, rgb.data());
    } else {
      for (int i = 0; i < 12; ++i)
        renderer.text(20, 20 + 30 * i, "line of sight 1.2 deg, on target", {1, 1, 1, 1});
    }
    renderer.readPixels({0, 0, 1, 1}, rgb.data());  // waits for the drawing
  }
}
BENCHMARK_CAPTURE(drawPart, follow, 0)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();
BENCHMARK_CAPTURE(drawPart, inset, 1)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();
BENCHMARK_CAPTURE(drawPart, read_back, 2)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();
BENCHMARK_CAPTURE(drawPart, texts, 3)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();

void drawFrame(benchmark::State& state, bool shadows) {
  KR::Sim::OffscreenContext context;
  auto run = makeRun(10.0);
  KR::Sim::SceneRenderer renderer(run.simulation(), shadows);
  KR::Sim::RunFrame frame(run);
  while (run.simulatedSeconds() < 5.0)
    run.step();  // the ball in view, tracked
  const KR::Sim::PixelRect all{0, 0, 1280, 720};
  std::vector<unsigned char> rgb(3 * 1280 * 720);
  renderer.glyphs();  // drawn once, before the frames
  for (auto _ : state) {
    frame.drawInMemory(renderer, all, KR::Sim::RunFrame::Camera::Follow, rgb.data());
    benchmark::DoNotOptimize(rgb.data());
  }
  state.SetLabel(context.kind());
}

/// Frames of the default scenario from 5 s on, one every 1/30 s, bottom row first.
std::vector<std::vector<unsigned char>> realFrames(int count) {
  KR::Sim::OffscreenContext context;
  auto run = makeRun(10.0);
  std::vector<std::vector<unsigned char>> frames;
  {
    KR::Sim::SceneRenderer renderer(run.simulation(), false);
    KR::Sim::RunFrame frame(run);
    const KR::Sim::PixelRect all{0, 0, 1280, 720};
    while (static_cast<int>(frames.size()) < count) {
      run.step();
      const double t = run.simulatedSeconds();
      if (t < 5.0 || std::fmod(t + 1e-9, 1.0 / 30.0) >= 0.01)
        continue;
      frames.emplace_back(3 * 1280 * 720);
      frame.drawInMemory(renderer, all, KR::Sim::RunFrame::Camera::Follow, frames.back().data());
    }
  }
  return frames;
}

void encodeFrame(benchmark::State& state, const char* preset) {
  static const std::vector<std::vector<unsigned char>> frames = realFrames(30);
  const std::string path = scratchVideo();
  {
    KR::Sim::VideoEncoder::Settings settings;
    settings.preset = preset;
    KR::Sim::VideoEncoder encoder(path, settings);
    std::size_t n = 0;
    for (auto _ : state)
      encoder.addFrame(frames[n++ % frames.size()].data(), KR::Sim::VideoEncoder::Rows::BottomUp);
    encoder.finish();
  }
  std::remove(path.c_str());
}

void filmedRun(benchmark::State& state) {
  const std::string path = scratchVideo();
  double simulated = 0.0;
  for (auto _ : state) {
    auto run = makeRun(10.0);
    KR::Sim::RunVideo video(run, path);
    run.runToEnd();
    video.finish();
    simulated += run.simulatedSeconds();
  }
  std::remove(path.c_str());
  state.counters["sim_s"] = benchmark::Counter(simulated, benchmark::Counter::kIsRate);
}

BENCHMARK_CAPTURE(drawFrame, shadows, true)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();
BENCHMARK_CAPTURE(drawFrame, no_shadows, false)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();
BENCHMARK_CAPTURE(encodeFrame, veryfast, "veryfast")
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();
BENCHMARK_CAPTURE(encodeFrame, superfast, "superfast")
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();
BENCHMARK_CAPTURE(encodeFrame, ultrafast, "ultrafast")
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();
BENCHMARK(filmedRun)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
