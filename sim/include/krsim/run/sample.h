#pragma once
// Sample: what ScenarioRun records at the end of each step, for its observers (the CSV, the
// tests) and its progress lines.

#include <string>
#include <vector>

#include <kr/math/types.h>

namespace KR {
namespace Sim {

struct Sample {
  double time = 0.0;   // [s]
  int phase = -1;      // index in the scenario's phases, -1 outside them
  Math::Pose2D robot;  // map frame
  float headYaw = 0.0f;
  float headPitch = 0.0f;
  bool hasTarget = false;
  Math::Position3D target;    // map frame
  float bearingYaw = 0.0f;    // target seen from the head's pivot, torso frame [rad]
  float bearingPitch = 0.0f;  // positive looks down, like the head pitch [rad]
  bool inView = false;
  bool perceived = false;
  bool tracked = false;  // the tracker's state: detected since its last loss
  float lineOfSightDeg = 0.0f;
  float horizontalDeg = 0.0f;    // signed horizontal part, positive: target to the left
  float leftArmDeg = -1.0f;      // -1: not measured
  float rightArmDeg = -1.0f;     // -1: not measured
  float relativeErrorM = -1.0f;  // -1: not measured
  /// The tracker's events of the step, without the service's prefix, separated by spaces.
  std::string events;
  /// The last observation the tracker received during the step, commas turned to spaces;
  /// empty when none came.
  std::string observation;
  /// Where that observation places its target, map frame, converted with the true poses of
  /// the moment it was received (as the tracking service would without odometry drift).
  bool hasDetection = false;
  Math::Position3D detection;
  /// Every joint of ScenarioRun::jointNames(), as commanded and as measured [rad].
  std::vector<float> jointCommands;
  std::vector<float> jointAngles;
};

}  // namespace Sim
}  // namespace KR
