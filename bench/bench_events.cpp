// The per-observation paths around the geometry: tracker events into TrackInfos against an
// in-process motion module on the real broker, the record's KRValue form, the configuration
// getter, bare proxy calls and the frame conversions.

#include <cmath>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include <kr/broker/broker.h>
#include <kr/math/math.h>
#include <kr/value/krvalue.h>

#include <krtracker/config/krgenerictrackerconfig.h>
#include <krtracker/tools/tools.h>
#include <krtracker/types/types/trackinfos.h>

#include "bench_support.h"

namespace {

using KR::KRValue;
using KR::Math::Position3D;
using KR::Tracker::types::TrackInfos;
namespace tools = KR::Tracker::tools;

const std::string kCaller = "BenchSmoother";
const std::string kEventName = "KRTracker/ObjectConverter3";

/// Target in the world frame; the head threshold comes from the configuration.
KRValue layoutWEvent() {
  return krbench::trackerEvent();
}

/// Target in the torso frame with its robot-frame copy and an explicit head threshold.
KRValue layoutTEvent() {
  return KRValue{KRValue{1.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f},
                 KRValue{1.0f, 0.0f, 0.318f, 0.0f, 0.0f, 0.0f}, KRValue{10, 500}, 0, 0.04f};
}

TrackInfos sampleRecord() {
  return TrackInfos({1.0f, 2.0f, 0.5f, 0.0f, 0.1f, 0.2f}, 10, 500, 1, 2.1f, 0.05f);
}

/// The broker and its proxies, built once for the whole binary.
struct Fixture {
  Fixture()
      : broker(krbench::makeBroker()),
        motion(broker->getProxy("KRMotion")),
        bench(broker->getProxy("Bench")) {}
  std::shared_ptr<KR::KRBroker> broker;
  std::shared_ptr<KR::KRProxy> motion;
  std::shared_ptr<KR::KRProxy> bench;
};

Fixture& fixture() {
  static Fixture f;
  return f;
}

// ---- events --------------------------------------------------------------------------------

void convertEvent(benchmark::State& state, const KRValue& event) {
  const std::shared_ptr<KR::KRProxy>& motion = fixture().motion;
  TrackInfos out;
  krbench::timeWithAllocations(state, [&] {
    benchmark::DoNotOptimize(
        tools::convertTrackerEventToTrackInfo(event, kCaller, kEventName, motion, out));
  });
}

void BM_ConvertEvent_LayoutW(benchmark::State& state) {
  convertEvent(state, layoutWEvent());
}
BENCHMARK(BM_ConvertEvent_LayoutW);

void BM_ConvertEvent_LayoutT(benchmark::State& state) {
  convertEvent(state, layoutTEvent());
}
BENCHMARK(BM_ConvertEvent_LayoutT);

// ---- TrackInfos ----------------------------------------------------------------------------

void BM_TrackInfos_RoundTrip(benchmark::State& state) {
  const TrackInfos record = sampleRecord();
  krbench::timeWithAllocations(state, [&] {
    const KRValue value = record.toKRValue();
    const TrackInfos back(value);
    benchmark::DoNotOptimize(back);
  });
}
BENCHMARK(BM_TrackInfos_RoundTrip);

void BM_TrackInfos_ToKRValue(benchmark::State& state) {
  const TrackInfos record = sampleRecord();
  krbench::timeWithAllocations(state, [&] { benchmark::DoNotOptimize(record.toKRValue()); });
}
BENCHMARK(BM_TrackInfos_ToKRValue);

void BM_TrackInfos_FromKRValue(benchmark::State& state) {
  const KRValue value = sampleRecord().toKRValue();
  krbench::timeWithAllocations(state, [&] {
    const TrackInfos back(value);
    benchmark::DoNotOptimize(back);
  });
}
BENCHMARK(BM_TrackInfos_FromKRValue);

// ---- configuration and proxies -------------------------------------------------------------

void BM_GetConfigFloatValue(benchmark::State& state) {
  krbench::timeWithAllocations(state, [&] {
    benchmark::DoNotOptimize(KR::Tracker::getConfigFloatValue(KR::Tracker::HEAD_THRESHOLD));
  });
}
BENCHMARK(BM_GetConfigFloatValue);

void BM_ProxyCall_NoArgs(benchmark::State& state) {
  KR::KRProxy& bench = *fixture().bench;
  krbench::timeWithAllocations(state, [&] { bench.call<void>("ping"); });
}
BENCHMARK(BM_ProxyCall_NoArgs);

void BM_ProxyCall_SixFloats(benchmark::State& state) {
  KR::KRProxy& bench = *fixture().bench;
  krbench::timeWithAllocations(
      state, [&] { benchmark::DoNotOptimize(bench.call<std::vector<float>>("getSixFloats")); });
}
BENCHMARK(BM_ProxyCall_SixFloats);

// A tracker event through the broker, as a result and as an argument: what a sub-module pays
// to read an event from memory or to publish one.
void BM_ProxyCall_EventResult(benchmark::State& state) {
  KR::KRProxy& bench = *fixture().bench;
  krbench::timeWithAllocations(state,
                               [&] { benchmark::DoNotOptimize(bench.call<KRValue>("getEvent")); });
}
BENCHMARK(BM_ProxyCall_EventResult);

void BM_ProxyCall_EventArgument(benchmark::State& state) {
  KR::KRProxy& bench = *fixture().bench;
  const KRValue event = krbench::trackerEvent();
  krbench::timeWithAllocations(state, [&] { bench.call<void>("putEvent", event); });
}
BENCHMARK(BM_ProxyCall_EventArgument);

// ---- frames --------------------------------------------------------------------------------

void BM_GetWorldToTorsoTransform(benchmark::State& state) {
  const std::shared_ptr<KR::KRProxy>& motion = fixture().motion;
  krbench::timeWithAllocations(
      state, [&] { benchmark::DoNotOptimize(tools::getWorldToTorsoTransform(motion)); });
}
BENCHMARK(BM_GetWorldToTorsoTransform);

void BM_GetWorldToRobotTransform(benchmark::State& state) {
  const std::shared_ptr<KR::KRProxy>& motion = fixture().motion;
  krbench::timeWithAllocations(
      state, [&] { benchmark::DoNotOptimize(tools::getWorldToRobotTransform(motion)); });
}
BENCHMARK(BM_GetWorldToRobotTransform);

void BM_GetSensorTransform(benchmark::State& state) {
  KR::KRProxy& motion = *fixture().motion;
  const std::string sensor = "CameraTop";
  const KR::KRTimePoint time(std::chrono::seconds(10));
  krbench::timeWithAllocations(
      state, [&] { benchmark::DoNotOptimize(tools::getSensorTransform(motion, sensor, time)); });
}
BENCHMARK(BM_GetSensorTransform);

void frameConversion(benchmark::State& state,
                     Position3D (*convert)(const std::shared_ptr<KR::KRProxy>&, const Position3D&,
                                           KR::Math::FRAME),
                     KR::Math::FRAME frame) {
  const std::shared_ptr<KR::KRProxy>& motion = fixture().motion;
  const Position3D point(1.0f, 0.2f, 0.3f);
  krbench::timeWithAllocations(state,
                               [&] { benchmark::DoNotOptimize(convert(motion, point, frame)); });
}

void BM_ConvertToTorsoFrame_FromWorld(benchmark::State& state) {
  frameConversion(state, tools::convertToTorsoFrame, KR::Math::FRAME_WORLD);
}
BENCHMARK(BM_ConvertToTorsoFrame_FromWorld);

void BM_ConvertToRobotFrame_FromWorld(benchmark::State& state) {
  frameConversion(state, tools::convertToRobotFrame, KR::Math::FRAME_WORLD);
}
BENCHMARK(BM_ConvertToRobotFrame_FromWorld);

void BM_ConvertToRobotFrame_FromTorso(benchmark::State& state) {
  frameConversion(state, tools::convertToRobotFrame, KR::Math::FRAME_TORSO);
}
BENCHMARK(BM_ConvertToRobotFrame_FromTorso);

void BM_ConvertTorsoFrameToDesiredFrame_World(benchmark::State& state) {
  frameConversion(state, tools::convertTorsoFrameToDesiredFrame, KR::Math::FRAME_WORLD);
}
BENCHMARK(BM_ConvertTorsoFrameToDesiredFrame_World);

// ---- one-time checks -----------------------------------------------------------------------

bool near(float a, float b) {
  return std::fabs(a - b) < 1e-5f;
}

/// The benchmarks time the success paths: make sure they are the ones taken.
void checks() {
  const std::shared_ptr<KR::KRProxy>& motion = fixture().motion;

  TrackInfos fromW;
  krbench::require(
      tools::convertTrackerEventToTrackInfo(layoutWEvent(), kCaller, kEventName, motion, fromW),
      "layout W event refused");
  krbench::require(fromW.isValid() && fromW.getTimestamp() == 10000500000 &&
                       near(fromW.getHeadThreshold(),
                            KR::Tracker::getConfigFloatValue(KR::Tracker::HEAD_THRESHOLD)),
                   "layout W event converted wrongly");

  TrackInfos fromT;
  krbench::require(
      tools::convertTrackerEventToTrackInfo(layoutTEvent(), kCaller, kEventName, motion, fromT),
      "layout T event refused");
  const Position3D expected =
      KR::Math::transformFromPosition6D(krbench::torsoInWorld()) * Position3D(1.0f, 0.0f, 0.0f);
  const Position3D got = fromT.getWorldToObject3D();
  krbench::require(near(got.x, expected.x) && near(got.y, expected.y) && near(got.z, expected.z) &&
                       near(fromT.getDistance(), 1.0f) && near(fromT.getHeadThreshold(), 0.04f),
                   "layout T event converted wrongly");

  const TrackInfos record = sampleRecord();
  const TrackInfos back(record.toKRValue());
  krbench::require(back.toKRValue() == record.toKRValue(), "TrackInfos round trip differs");

  // A KRValue crosses the broker with one copy at most: an argument is copied once into the
  // argument list (plus that list itself) and handed to the method by reference; a result is
  // moved out.
  KR::KRProxy& bench = *fixture().bench;
  const KRValue event = krbench::trackerEvent();
  const std::uint64_t copyCost = krbench::allocationsOf([&] { KRValue copy(event); });
  const std::uint64_t buildCost = krbench::allocationsOf([] { krbench::trackerEvent(); });
  const std::uint64_t argumentCost = krbench::allocationsOf([&] { bench.call("putEvent", event); });
  const std::uint64_t resultCost = krbench::allocationsOf([&] { bench.call<KRValue>("getEvent"); });
  krbench::require(argumentCost == copyCost + 1,
                   "a KRValue argument cost " + std::to_string(argumentCost) +
                       " allocations; one copy is " + std::to_string(copyCost));
  krbench::require(resultCost == buildCost, "a KRValue result cost " + std::to_string(resultCost) +
                                                " allocations; building it costs " +
                                                std::to_string(buildCost));

  krbench::require(
      bench.call<std::vector<float>>("getSixFloats") == std::vector<float>({1, 2, 3, 4, 5, 6}),
      "getSixFloats answered wrongly");
  std::fprintf(stderr,
               "checks passed: the timed paths are the success paths; a KRValue crosses the "
               "broker with one copy at most\n");
}

}  // namespace

int main(int argc, char** argv) {
  return krbench::runMain(argc, argv, checks);
}
