#pragma once
// WholeBodyLooker: the sub-module "_WholeBodyLooker". While started, every step it takes the
// smoothed target from the smoother, computes the whole-body gaze toward it in the robot
// frame with computeLookAtWB and the dead band WHOLEBODY_THRESHOLD, and, when the gaze
// changes and the head is free, sends it to KRMotion with "_lookAtWb"(pitch, yaw): the head
// turns and the base turns with it when the target lies far to the side or behind.
// With LOG_HEAD_COMMAND on, each gaze goes to the angle log "WholeBodyLooker.txt".
//
// Remote methods: "start"(), "stopLooker"() (cancels the gaze it commanded), "exit"().

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <kr/broker/broker.h>
#include <kr/model/trackermodel.h>

#include <krsim/module.h>
#include <krsim/modules/common.h>

namespace KR {
namespace Sim {

class WholeBodyLooker : public SimModule {
 public:
  static constexpr const char* kLogFile = "WholeBodyLooker.txt";

  explicit WholeBodyLooker(const SimContext& context);

  void update(KRTimePoint now) override;

  void start();
  void stopLooker();
  void exit();

  bool isRunning() const;

 private:
  std::shared_ptr<KR::KRProxy> fMotion;
  Model::KRTrackerModel fModel;
  TargetInput fInput;

  mutable std::mutex fMutex;
  bool fRunning = false;
  bool fResync = true;
  bool fGazeSent = false;  // a gaze of ours may still hold the head
  float fGazeYaw = 0.0f;   // its yaw in FRAME_WORLD [rad]
  Model::TrackerHeadAngle fAngle;
  std::vector<std::string> fNames;
  std::vector<float> fAngles;
  bool fLogFirst = true;
};

}  // namespace Sim
}  // namespace KR
