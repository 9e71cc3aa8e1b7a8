#include <krsim/modules/wholebodylooker.h>

#include <algorithm>

#include <kr/math/math.h>

#include <krtracker/config/krgenerictrackerconfig.h>
#include <krtracker/tools/namer/namer.h>
#include <krtracker/tools/tools.h>

namespace KR {
namespace Sim {

WholeBodyLooker::WholeBodyLooker(const SimContext& context)
    : SimModule(kWholeBodyLookerModule),
      fMotion(context.broker->getProxy("KRMotion", 0)),
      fInput(context.memory, context.clock, Tracker::Namer::getNameLooker()),
      fNames(2),
      fAngles(2) {
  context.robot->fillTrackerModel(fModel);
  bind("start", &WholeBodyLooker::start, this);
  bind("stopLooker", &WholeBodyLooker::stopLooker, this);
  bind("exit", &WholeBodyLooker::exit, this);
}

void WholeBodyLooker::start() {
  std::lock_guard<std::mutex> lock(fMutex);
  fRunning = true;
  fResync = true;
}

void WholeBodyLooker::stopLooker() {
  std::lock_guard<std::mutex> lock(fMutex);
  fRunning = false;
  if (fGazeSent) {
    // A gaze is held by the motion service until cancelled; without this the base would go
    // on turning toward a target that nobody follows any more.
    fGazeSent = false;
    fMotion->call<void>("_stopLookAt", true);
  }
}

void WholeBodyLooker::exit() {
  stopLooker();
}

void WholeBodyLooker::update(KRTimePoint now) {
  std::lock_guard<std::mutex> lock(fMutex);
  if (!fRunning) {
    return;
  }
  const auto sample = fInput.fresh(now, kLookerFreshness);
  if (!sample) {
    fResync = true;
    return;
  }
  const Math::Transform worldToRobot = Tracker::tools::getWorldToRobotTransform(fMotion);
  const Math::Position3D target = sample->info.getRobotToObject3D(worldToRobot);
  const float baseYaw = Math::pose2DFromTransform(worldToRobot).theta;
  if (fResync) {
    // Others may have moved the head meanwhile: start from where it is.
    const auto measured = fMotion->call<std::vector<float>>("getAngles", std::string("Head"), true);
    if (measured.size() >= 2) {
      fAngle.yaw = measured[0];
      fAngle.pitch = measured[1];
      fGazeYaw = Math::modulo2PI(baseYaw + measured[0]);
    }
    fResync = false;
  }
  if (fGazeSent) {
    // The gaze is held in the world while the base turns under it: the dead band compares
    // the target with where the gaze points from the base now.
    fAngle.yaw = Math::modulo2PI(fGazeYaw - baseYaw);
  }
  const int effector =
      std::clamp(sample->info.getTrackEffector(), 0, Model::kTrackEffectorCount - 1);
  const float threshold = configFloat(Tracker::WHOLEBODY_THRESHOLD, 0.0f);
  const Model::TrackerHeadAngle previous = fAngle;
  if (!Tracker::tools::computeLookAtWB(target, fModel, static_cast<Model::TRACK_EFFECTOR>(effector),
                                       threshold, fAngle, fNames, fAngles)) {
    return;
  }
  if (Tracker::tools::areAllResourcesTaken(fMotion, fNames)) {
    fAngle = previous;
    return;
  }
  fMotion->call<void>("_lookAtWb", fAngles[1], fAngles[0]);
  fGazeSent = true;
  fGazeYaw = Math::modulo2PI(baseYaw + fAngles[0]);
  if (configSwitch(Tracker::LOG_HEAD_COMMAND)) {
    Tracker::tools::logAnglesToFile(fAngles, fNames, kLogFile, logTime(now), fLogFirst);
  }
}

bool WholeBodyLooker::isRunning() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fRunning;
}

}  // namespace Sim
}  // namespace KR
