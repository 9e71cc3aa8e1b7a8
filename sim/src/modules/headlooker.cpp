#include <krsim/modules/headlooker.h>

#include <algorithm>

#include <kr/error.h>
#include <kr/math/math.h>

#include <krtracker/config/krgenerictrackerconfig.h>
#include <krtracker/tools/namer/namer.h>
#include <krtracker/tools/tools.h>

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
    : SimModule(kHeadLookerModule),
      fMemory(context.memory),
      fMotion(context.broker->getProxy("KRMotion", 0)),
      fInput(context.memory, context.clock, Tracker::Namer::getNameLooker()),
      fNames(2),
      fAngles(2) {
  context.robot->fillTrackerModel(fModel);
  bind("start", &HeadLooker::start, this);
  bind("stopLooker", &HeadLooker::stopLooker, this);
  bind("setImplParam", &HeadLooker::setImplParam, this);
  bind("exit", &HeadLooker::exit, this);
}

void HeadLooker::start() {
  {
    std::lock_guard<std::mutex> lock(fMutex);
    fRunning = true;
    fResync = true;
    fSpeed = 0.0f;
  }
  fMemory->raiseEvent(Tracker::Namer::getNameHeadRestarted(), KRValue(true));
}

void HeadLooker::stopLooker() {
  std::lock_guard<std::mutex> lock(fMutex);
  fRunning = false;
}

void HeadLooker::exit() {
  stopLooker();
}

void HeadLooker::setImplParam(const KRValue& params) {
  if (!params.isArray() || params.size() != 2 || !params[0].isNumber() || !params[1].isNumber()) {
    throw KRError(kHeadLookerModule, "setImplParam", "Expected [maxVelocity, maxAcceleration].");
  }
  const float velocity = params[0].asFloat();
  const float acceleration = params[1].asFloat();
  if (!(velocity > 0.0f) || !(acceleration > 0.0f)) {
    throw KRError(kHeadLookerModule, "setImplParam",
                  "The maximum velocity and acceleration must be strictly positive.");
  }
  std::lock_guard<std::mutex> lock(fMutex);
  fMaxVelocity = velocity;
  fMaxAcceleration = acceleration;
}

void HeadLooker::update(KRTimePoint now) {
  // The lock is held across the motion requests: once stopLooker() returns, nothing more is
  // sent. KRMotion never calls back into the sub-modules.
  std::lock_guard<std::mutex> lock(fMutex);
  if (!fRunning) {
    return;
  }
  const auto sample = fInput.fresh(now, kLookerFreshness);
  if (!sample) {
    fResync = true;
    fSpeed = 0.0f;
    return;
  }
  const float dt = fLastUpdate == KRTimePoint{}
                       ? 0.0f
                       : static_cast<float>(std::min(secondsBetween(fLastUpdate, now), 0.1));
  fLastUpdate = now;

  if (fResync) {
    // Whoever moved the head meanwhile (searcher, one-shot look), the dead band starts from
    // where the head really is.
    const auto measured = fMotion->call<std::vector<float>>("getAngles", std::string("Head"), true);
    if (measured.size() >= 2) {
      fAngle.yaw = measured[0];
      fAngle.pitch = measured[1];
    }
    fResync = false;
  }

  const Math::Transform worldToTorso = Tracker::tools::getWorldToTorsoTransform(fMotion);
  const Math::Position3D target = sample->info.getTorsoToObject3D(Math::pinv(worldToTorso));
  const int effector =
      std::clamp(sample->info.getTrackEffector(), 0, Model::kTrackEffectorCount - 1);
  const Model::TrackerHeadAngle previous = fAngle;
  const bool changed = Tracker::tools::computeLookAtAnglesWithThreshold(
      target, fModel.head, static_cast<Model::TRACK_EFFECTOR>(effector),
      sample->info.getHeadThreshold(), fAngle, fNames, fAngles);

  const float previousSpeed = fSpeed;
  fSpeed = std::min(fMaxVelocity, std::max(fSpeed, 0.0f) + fMaxAcceleration * std::max(dt, 0.01f));
  // While the speed ramps up the command is repeated with the higher speed.
  if (!changed && fSpeed == previousSpeed) {
    return;
  }
  if (fNames.size() < 2 || Tracker::tools::areAllResourcesTaken(fMotion, fNames)) {
    fAngle = previous;  // not sent: keep the dead band on what the head was told
    fSpeed = previousSpeed;
    return;
  }
  const std::vector<float> speeds{fractionOf(fSpeed, fModel.head.yaw),
                                  fractionOf(fSpeed, fModel.head.pitch)};
  fMotion->call<void>("_trackerWithSpeed", fNames, fAngles, speeds, false, false);
  if (configSwitch(Tracker::LOG_HEAD_COMMAND)) {
    Tracker::tools::logAnglesToFile(fAngles, fNames, kLogFile, logTime(now), fLogFirst);
  }
}

bool HeadLooker::isRunning() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fRunning;
}

float HeadLooker::getMaxVelocity() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fMaxVelocity;
}

float HeadLooker::getMaxAcceleration() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fMaxAcceleration;
}

}  // namespace Sim
}  // namespace KR
