#pragma once
// MotionMove: the sub-module "_MotionMove". While started, every step it drives the base
// with "move"(vx, vy, vtheta) so that the target stays at the relative position given to the
// smoother: the target's own velocity (feed-forward) plus, on each axis whose error has left
// its threshold (until it is back within half of it), a PID on the error with the gains
// MOVE_X_GAINS, MOVE_Y_GAINS and MOVE_THETA_GAINS [kp, ki, kd]. A command for which
// isNullMoveCommand(command, kNullCommand) holds is not sent; the base is stopped instead if
// this mover had set it going. With LOG_MOVE_COMMAND on, each command goes to the log
// "MotionMove.txt".
//
// Remote methods: "start"(), "stopMove"() (as "exit"), "setParam"(config), "exit"().

#include <array>
#include <cstddef>

#include <kr/math/types.h>

#include <krtracker/config/krgenerictrackerconfig.h>

#include <krsim/tracking/mover_base.h>

namespace KR {
namespace Sim {

class MotionMove : public MoverBase {
 public:
  static constexpr const char* kLogFile = "MotionMove.txt";
  /// Commands below this sum |vx| + |vy| + |vtheta| are not sent.
  static constexpr float kNullCommand = 0.01f;

  explicit MotionMove(const SimContext& context);

  void update(KRTimePoint now) override;

 private:
  /// The base velocity (vx, vy, vtheta) for the situation, within the limits; dt [s] since the
  /// last update (0 at the first). Caller holds fMutex.
  Math::Pose2D xCommand(const Situation& s, float dt);
  /// Adds to `command` the PID correction of one axis (x, y, theta) while its error is being
  /// corrected: from when it leaves its threshold until it is back within half of it.
  void xCorrect(std::size_t axis, float error, float threshold, Tracker::ConfigKey gainKey,
                float dt, float& command);

  std::array<bool, 3> fCorrecting{};
  std::array<float, 3> fIntegral{};
  std::array<float, 3> fLastError{};
  KRTimePoint fLastUpdate{};
  bool fLogFirst = true;
};

}  // namespace Sim
}  // namespace KR
