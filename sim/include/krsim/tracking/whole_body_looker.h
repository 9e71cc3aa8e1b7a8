#pragma once
// WholeBodyLooker: the sub-module "_WholeBodyLooker". While started, every step it takes the
// smoothed target from the smoother, computes the whole-body gaze toward it in the robot
// frame with computeLookAtWB and the dead band WHOLEBODY_THRESHOLD, and, when the gaze
// changes and the head is free, sends it to KRMotion with "_lookAtWb"(pitch, yaw): the head
// turns and the base turns with it when the target lies far to the side or behind.
// A target that moves is aimed at ahead of where it is, by half the dead band along its
// motion: the gaze then swings from half a band ahead of the target to half a band behind it
// between two commands, instead of trailing it by up to a whole band. That lead is a
// prediction: without latency compensation (SimContext::compensation) there is none.
// With LOG_HEAD_COMMAND on, each gaze goes to the angle log "WholeBodyLooker.txt".
//
// Remote methods: "start"(), "stopLooker"() (cancels the gaze it commanded), "exit"().

#include <cstdint>
#include <optional>

#include <krsim/tracking/looker_base.h>

namespace KR {
namespace Sim {

struct WholeBodyLookerState : LookerState {
  bool gazeSent = false;  // a gaze of ours may still hold the head
  float gazeYaw = 0.0f;   // its yaw in FRAME_WORLD [rad]
  Model::TrackerHeadAngle angle;
  // The target's motion in FRAME_WORLD, from the smoother's successive samples.
  std::optional<std::int64_t> lastTimestamp;  // [ns]
  Math::Position3D lastPosition;              // [m]
  Math::Position3D velocity;                  // [m/s], low-pass filtered
};

class WholeBodyLooker : public LookerBase<WholeBodyLookerState> {
 public:
  static constexpr const char* kLogFile = "WholeBodyLooker.txt";

  explicit WholeBodyLooker(const SimContext& context);

 private:
  bool xFollow(const TargetInput::Sample& sample, KRTimePoint now) override;
  void xOnStart() override;
  void xOnStop() override;
  const bool fLead;  // aim ahead of a moving target (with compensation)
  /// Updates the velocity estimate; returns how far ahead [m, FRAME_WORLD] to aim, seen from
  /// the robot at `robot` (FRAME_WORLD) with a dead band of `threshold` [rad].
  Math::Position3D xLead(const Tracker::types::TrackInfos& info, const Math::Pose2D& robot,
                         float threshold);
};

}  // namespace Sim
}  // namespace KR
