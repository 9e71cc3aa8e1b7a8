#pragma once
// ArmsLooker: the sub-module "_ArmsLooker". While started, every step it takes the smoothed
// target from the smoother and, for each arm of the effector ("LArm", "RArm" or both for
// "Arms"), points the arm at it with computePointAtAnglesWithThreshold (dead band
// ARMS_THRESHOLD) when the target lies within the arm's reach (isWithinReach). The dead band,
// or a forearm drifted more than kMaxAimError off the target while every joint stayed within
// its band, decides when the arm moves; it is then aimed exactly. Out of reach,
// the arm goes back to rest, except in whole-body mode, where the arm holds its pose while
// the body turns toward the target. Commands go to KRMotion with "_trackerWithSpeed".
// With LOG_ARM_COMMAND on, each command goes to the angle log "ArmsLooker.txt".
//
// Remote methods: "setImplParam"([effector, wholeBody]), "start"(), "stopLooker"(), "exit"().
// Errors are KRError("_ArmsLooker", method, text). Starting raises
// "KRTracker/ArmTracking/Restarted".

#include <array>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <kr/broker/broker.h>
#include <kr/math/types.h>
#include <kr/model/trackermodel.h>
#include <kr/value/krvalue.h>

#include <krsim/tracking/looker_base.h>

namespace KR {
namespace Sim {

struct ArmsLookerState : LookerState {
  struct Arm {
    Model::TrackerArmAngle remembered;  // last command
    bool atRest = false;
  };
  std::string effector = "None";
  bool wholeBody = false;
  std::array<Arm, 2> arms;  // left, right
  bool hasLast = false;
  Math::Position3D lastSeen;  // target in the torso frame at the last update [m]
  KRTimePoint lastTime{};
  Math::Position3D torsoVelocity;  // of the target in the torso frame [m/s]
};

class ArmsLooker : public LookerBase<ArmsLookerState> {
 public:
  static constexpr const char* kLogFile = "ArmsLooker.txt";
  /// Farthest target an arm points at, from its shoulder [m].
  static constexpr float kMaxReach = 2.0f;
  /// Nearest target an arm points at, from its shoulder [m].
  static constexpr float kMinReach = 0.15f;
  /// Largest pointing error, within the joint limits, of a target within reach [rad].
  static constexpr float kReachTolerance = 0.02f;
  /// Pointing error beyond which an arm is aimed again although no joint has left its dead
  /// band [rad].
  static constexpr float kMaxAimError = 0.016f;
  /// How far ahead the arms aim, along the target's motion in the torso frame.
  static constexpr std::chrono::milliseconds kLead{20};
  /// Weight of the newest step in the smoothed torso-frame velocity of the target.
  static constexpr float kVelocitySmoothing = 0.3f;
  /// Speed of the arm joints, as a fraction of their limits.
  static constexpr float kSpeedFraction = 0.8f;

  /// Whether the arm can point at a target (torso frame): within kMinReach..kMaxReach of the
  /// shoulder, and the point-at angles, once clipped to the joint limits, aim the forearm
  /// within kReachTolerance of it. `error` receives that aiming error [rad].
  static bool isWithinReach(const Model::TrackerArm& arm, const Math::Position3D& target,
                            float* error = nullptr);
  /// Angle between the forearm, at the given arm angles, and the direction from the elbow to
  /// the target (torso frame) [rad].
  static float aimError(const Model::TrackerArm& arm, const Model::TrackerArmAngle& angles,
                        const Math::Position3D& target);

  explicit ArmsLooker(const SimContext& context);

  void setImplParam(const KRValue& params);

 private:
  using Arm = ArmsLookerState::Arm;
  bool xFollow(const TargetInput::Sample& sample, KRTimePoint now) override;
  void xOnLost() override;
  /// The arms of the effector with their models; none on a robot that cannot point.
  std::vector<std::pair<Arm*, const Model::TrackerArm*>> xArms();
  /// The measured angles as the arms' last commands.
  void xResyncArms(const std::vector<std::pair<Arm*, const Model::TrackerArm*>>& arms);
  /// Where to aim (torso frame): the sample a step ahead, along its motion in the torso frame.
  Math::Position3D xAimPoint(const TargetInput::Sample& sample, KRTimePoint now);
  /// Appends the arm's joints and angles aimed at `target` when its dead band lets them go.
  void xAppendAim(Arm& state, const Model::TrackerArm& arm, const Math::Position3D& target);
  /// Appends the arm's joints and rest angles.
  void xAppendRest(Arm& state, const Model::TrackerArm& arm, std::vector<std::string>& names,
                   std::vector<float>& angles);

  const bool fCanPoint;  // the robot has arms to point with
  // One arm's command while it is built; under fMutex.
  std::vector<std::string> fArmNames;
  std::vector<float> fArmAngles;
};

}  // namespace Sim
}  // namespace KR
