#include <krsim/tracking/motion_move.h>

#include <algorithm>
#include <cmath>

#include <kr/math/math.h>

#include <krtracker/config/krgenerictrackerconfig.h>
#include <krtracker/generictracker/submodules.h>
#include <krtracker/tools/tools.h>

#include <krsim/tracking/config_reads.h>
#include <krsim/tracking/seconds.h>

namespace KR {
namespace Sim {

MotionMove::MotionMove(const SimContext& context) : MoverBase(Tracker::kMotionMoveModule, context) {
  bind("stopMove", [this] { stop(); });
}

void MotionMove::update(KRTimePoint now) {
  bool reached = false;
  {
    std::lock_guard<std::mutex> lock(fMutex);
    if (!fState.running) {
      fCorrecting = {};
      fIntegral = {};
      fLastUpdate = {};
      return;
    }
    const auto s = xSituation(now);
    if (!s) {
      xStopBase();
      return;
    }
    const float dt = fLastUpdate == KRTimePoint{}
                         ? 0.0f
                         : static_cast<float>(std::min(secondsBetween(fLastUpdate, now), 0.1));
    fLastUpdate = now;
    const Math::Pose2D move = xCommand(*s, dt);
    if (Tracker::tools::isNullMoveCommand(move, kNullCommand)) {
      xStopBase();
      if (s->withinThresholds()) {
        reached = xReached();
      }
    } else if (xBaseAvailable()) {
      fMotion->call<void>("move", move.x, move.y, move.theta);
      fState.moving = true;
      fState.reached = false;
      if (configSwitch(Tracker::LOG_MOVE_COMMAND)) {
        Tracker::tools::logAnglesToFile(move.toVector(), {"X", "Y", "Theta"}, kLogFile,
                                        logTime(now), fLogFirst);
      }
    }
  }
  if (reached) {
    xRaiseReached();
  }
}

Math::Pose2D MotionMove::xCommand(const Situation& s, float dt) {
  // Feed-forward: x and y follow the target's velocity; the bearing follows its rate.
  const float r2 = s.target.x * s.target.x + s.target.y * s.target.y;
  const float bearingRate =
      r2 > 1e-4f ? (s.target.x * s.velocity.y - s.target.y * s.velocity.x) / r2 : 0.0f;
  std::array<float, 3> command{s.velocity.x, s.velocity.y, bearingRate};

  const std::array<float, 3> errors{s.errorX, s.errorY, s.errorTheta};
  const std::array<Tracker::ConfigKey, 3> gainKeys{Tracker::MOVE_X_GAINS, Tracker::MOVE_Y_GAINS,
                                                   Tracker::MOVE_THETA_GAINS};
  for (std::size_t i = 0; i < 3; ++i) {
    xCorrect(i, errors[i], s.relative[3 + i], gainKeys[i], dt, command[i]);
  }

  // The configured limits, within the base's own (which "move" applies anyway).
  const float xy = std::hypot(command[0], command[1]);
  if (fState.limits.maxVelocityXY > 0.0f && xy > fState.limits.maxVelocityXY) {
    command[0] *= fState.limits.maxVelocityXY / xy;
    command[1] *= fState.limits.maxVelocityXY / xy;
  }
  if (fState.limits.maxVelocityTheta > 0.0f) {
    command[2] =
        std::clamp(command[2], -fState.limits.maxVelocityTheta, fState.limits.maxVelocityTheta);
  }
  return Math::Pose2D(command[0], command[1], command[2]);
}

void MotionMove::xCorrect(std::size_t axis, float error, float threshold,
                          Tracker::ConfigKey gainKey, float dt, float& command) {
  if (std::fabs(error) > threshold) {
    fCorrecting[axis] = true;
  } else if (std::fabs(error) <= 0.5f * threshold) {
    fCorrecting[axis] = false;
  }
  if (!fCorrecting[axis]) {
    fIntegral[axis] = 0.0f;
    fLastError[axis] = error;
    return;
  }
  const std::vector<float> gains = configGains(gainKey);
  fIntegral[axis] += error * dt;
  const float derivative = dt > 0.0f ? (error - fLastError[axis]) / dt : 0.0f;
  fLastError[axis] = error;
  command += gains[0] * error + gains[1] * fIntegral[axis] + gains[2] * derivative;
}

}  // namespace Sim
}  // namespace KR
