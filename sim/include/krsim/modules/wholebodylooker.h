#pragma once
// WholeBodyLooker: the sub-module "_WholeBodyLooker". While started, every step it takes the
// smoothed target from the smoother, computes the whole-body gaze toward it in the robot
// frame with computeLookAtWB and the dead band WHOLEBODY_THRESHOLD, and, when the gaze
// changes and the head is free, sends it to KRMotion with "_lookAtWb"(pitch, yaw): the head
// turns and the base turns with it when the target lies far to the side or behind.
// With LOG_HEAD_COMMAND on, each gaze goes to the angle log "WholeBodyLooker.txt".
//
// Remote methods: "start"(), "stopLooker"() (cancels the gaze it commanded), "exit"().

#include <krsim/modules/lookerbase.h>

namespace KR {
namespace Sim {

struct WholeBodyLookerState : LookerState {
  bool gazeSent = false;  // a gaze of ours may still hold the head
  float gazeYaw = 0.0f;   // its yaw in FRAME_WORLD [rad]
  Model::TrackerHeadAngle angle;
};

class WholeBodyLooker : public LookerBase<WholeBodyLookerState> {
 public:
  static constexpr const char* kLogFile = "WholeBodyLooker.txt";

  explicit WholeBodyLooker(const SimContext& context);

 private:
  bool xFollow(const TargetInput::Sample& sample, KRTimePoint now) override;
  void xOnStop() override;
};

}  // namespace Sim
}  // namespace KR
