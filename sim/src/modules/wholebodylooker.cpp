#include <krsim/modules/wholebodylooker.h>

#include <algorithm>

#include <kr/math/math.h>

namespace KR {
namespace Sim {

WholeBodyLooker::WholeBodyLooker(const SimContext& context)
    : LookerBase(kWholeBodyLookerModule, context, "") {
  fNames.resize(2);
  fAngles.resize(2);
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
  const Math::Position3D target = sample.info.getRobotToObject3D(worldToRobot);
  const float baseYaw = Math::pose2DFromTransform(worldToRobot).theta;
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
  const float threshold = configFloat(Tracker::WHOLEBODY_THRESHOLD, 0.0f);
  const Model::TrackerHeadAngle previous = s.angle;
  if (!Tracker::tools::computeLookAtWB(target, fModel, static_cast<Model::TRACK_EFFECTOR>(effector),
                                       threshold, s.angle, fNames, fAngles)) {
    return true;
  }
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
