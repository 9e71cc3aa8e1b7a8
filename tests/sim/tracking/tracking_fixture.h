#pragma once
// The tracking service's sub-modules on a simulated robot (kibo unless built again) with an
// ideal camera: a frame every step, no latency, no noise. Tests place targets in the map frame
// and assert the line of sight of the head camera, the events raised and the calls to
// KRMotion.

#include <chrono>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <kr/target/targets.h>
#include <krsim/run/simulation.h>
#include <krtracker/generictracker/submodules.h>
#include <krtracker/tools/namer/namer.h>

#include "sim/helpers.h"
#include "support/fake_module.h"

namespace krtest {

namespace Target = KR::Tracker::Target;
using KR::Tracker::kArmsLookerModule, KR::Tracker::kHeadLookerModule,
    KR::Tracker::kMotionMoveModule, KR::Tracker::kNavigationMoveModule,
    KR::Tracker::kRoundSearcherModule, KR::Tracker::kSmootherModule,
    KR::Tracker::kTargetManagerModule, KR::Tracker::kWholeBodyLookerModule;
using KR::Tracker::Namer;

/// A relative position for the movers: the target 0.8 m ahead, within 5 cm and 0.1 rad.
inline const KRValue kRelative{0.8f, 0.0f, 0.0f, 0.05f, 0.05f, 0.1f};

class TrackingTest : public ::testing::Test {
 protected:
  void SetUp() override { build(); }
  void TearDown() override {
    recorder.reset();
    sim.reset();
  }
  void build(const std::string& robotFile = "kibo.xml", KR::Math::Pose2D startPose = {}) {
    recorder.reset();
    sim.reset();
    KR::Sim::SimulationConfig config;
    config.camera = KR::Sim::CameraConfig::ideal();
    config.physics = "kinematic";
    config.robot = KR::Sim::RobotDescription::load(robotFile);
    config.seed = 3;
    config.startPose = startPose;
    config.modules = &KR::Sim::createTrackerModules;
    sim = std::make_unique<KR::Sim::Simulation>(config);
  }
  /// The sub-module registered under `name`, as its own type.
  template <class M>
  std::shared_ptr<M> module(const std::string& name) {
    auto m = std::dynamic_pointer_cast<M>(sim->broker().getModule(name));
    EXPECT_NE(m, nullptr) << name;
    return m;
  }
  std::shared_ptr<KR::KRProxy> proxy(const std::string& name) {
    return sim->broker().getProxy(name);
  }
  /// A target standing still at a map point, seen by the top camera.
  void addTarget(const std::string& name, const std::string& kind, Position3D at,
                 std::vector<KR::Sim::TimeInterval> hidden = {},
                 KR::Sim::Layout layout = KR::Sim::Layout::Torso) {
    sim->world().addTarget({name, kind, Path::fixed(at), std::move(hidden), layout});
  }
  /// A target on a path, with the head threshold its events carry when not negative.
  void addPath(const std::string& name, const std::string& kind, Path path,
               float headThreshold = -1.0f) {
    sim->world().addTarget(
        {name, kind, std::move(path), {}, KR::Sim::Layout::Torso, 0.0f, false, headThreshold});
  }
  /// A red ball at a map point, hidden in the given intervals, tracked with a time-out [ms].
  void trackBall(Position3D at, int timeOutMs, std::vector<KR::Sim::TimeInterval> hidden = {}) {
    addTarget("ball", Target::TargetRedBall, at, std::move(hidden));
    track(Target::TargetRedBall);
    sim->callTracker("setTimeOut", timeOutMs);
  }
  /// Registers a kind of target with the tracker and tracks it, in a mode when given.
  void track(const std::string& kind, const std::string& mode = "") {
    if (!mode.empty())
      sim->callTracker("setMode", mode);
    sim->callTracker("registerTarget", kind, KRValue(0.06f));
    sim->callTracker("track", kind);
  }
  /// The ball at a map point, followed in the given mode.
  Position3D followBall(Position3D at, const std::string& mode = "Head") {
    addTarget("ball", Target::TargetRedBall, at);
    track(Target::TargetRedBall, mode);
    return at;
  }
  /// A person standing at a map point, followed in a move mode at a relative position.
  void followPerson(Position3D at, const std::string& mode, const KRValue& relative,
                    std::vector<KR::Sim::TimeInterval> hidden = {}) {
    addTarget("person", Target::TargetPeople, at, std::move(hidden), KR::Sim::Layout::World);
    sim->callTracker("setMode", mode);
    sim->callTracker("setRelativePosition", relative);
    track(Target::TargetPeople);
  }
  /// The person in the robot frame, from the ground truth.
  Position3D seenFromRobot() {
    const Position3D at = sim->world().targetPosition("person", sim->time());
    return KR::Math::pinv(KR::Math::transformFromPose2D(sim->motion().getTruePose())) * at;
  }
  /// Angle between the top camera's line of sight and the direction to a map point [deg].
  double lineOfSightDeg(const Position3D& mapPoint) {
    return KR::Math::aimError(sim->motion().getMapToHeadEffector(0), mapPoint) * 180.0 / M_PI;
  }
  std::size_t events(const std::string& name) { return sim->memory().eventCount(name); }
  /// Times [s since the start] of the events of that name.
  std::vector<double> eventTimes(const std::string& name) {
    std::vector<double> out;
    for (const auto& e : sim->memory().eventHistory(name))
      out.push_back(std::chrono::duration<double>(e.time - sim->clock().start()).count());
    return out;
  }
  /// Starts recording every broker call.
  void record() { recorder = std::make_unique<CallRecorder>(sim->context().broker); }
  /// Recorded calls of a KRMotion method.
  std::vector<KR::KRCallRecord> motionCalls(const std::string& method) {
    std::vector<KR::KRCallRecord> out;
    for (const auto& r : recorder->records()) {
      if (r.module == "KRMotion" && r.method == method)
        out.push_back(r);
    }
    return out;
  }

  std::unique_ptr<KR::Sim::Simulation> sim;
  std::unique_ptr<CallRecorder> recorder;
};

}  // namespace krtest
