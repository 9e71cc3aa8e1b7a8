#pragma once
// MoverBase: what the two movers (motion_move.h, navigation_move.h) share beyond their
// lifecycle (sub_module_lifecycle.h). It follows the smoother's move targets
// (Namer::getNameMove(): the target, the relative position to keep and the target's velocity)
// and its lost and detected events, holds the move limits given by "setParam", and tells
// whether the base was set going by this mover; stopping the mover stops that base.
//
// The relative position [coordX, coordY, coordWz, thresholdX, thresholdY, thresholdWz]: the
// target is to stay at (coordX, coordY) in the robot frame, at the bearing coordWz, each
// within its threshold. Once there, the mover raises "KRTracker/TargetReached" (once per
// arrival).

#include <array>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <kr/broker/broker.h>
#include <kr/math/types.h>
#include <kr/value/krvalue.h>

#include <krtracker/types/types/trackinfos.h>

#include <krsim/tracking/context.h>
#include <krsim/tracking/move_limits.h>
#include <krsim/tracking/sub_module_lifecycle.h>

namespace KR {
namespace Sim {

struct MoverState {
  bool running = false;
  bool moving = false;   // the base runs on a command of this mover
  bool reached = false;  // TargetReached raised since the last move
  MoveLimits limits;
  void onStart() { reached = false; }
};

class MoverBase : public SubModuleLifecycle<MoverState> {
 public:
  /// A move target is extrapolated with its velocity at most this long (the smoother
  /// publishes it again when it has moved by the hysteresis or comes to rest).
  static constexpr std::chrono::milliseconds kMaxExtrapolation{1500};

  /// Where the target is, seen from the robot now, and where it should be.
  struct Situation {
    Math::Position3D target;    // robot frame [m]
    Math::Position3D velocity;  // robot frame [m/s]
    float bearing = 0.0f;       // of the target [rad]
    std::array<float, 6> relative{};
    float errorX = 0.0f;      // target x minus coordX [m]
    float errorY = 0.0f;      // target y minus coordY [m]
    float errorTheta = 0.0f;  // bearing minus coordWz [rad]
    bool withinThresholds() const;
  };

  MoverBase(const std::string& name, const SimContext& context);
  ~MoverBase() override;

  void setParam(const KRValue& config);

 protected:
  /// The situation at `now`; none while the target is lost or was never given.
  /// Caller holds fMutex.
  std::optional<Situation> xSituation(KRTimePoint now);
  /// Stops the base if this mover set it going; caller holds fMutex.
  void xStopBase();
  /// Whether the base may be commanded (MOVE_LOW_PRIORITY yields to other users).
  bool xBaseAvailable();
  /// Marks the arrival; true the first time since the last move. Caller holds fMutex.
  bool xReached();
  /// Raises "KRTracker/TargetReached"; called without fMutex.
  void xRaiseReached();
  /// On stop and exit: the base this mover set going stops.
  void xOnStop() override { xStopBase(); }

 private:
  struct Goal {
    Tracker::types::TrackInfos info;
    std::array<float, 6> relative{};
    Math::Position3D velocity;  // FRAME_WORLD [m/s]
  };
  void xOnMove(const KRValue& value);
  void xOnLost(bool lost);

  std::vector<int> fSubscriptions;
  std::optional<Goal> fGoal;
  bool fLost = false;
};

}  // namespace Sim
}  // namespace KR
