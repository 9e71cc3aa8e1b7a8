#pragma once
// HeadLooker: the sub-module "_HeadLooker". While started, every step it takes the smoothed
// target from the smoother (Namer::getNameLooker()), computes the head angles toward it in
// the torso frame with computeLookAtAnglesWithThreshold and the target's own head threshold,
// and, when the dead band lets a change through and the head is free, sends them to
// KRMotion with "_trackerWithSpeed". The speed follows the limits of "setImplParam": from
// rest it grows by the maximum acceleration each step up to the maximum velocity.
// With LOG_HEAD_COMMAND on, each command goes to the angle log "HeadLooker.txt".
//
// Remote methods: "start"(), "stopLooker"(), "setImplParam"([maxVelocity, maxAcceleration]),
// "exit"(). Errors are KRError("_HeadLooker", method, text). Starting raises
// "KRTracker/HeadTracking/Restarted".

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <kr/broker/broker.h>
#include <kr/model/trackermodel.h>
#include <kr/value/krvalue.h>

#include <krsim/module.h>
#include <krsim/modules/common.h>

namespace KR {
namespace Sim {

class HeadLooker : public SimModule {
 public:
  static constexpr const char* kLogFile = "HeadLooker.txt";

  explicit HeadLooker(const SimContext& context);

  void update(KRTimePoint now) override;

  void start();
  void stopLooker();
  /// [maxVelocity (rad/s), maxAcceleration (rad/s^2)], both strictly positive.
  void setImplParam(const KRValue& params);
  void exit();

  bool isRunning() const;
  float getMaxVelocity() const;
  float getMaxAcceleration() const;

 private:
  std::shared_ptr<SimMemory> fMemory;
  std::shared_ptr<KR::KRProxy> fMotion;
  Model::KRTrackerModel fModel;
  TargetInput fInput;

  mutable std::mutex fMutex;
  bool fRunning = false;
  bool fResync = true;             // take the measured head angles as the last command first
  float fMaxVelocity = 1.0f;       // [rad/s]
  float fMaxAcceleration = 10.0f;  // [rad/s^2]
  float fSpeed = 0.0f;             // commanded speed [rad/s]
  KRTimePoint fLastUpdate{};
  Model::TrackerHeadAngle fAngle;
  std::vector<std::string> fNames;
  std::vector<float> fAngles;
  bool fLogFirst = true;
};

}  // namespace Sim
}  // namespace KR
