#include <krsim/tracking/navigation_move.h>

#include <cmath>
#include <exception>

#include <ko/log.h>
#include <kr/math/math.h>

#include <krtracker/config/krgenerictrackerconfig.h>
#include <krtracker/generictracker/submodules.h>
#include <krtracker/tools/tools.h>

#include <krsim/tracking/config_reads.h>
#include <krsim/tracking/seconds.h>

namespace KR {
namespace Sim {

namespace {
const std::string kCategory = "KRTracker.NavigationMove";
}  // namespace

NavigationMove::NavigationMove(const SimContext& context)
    : MoverBase(Tracker::kNavigationMoveModule, context) {
  bind("stopMove", &NavigationMove::stopMove, this);
  bind("stopWithoutStopMove", &NavigationMove::stopWithoutStopMove, this);
}

void NavigationMove::stopMove() {
  std::lock_guard<std::mutex> lock(fMutex);
  fState.running = false;
  xStopBase();
  fGoal.reset();
  fTurning = false;
}

void NavigationMove::stopWithoutStopMove() {
  std::lock_guard<std::mutex> lock(fMutex);
  fState.running = false;
  fState.moving = false;  // the walk goes on to its end, no longer ours
  fGoal.reset();
  fTurning = false;
}

void NavigationMove::update(KRTimePoint now) {
  bool reached = false;
  {
    std::lock_guard<std::mutex> lock(fMutex);
    if (!fState.running || fRefused) {
      return;
    }
    const auto s = xSituation(now);
    if (!s) {
      xStopBase();
      fGoal.reset();
      fTurning = false;
      return;
    }
    // The place to stand: facing the target at the relative bearing, with the target at
    // (coordX, coordY) in the robot frame.
    const float heading = s->bearing - s->relative[2];
    const float c = std::cos(heading);
    const float sn = std::sin(heading);
    const Math::Position3D place(s->target.x - (c * s->relative[0] - sn * s->relative[1]),
                                 s->target.y - (sn * s->relative[0] + c * s->relative[1]), 0.0f);
    const bool inPlace =
        std::fabs(s->errorX) <= s->relative[3] && std::fabs(s->errorY) <= s->relative[4];
    const bool walking = fState.moving && fMotion->call<bool>("moveIsActive");
    const Math::Transform worldToRobot = Tracker::tools::getWorldToRobotTransform(fMotion);
    const Math::Position3D placeInWorld = worldToRobot * place;

    if (inPlace && std::fabs(s->errorTheta) <= s->relative[5]) {
      if (!walking) {
        fState.moving = false;
        fTurning = false;
        fGoal.reset();
        reached = xReached();
      }
    } else if (inPlace) {
      // Only the bearing is off: turn in place.
      if (!walking && xBaseAvailable()) {
        fMotion->call<void>("moveTo", 0.0f, 0.0f, s->errorTheta);
        fState.moving = true;
        fTurning = true;
        fState.reached = false;
      }
    } else {
      const bool goalMoved = !fGoal || Math::distance(*fGoal, placeInWorld) > kReplanDistance;
      if ((goalMoved || !walking || fTurning) && xBaseAvailable()) {
        xWalkTo(*s, place, placeInWorld, now);
      }
    }
  }
  if (reached) {
    xRaiseReached();
  }
}

void NavigationMove::xWalkTo(const Situation& s, const Math::Position3D& place,
                             const Math::Position3D& placeInWorld, KRTimePoint now) {
  try {
    if (std::hypot(place.x, place.y) > kNavigateDistance) {
      fMotion->call<bool>("navigateTo", place.x, place.y);
    } else {
      // A short step: walking "facing the goal" would turn the robot round for a few
      // centimetres; step there facing the target instead.
      const float facing = std::atan2(s.target.y - place.y, s.target.x - place.x);
      fMotion->call<void>("moveTo", place.x, place.y, Math::modulo2PI(facing - s.relative[2]));
    }
    fState.moving = true;
    fTurning = false;
    fState.reached = false;
    fGoal = placeInWorld;
    if (configSwitch(Tracker::LOG_MOVE_COMMAND)) {
      Tracker::tools::logAnglesToFile({place.x, place.y, s.errorTheta}, {"X", "Y", "Theta"},
                                      kLogFile, logTime(now), fLogFirst);
    }
  } catch (const std::exception& e) {
    fRefused = true;
    ko::log::error(kCategory, "update", std::string("Could not navigate: ") + e.what());
  }
}

}  // namespace Sim
}  // namespace KR
