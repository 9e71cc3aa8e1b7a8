#pragma once
// A simulated robot with the tracking service's sub-modules, for the module tests: typed
// access to each sub-module, targets placed in the map frame, and the measures the tests
// assert (line of sight of the head camera, events raised, calls to KRMotion).

#include <algorithm>
#include <chrono>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <kr/math/math.h>
#include <krsim/simulation.h>
#include <krsim/world.h>

#include "support/fake_module.h"

namespace krtest {

class ModulesTest : public ::testing::Test {
 protected:
  /// Builds the simulation; call from each test (robot file of robots/, an ideal camera: a
  /// frame every step, no latency, no noise).
  void build(const std::string& robotFile = "kibo.xml", KR::Math::Pose2D startPose = {}) {
    KR::Sim::SimulationConfig config;
    config.setPerception(KR::Sim::Perception::ideal());
    config.robotXml = readRobotFile(robotFile);
    config.seed = 3;
    config.startPose = startPose;
    config.modules = &KR::Sim::createTrackerModules;
    sim = std::make_unique<KR::Sim::Simulation>(config);
  }
  void TearDown() override {
    recorder.reset();
    sim.reset();
  }

  template <class M>
  std::shared_ptr<M> module(const std::string& name) {
    auto m = std::dynamic_pointer_cast<M>(sim->broker().getModule(name));
    EXPECT_NE(m, nullptr) << name;
    return m;
  }

  /// A target standing still at a map point, seen by the top camera.
  void addTarget(const std::string& name, const std::string& kind, KR::Math::Position3D at,
                 std::vector<KR::Sim::TimeInterval> hidden = {},
                 KR::Sim::Layout layout = KR::Sim::Layout::Torso) {
    KR::Sim::TargetScript script;
    script.name = name;
    script.kind = kind;
    script.path = KR::Sim::Path::fixed(at);
    script.hidden = std::move(hidden);
    script.layout = layout;
    sim->world().addTarget(script);
  }

  /// Registers a kind of target with the tracker and tracks it.
  void track(const std::string& kind) {
    sim->callTracker("registerTarget", kind, KR::KRValue(0.06f));
    sim->callTracker("track", kind);
  }

  /// Angle between the top camera's line of sight and the direction to a map point [deg].
  double lineOfSightDeg(const KR::Math::Position3D& mapPoint) {
    return KR::Math::aimError(sim->motion().getMapToHeadEffector(0), mapPoint) * 180.0 / M_PI;
  }

  std::size_t events(const std::string& name) { return sim->memory().eventCount(name); }

  /// Times [s since the start] of the events of that name.
  std::vector<double> eventTimes(const std::string& name) {
    std::vector<double> out;
    for (const auto& e : sim->memory().eventHistory(name)) {
      out.push_back(std::chrono::duration<double>(e.time - sim->clock().start()).count());
    }
    return out;
  }

  /// Starts recording every broker call.
  CallRecorder& record() {
    recorder = std::make_unique<CallRecorder>(sim->context().broker);
    return *recorder;
  }
  /// Recorded calls of one module and method.
  std::vector<KR::KRCallRecord> calls(const std::string& module, const std::string& method) {
    std::vector<KR::KRCallRecord> out;
    for (const auto& r : recorder->records()) {
      if (r.module == module && r.method == method) {
        out.push_back(r);
      }
    }
    return out;
  }

  std::unique_ptr<KR::Sim::Simulation> sim;
  std::unique_ptr<CallRecorder> recorder;
};

}  // namespace krtest
