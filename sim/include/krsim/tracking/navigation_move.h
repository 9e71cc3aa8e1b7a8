#pragma once
// NavigationMove: the sub-module "_NavigationMove", for robots that navigate (type 1). While
// started it walks the robot, with KRMotion "navigateTo", to the place from which the target
// is seen at the relative position (the last kNavigateDistance as one "moveTo" step that ends
// facing the target), and then turns it toward the target ("moveTo" in place).
// It plans again when that place has moved by more than kReplanDistance or when the walk has
// ended outside the thresholds. On a robot that cannot navigate, the refusal of the motion
// service is logged once and the mover stays idle. With LOG_MOVE_COMMAND on, each goal goes to
// the log "NavigationMove.txt".
//
// Remote methods: "start"(), "stopMove"() (stops the base), "stopWithoutStopMove"() (leaves
// the walk under way to its end), "setParam"(config), "exit"().

#include <optional>

#include <kr/math/types.h>

#include <krsim/tracking/mover_base.h>

namespace KR {
namespace Sim {

class NavigationMove : public MoverBase {
 public:
  static constexpr const char* kLogFile = "NavigationMove.txt";
  /// A goal that moved by more than this is planned again [m].
  static constexpr float kReplanDistance = 0.15f;
  /// Places nearer than this are reached by one step rather than by navigating [m].
  static constexpr float kNavigateDistance = 0.5f;

  explicit NavigationMove(const SimContext& context);

  void update(KRTimePoint now) override;
  void stopMove();
  void stopWithoutStopMove();

 private:
  /// Walks to `place` (robot frame; `placeInWorld` in FRAME_WORLD), by navigating or, when
  /// near, by one step that ends facing the target. A refusal is logged and ends the mover's
  /// work. Caller holds fMutex.
  void xWalkTo(const Situation& s, const Math::Position3D& place,
               const Math::Position3D& placeInWorld, KRTimePoint now);

  std::optional<Math::Position3D> fGoal;  // FRAME_WORLD, the last navigation goal
  bool fTurning = false;
  bool fRefused = false;  // the motion service refused to navigate
  bool fLogFirst = true;
};

}  // namespace Sim
}  // namespace KR
