#include "bench_support.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <kr/math/math.h>
#include <kr/model/modelutils.h>
#include <kr/model/robot.h>

namespace krbench {

namespace {
constexpr int kPathSamples = 1024;
constexpr double kTwoPi = 6.283185307179586;

std::vector<float> transformFloats(const KR::Math::Position6D& p) {
  return KR::Math::transformFromPosition6D(p).toVector();
}
}  // namespace

void reportAllocations(benchmark::State& state, std::uint64_t before) {
  state.counters["allocs"] = benchmark::Counter(static_cast<double>(heapAllocations() - before),
                                                benchmark::Counter::kAvgIterations);
}

KR::Model::KRTrackerModel loadKibo() {
  KR::Model::KRTrackerModel model;
  KR::Model::ModelUtils::robotFromFile(std::string(KRTRACKER_ROBOTS_DIR) + "/kibo.xml")
      ->fillTrackerModel(model);
  return model;
}

const std::vector<KR::Math::Position3D>& targetPath() {
  static const std::vector<KR::Math::Position3D> path = [] {
    std::vector<KR::Math::Position3D> points;
    points.reserve(kPathSamples);
    for (int i = 0; i < kPathSamples; ++i) {
      const double t = kTwoPi * i / kPathSamples;
      points.emplace_back(static_cast<float>(1.0 + 0.25 * std::sin(2.0 * t)),
                          static_cast<float>(0.35 * std::sin(3.0 * t)),
                          static_cast<float>(0.2 + 0.2 * std::sin(5.0 * t + 0.5)));
    }
    return points;
  }();
  return path;
}

KR::KRValue trackerEvent() {
  return KR::KRValue{KR::KRValue{1.0f, 2.0f, 0.5f, 0.0f, 0.0f, 0.1f}, KR::KRValue{10, 500}, 0};
}

KR::Math::Position6D torsoInWorld() {
  return {0.3f, -0.2f, 0.318f, 0.01f, 0.02f, 0.4f};
}
KR::Math::Position6D torsoInRobot() {
  return {0.0f, 0.0f, 0.318f, 0.01f, 0.02f, 0.0f};
}
KR::Math::Pose2D robotInWorld() {
  return {0.3f, -0.2f, 0.4f};
}

std::shared_ptr<KR::KRBroker> makeBroker() {
  auto broker = KR::KRBroker::create("BenchBroker");

  auto motion = std::make_shared<KR::KRModule>("KRMotion");
  motion->bind("getRobotPosition", [](bool) { return robotInWorld().toVector(); });
  motion->bind("getPosition", [](const std::string&, int frame, bool) {
    return frame == KR::Math::FRAME_WORLD ? torsoInWorld().toVector() : torsoInRobot().toVector();
  });
  motion->bind("getTransform", [](const std::string&, int frame, bool) {
    switch (frame) {
      case KR::Math::FRAME_WORLD:
        return transformFloats(torsoInWorld());
      case KR::Math::FRAME_ROBOT:
        return transformFloats(torsoInRobot());
      default:
        return KR::Math::Transform().toVector();
    }
  });
  motion->bind("_getSensorTransformAtTime", [](const std::string&, KR::KRTimePoint) {
    return transformFloats({0.06f, 0.0f, 0.53f, 0.0f, 0.1f, 0.0f});
  });
  broker->addModule(motion);

  auto bench = std::make_shared<KR::KRModule>("Bench");
  bench->bind("ping", [] {});
  bench->bind("getSixFloats", [] { return std::vector<float>{1, 2, 3, 4, 5, 6}; });
  bench->bind("getEvent", [] { return trackerEvent(); });
  bench->bind("putEvent", [](const KR::KRValue& event) { benchmark::DoNotOptimize(&event); });
  broker->addModule(bench);
  return broker;
}

void require(bool ok, const std::string& what) {
  if (!ok) {
    std::fprintf(stderr, "bench check FAILED: %s\n", what.c_str());
    std::exit(EXIT_FAILURE);
  }
}

int runMain(int argc, char** argv, const std::function<void()>& checks) {
  bool checkOnly = false;
  int kept = 0;
  for (int i = 0; i < argc; ++i) {
    if (std::strcmp(argv[i], "--check-only") == 0) {
      checkOnly = true;
    } else {
      argv[kept++] = argv[i];
    }
  }
  argc = kept;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return EXIT_FAILURE;
  }
  checks();
  if (!checkOnly) {
    benchmark::RunSpecifiedBenchmarks();
  }
  benchmark::Shutdown();
  return EXIT_SUCCESS;
}

}  // namespace krbench
