#include <krsim/tracking/motion_move.h>

#include <algorithm>
#include <cmath>

#include <kr/math/math.h>

#include <krtracker/config/krgenerictrackerconfig.h>
#include <krtracker/tools/tools.h>

namespace KR {
namespace Sim {

MotionMove::MotionMove(const SimContext& context) : MoverBase(kMotionMoveModule, context) {
  bind("stopMove", &MotionMove::stopMove, this);
}

void MotionMove::stopMove() {
  std::lock_guard<std::mutex> lock(fMutex);
  fState.running = false;
  xStopBase();
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

    // Feed-forward: x and y follow the target's velocity; the bearing follows its rate.
    const float r2 = s->target.x * s->target.x + s->target.y * s->target.y;
    const float bearingRate =
        r2 > 1e-4f ? (s->target.x * s->velocity.y - s->target.y * s->velocity.x) / r2 : 0.0f;
    std::array<float, 3> command{s->velocity.x, s->velocity.y, bearingRate};

    const std::array<float, 3> errors{s->errorX, s->errorY, s->errorTheta};
    const std::array<Tracker::ConfigKey, 3> gainKeys{Tracker::MOVE_X_GAINS, Tracker::MOVE_Y_GAINS,
                                                     Tracker::MOVE_THETA_GAINS};
    for (std::size_t i = 0; i < 3; ++i) {
      const float threshold = s->relative[3 + i];
      const float e = errors[i];
      if (std::fabs(e) > threshold) {
        fCorrecting[i] = true;
      } else if (std::fabs(e) <= 0.5f * threshold) {
        fCorrecting[i] = false;
      }
      if (!fCorrecting[i]) {
        fIntegral[i] = 0.0f;
        fLastError[i] = e;
        continue;
      }
      const std::vector<float> gains = configGains(gainKeys[i]);
      fIntegral[i] += e * dt;
      const float derivative = dt > 0.0f ? (e - fLastError[i]) / dt : 0.0f;
      fLastError[i] = e;
      command[i] += gains[0] * e + gains[1] * fIntegral[i] + gains[2] * derivative;
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

    const Math::Pose2D move(command[0], command[1], command[2]);
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

}  // namespace Sim
}  // namespace KR
