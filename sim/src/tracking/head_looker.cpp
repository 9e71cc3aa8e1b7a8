#include <krsim/tracking/head_looker.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include <kr/error.h>
#include <kr/math/math.h>

#include <krtracker/generictracker/submodules.h>

namespace KR {
namespace Sim {

namespace {
/// Fraction of a joint's velocity limit that gives `speed`, within ]0, 1].
float fractionOf(float speed, const Model::TrackerJoint& joint) {
  if (joint.maxVelocity <= 0.0f) {
    return 1.0f;
  }
  return std::clamp(speed / joint.maxVelocity, 1e-3f, 1.0f);
}
}  // namespace

HeadLooker::HeadLooker(const SimContext& context)
    : LookerBase(Tracker::kHeadLookerModule, context, Tracker::Namer::getNameHeadRestarted()) {
  fNames.resize(2);
  fAngles.resize(2);
  bind("setImplParam", &HeadLooker::setImplParam, this);
}

void HeadLooker::setImplParam(const KRValue& params) {
  if (!params.isArray() || params.size() != 2 || !params[0].isNumber() || !params[1].isNumber()) {
    throw KRError(Tracker::kHeadLookerModule, "setImplParam",
                  "Expected [maxVelocity, maxAcceleration].");
  }
  const float velocity = params[0].asFloat();
  const float acceleration = params[1].asFloat();
  if (!(velocity > 0.0f) || !(acceleration > 0.0f)) {
    throw KRError(Tracker::kHeadLookerModule, "setImplParam",
                  "The maximum velocity and acceleration must be strictly positive.");
  }
  std::lock_guard<std::mutex> lock(fMutex);
  fState.maxVelocity = velocity;
  fState.maxAcceleration = acceleration;
}

float HeadLooker::xTurnSpeed(const HeadLookerState& s) {
  // Far off the target (one just detected at the edge of view), the head turns at the joints'
  // own velocity limit and brakes so as to come within the hand-over angle at the pursuit
  // speed: the turn is as quick as the joints allow and arrives without overshoot; within the
  // hand-over angle the tracker's limits rule.
  const float joints = std::min(fModel.head.yaw.maxVelocity, fModel.head.pitch.maxVelocity);
  if (!(joints > s.maxVelocity))
    return s.maxVelocity;
  const auto measured = fMotion->call<std::vector<float>>("getAngles", std::string("Head"), true);
  if (measured.size() < 2)
    return s.maxVelocity;
  const float remaining =
      std::max(std::fabs(s.angle.yaw - measured[0]), std::fabs(s.angle.pitch - measured[1]));
  if (remaining <= kHandOver)
    return s.maxVelocity;
  // Braking at half the turn's acceleration leaves room for the servos' lag.
  return std::min(joints, std::sqrt(s.maxVelocity * s.maxVelocity +
                                    kTurnAcceleration * (remaining - kHandOver)));
}

bool HeadLooker::xFollow(const TargetInput::Sample& sample, KRTimePoint now) {
  HeadLookerState& s = fState;
  const float dt = s.lastUpdate == KRTimePoint{}
                       ? 0.0f
                       : static_cast<float>(std::min(secondsBetween(s.lastUpdate, now), 0.1));
  s.lastUpdate = now;
  xResyncHead(s.angle);

  const Math::Transform worldToTorso = Tracker::tools::getWorldToTorsoTransform(fMotion);
  const Math::Position3D target = sample.info.getTorsoToObject3D(Math::pinv(worldToTorso));
  const int effector =
      std::clamp(sample.info.getTrackEffector(), 0, Model::kTrackEffectorCount - 1);
  const Model::TrackerHeadAngle previous = s.angle;
  const bool changed = Tracker::tools::computeLookAtAnglesWithThreshold(
      target, fModel.head, static_cast<Model::TRACK_EFFECTOR>(effector),
      sample.info.getHeadThreshold(), s.angle, fNames, fAngles);

  const float previousSpeed = s.speed;
  const float cap = xTurnSpeed(s);
  const float acceleration =
      cap > s.maxVelocity ? std::max(s.maxAcceleration, kTurnAcceleration) : s.maxAcceleration;
  s.speed = std::min(cap, std::max(s.speed, 0.0f) + acceleration * std::max(dt, 0.01f));
  // While the speed ramps up the command is repeated with the higher speed.
  if (!changed && s.speed == previousSpeed) {
    return true;
  }
  if (fNames.size() < 2 || xAllTaken()) {
    s.angle = previous;  // not sent: keep the dead band on what the head was told
    s.speed = previousSpeed;
    return true;
  }
  const std::vector<float> speeds{fractionOf(s.speed, fModel.head.yaw),
                                  fractionOf(s.speed, fModel.head.pitch)};
  fMotion->call<void>("_trackerWithSpeed", fNames, fAngles, speeds, false, false);
  xLog(Tracker::LOG_HEAD_COMMAND, kLogFile, now);
  return true;
}

}  // namespace Sim
}  // namespace KR
