#pragma once
// HeadLooker: the sub-module "_HeadLooker". While started, every step it takes the smoothed
// target from the smoother (Namer::getNameLooker()), computes the head angles toward it in
// the torso frame with computeLookAtAnglesWithThreshold and the target's own head threshold,
// and, when the dead band lets a change through and the head is free, sends them to
// KRMotion with "_trackerWithSpeed". The speed follows the limits of "setImplParam": from
// rest it grows by the maximum acceleration each step up to the maximum velocity. A target
// far off the head's axis (farther than kHandOver) is turned onto at the joints' velocity
// limit with kTurnAcceleration, braking at half that to reach the hand-over angle at the
// pursuit speed.
// With LOG_HEAD_COMMAND on, each command goes to the angle log "HeadLooker.txt".
//
// Remote methods: "start"(), "stopLooker"(), "setImplParam"([maxVelocity, maxAcceleration]),
// "exit"(). Errors are KRError("_HeadLooker", method, text). Starting raises
// "KRTracker/HeadTracking/Restarted".

#include <kr/value/krvalue.h>

#include <krsim/tracking/looker_base.h>

namespace KR {
namespace Sim {

struct HeadLookerState : LookerState {
  float maxVelocity = 1.0f;       // [rad/s]
  float maxAcceleration = 10.0f;  // [rad/s^2]
  float speed = 0.0f;             // commanded speed [rad/s]
  KRTimePoint lastUpdate{};
  Model::TrackerHeadAngle angle;  // last command
};

class HeadLooker : public LookerBase<HeadLookerState> {
 public:
  static constexpr const char* kLogFile = "HeadLooker.txt";
  /// Beyond this angle between head and target the turn runs at the joints' limits [rad].
  static constexpr float kHandOver = 0.15f;
  /// Acceleration of that turn, within what the head servos deliver [rad/s^2].
  static constexpr float kTurnAcceleration = 24.0f;

  explicit HeadLooker(const SimContext& context);

  /// [maxVelocity (rad/s), maxAcceleration (rad/s^2)], both strictly positive.
  void setImplParam(const KRValue& params);

 private:
  bool xFollow(const TargetInput::Sample& sample, KRTimePoint now) override;
  void xOnStart() override { fState.speed = 0.0f; }
  void xOnLost() override { fState.speed = 0.0f; }
  /// The speed limit of this step: the tracker's, or the turn's far off the target. Caller
  /// holds fMutex.
  float xTurnSpeed(const HeadLookerState& s);
};

}  // namespace Sim
}  // namespace KR
