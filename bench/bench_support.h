#pragma once
// Shared pieces of the benchmarks: the small humanoid's model, a moving target, an in-process
// motion module on the real broker, the heap counter and the one-time checks run before the
// timings.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include <kr/broker/broker.h>
#include <kr/math/types.h>
#include <kr/model/trackermodel.h>

#include "support/alloc_counter.h"

namespace krbench {

using krtest::allocationsOf;
using krtest::heapAllocations;

/// Reports the allocations made since `before`, per iteration, as the counter "allocs".
void reportAllocations(benchmark::State& state, std::uint64_t before);

/// Times body() once an iteration, memory clobbered after each, and reports the allocations
/// made per iteration as the counter "allocs".
template <typename Body>
void timeWithAllocations(benchmark::State& state, Body&& body) {
  const std::uint64_t before = heapAllocations();
  for (auto _ : state) {
    body();
    benchmark::ClobberMemory();
  }
  reportAllocations(state, before);
}

/// The tracker model of robots/kibo.xml, the small humanoid.
KR::Model::KRTrackerModel loadKibo();

/// A target moving on a closed path in front of the robot, sampled finely enough (about 1 cm
/// between samples) that each sample starts close to the previous one's answer, as in a
/// tracking loop. Torso frame [m]; every point is within the head's and the arms' joint limits.
const std::vector<KR::Math::Position3D>& targetPath();

/// A tracker event in the world-frame layout: [[x, y, z, wx, wy, wz], [s, us], effector].
KR::KRValue trackerEvent();

/// The poses the motion module reports.
KR::Math::Position6D torsoInWorld();
KR::Math::Position6D torsoInRobot();
KR::Math::Pose2D robotInWorld();

/// A broker holding a module "KRMotion" with bound methods "getRobotPosition"(bool),
/// "getPosition"(name, frame, useSensors), "getTransform"(name, frame, useSensors) and
/// "_getSensorTransformAtTime"(name, time), answering the fixed poses above, and a module
/// "Bench" with "ping"() (no result), "getSixFloats"() (six floats), "getEvent"() (a tracker
/// event) and "putEvent"(event) (no result).
std::shared_ptr<KR::KRBroker> makeBroker();

/// Stops the program with a message on standard error unless ok.
void require(bool ok, const std::string& what);

/// Runs the one-time checks, then (unless --check-only is given) the benchmarks selected on
/// the command line. The return value of main.
int runMain(int argc, char** argv, const std::function<void()>& checks);

}  // namespace krbench
