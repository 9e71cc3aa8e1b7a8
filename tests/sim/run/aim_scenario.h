#pragma once
// A scripted scenario of the simulated services alone (no tracking service), whose figures are
// known in advance: a ball sits ahead and to the left; at 1 s the head and the left arm are
// turned to it and a detection is raised; at 2 s it hides for half a second and a loss, an
// observation and a smoother's stream are raised. One phase, "look", over the whole 3 s.

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <kr/math/math.h>
#include <krsim/run/scenario.h>
#include <krsim/run/simulation.h>
#include <krtracker/tools/tools.h>

namespace krtest {

inline const KR::Math::Position3D kAimBall{1.0f, 0.4f, 0.3f};  // map frame [m]

inline KR::Sim::Scenario aimScenario() {
  KR::Sim::Scenario s;
  s.name = "measure";
  s.robot = KR::Sim::RobotDescription::load("kibo");
  s.duration = 3.0;
  KR::Sim::TargetScript ball;
  ball.name = "ball";
  ball.kind = "RedBall";
  ball.path = KR::Sim::Path::fixed(kAimBall);
  ball.hidden = {{2.0, 2.5}};
  s.targets = {ball};
  s.actions = {{1.0, "aim",
                [](KR::Sim::Simulation& sim) {
                  const auto& model = sim.robot().trackerModel();
                  const auto inTorso = KR::Math::pinv(sim.motion().getMapToTorso()) * kAimBall;
                  std::vector<std::string> names;
                  std::vector<float> angles;
                  ASSERT_TRUE(KR::Tracker::tools::computeLookAtAngles(
                      inTorso, model, KR::Model::TRACK_EFFECTOR_CAMERA_TOP, false, names, angles));
                  KR::Tracker::tools::computePointAtAngles(inTorso, model.leftArm, names, angles);
                  sim.motion().setAngles(names, angles, {1.0f});
                  sim.memory().raiseEvent("KRTracker/TargetDetected", KR::KRValue(true));
                }},
               {2.0, "events", [](KR::Sim::Simulation& sim) {
                  sim.memory().raiseEvent("KRTracker/TargetLost", KR::KRValue(true));
                  sim.memory().raiseEvent("KRTracker/ObjectConverter5", KR::KRValue(1));
                  sim.memory().raiseEvent("KRTracker/ObjectLookAt", KR::KRValue(1));
                }}};
  KR::Sim::Phase look;
  look.name = "look";
  look.begin = 0.0;
  look.end = 3.0;
  look.target = "ball";
  look.arms = {"LArm"};  // the effector commands the left arm only
  look.settleSeconds = 1.5;
  s.phases = {look};
  return s;
}

}  // namespace krtest
