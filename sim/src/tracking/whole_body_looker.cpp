#include <krsim/tracking/whole_body_looker.h>

#include <algorithm>
#include <cmath>

#include <kr/math/math.h>

#include <krtracker/generictracker/submodules.h>

namespace KR {
namespace Sim {

namespace {
constexpr float kVelocityTimeConstant = 0.2f;  // [s] low-pass of the target's velocity
constexpr float kMinLeadRate = 0.05f;  // [rad/s] slower bearings are noise or at rest: no lead
constexpr float kMaxLead = 1.0f;       // [s] never aim further ahead than this
}  // namespace

WholeBodyLooker::WholeBodyLooker(const SimContext& context)
    : LookerBase(Tracker::kWholeBodyLookerModule, context, ""), fLead(context.compensation) {
  fNames.resize(2);
  fAngles.resize(2);
}

void WholeBodyLooker::xOnStart() {
  fState.lastTimestamp.reset();
  fState.velocity = Math::Position3D();
}

Math::Position3D WholeBodyLooker::xLead(const Tracker::types::TrackInfos& info,
                                        const Math::Pose2D& robot, float threshold) {
  WholeBodyLookerState& s = fState;
  const Math::Position3D position = info.getWorldToObject3D();
  const std::int64_t stamp = info.getTimestamp();
  if (s.lastTimestamp && stamp > *s.lastTimestamp) {
    const float dt = static_cast<float>(stamp - *s.lastTimestamp) * 1e-9f;
    const Math::Position3D instant = (position - s.lastPosition) * (1.0f / dt);
    s.velocity = s.velocity + (instant - s.velocity) * std::min(1.0f, dt / kVelocityTimeConstant);
  }
  s.lastTimestamp = stamp;
  s.lastPosition = position;

  // The bearing's rate seen from the robot: the velocity across the line of sight.
  const float sightX = position.x - robot.x;
  const float sightY = position.y - robot.y;
  const float range = std::hypot(sightX, sightY);
  if (!fLead || !(range > 1e-3f) || !(threshold > 0.0f)) {
    return Math::Position3D();
  }
  const float across = std::fabs(sightX * s.velocity.y - sightY * s.velocity.x) / range;
  const float rate = across / range;
  if (!(rate > kMinLeadRate)) {
    return Math::Position3D();
  }
  const float lead = std::min(0.5f * threshold / rate, kMaxLead);
  return s.velocity * lead;
}

void WholeBodyLooker::xOnStop() {
  if (fState.gazeSent) {
    // A gaze is held by the motion service until cancelled; without this the base would go
    // on turning toward a target that nobody follows any more.
    fState.gazeSent = false;
    fMotion->call<void>("_stopLookAt", true);
  }
}

bool WholeBodyLooker::xFollow(const TargetInput::Sample& sample, KRTimePoint now) {
  WholeBodyLookerState& s = fState;
  const Math::Transform worldToRobot = Tracker::tools::getWorldToRobotTransform(fMotion);
  const Math::Pose2D robot = Math::pose2DFromTransform(worldToRobot);
  const float baseYaw = robot.theta;
  const float threshold = configFloat(Tracker::WHOLEBODY_THRESHOLD, 0.0f);
  const Math::Position3D ahead = xLead(sample.info, robot, threshold);
  const Math::Position3D target =
      Math::pinv(worldToRobot) * (sample.info.getWorldToObject3D() + ahead);
  if (xResyncHead(s.angle)) {
    s.gazeYaw = Math::modulo2PI(baseYaw + s.angle.yaw);
  }
  if (s.gazeSent) {
    // The gaze is held in the world while the base turns under it: the dead band compares
    // the target with where the gaze points from the base now.
    s.angle.yaw = Math::modulo2PI(s.gazeYaw - baseYaw);
  }
  const int effector =
      std::clamp(sample.info.getTrackEffector(), 0, Model::kTrackEffectorCount - 1);
  const Model::TrackerHeadAngle previous = s.angle;
  const auto sensor = static_cast<Model::TRACK_EFFECTOR>(effector);
  if (!Tracker::tools::computeLookAtWB(target, fModel, sensor, threshold, s.angle, fNames,
                                       fAngles)) {
    return true;
  }
  // The dead band decides when the gaze moves; once it moves, both angles aim at the target,
  // not only the one that left its band.
  Tracker::tools::computeLookAtWB(target, fModel, sensor, 0.0f, s.angle, fNames, fAngles);
  if (xAllTaken()) {
    s.angle = previous;
    return true;
  }
  fMotion->call<void>("_lookAtWb", fAngles[1], fAngles[0]);
  s.gazeSent = true;
  s.gazeYaw = Math::modulo2PI(baseYaw + fAngles[0]);
  xLog(Tracker::LOG_HEAD_COMMAND, kLogFile, now);
  return true;
}

}  // namespace Sim
}  // namespace KR
