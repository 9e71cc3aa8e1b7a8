#include <krsim/modules/armslooker.h>

#include <algorithm>
#include <cmath>

#include <kr/error.h>
#include <kr/math/math.h>

#include <krtracker/config/krgenerictrackerconfig.h>
#include <krtracker/tools/namer/namer.h>
#include <krtracker/tools/tools.h>

namespace KR {
namespace Sim {

namespace {
constexpr float kRestShoulderPitch = 1.4f;  // arms hanging down [rad]
}  // namespace

Math::Transform ArmsLooker::forearmTransform(const Model::TrackerArm& arm, float a1, float a2,
                                             float a3, float a4) {
  return Math::transformFromPosition3D(arm.shoulderPosition) * Math::Transform::fromRotY(a1) *
         Math::Transform::fromRotZ(a2) * arm.armTransform * Math::Transform::fromRotZ(a4) *
         Math::Transform::fromRotX(a3);
}

float ArmsLooker::aimError(const Model::TrackerArm& arm, const Model::TrackerArmAngle& angles,
                           const Math::Position3D& target) {
  const auto& a = angles.angles;
  const Math::Transform forearm = forearmTransform(arm, a[0], a[1], a[2], a[3]);
  const Math::Position3D direction(forearm.r1_c1, forearm.r2_c1, forearm.r3_c1);
  const Math::Position3D toTarget = target - Math::position3DFromTransform(forearm);
  const float n = toTarget.norm();
  return n > 0.0f ? std::acos(std::clamp(direction.dot(toTarget) / n, -1.0f, 1.0f)) : Math::kPi;
}

bool ArmsLooker::isWithinReach(const Model::TrackerArm& arm, const Math::Position3D& target,
                               float* error) {
  const float distance = (target - arm.shoulderPosition).norm();
  Model::TrackerArmAngle angles;
  auto& a = angles.angles;
  Tracker::tools::xComputePointAtAngles(target, arm, a[0], a[1], a[2], a[3], a[4]);
  const float aim = aimError(arm, angles, target);
  if (error != nullptr) {
    *error = aim;
  }
  return distance >= kMinReach && distance <= kMaxReach && aim <= kReachTolerance;
}

ArmsLooker::ArmsLooker(const SimContext& context)
    : SimModule(kArmsLookerModule),
      fMemory(context.memory),
      fMotion(context.broker->getProxy("KRMotion", 0)),
      fInput(context.memory, context.clock, Tracker::Namer::getNameLooker()) {
  context.robot->fillTrackerModel(fModel);
  fArms[0].arm = &fModel.leftArm;
  fArms[1].arm = &fModel.rightArm;
  bind("setImplParam", &ArmsLooker::setImplParam, this);
  bind("start", &ArmsLooker::start, this);
  bind("stopLooker", &ArmsLooker::stopLooker, this);
  bind("exit", &ArmsLooker::exit, this);
}

void ArmsLooker::setImplParam(const KRValue& params) {
  if (!params.isArray() || params.size() != 2 || !params[0].isString() || !params[1].isBool()) {
    throw KRError(kArmsLookerModule, "setImplParam", "Expected [effector, wholeBody].");
  }
  const std::string& effector = params[0].asString();
  if (effector != "Arms" && effector != "LArm" && effector != "RArm" && effector != "None") {
    throw KRError(
        kArmsLookerModule, "setImplParam",
        "Invalid effector name: \"" + effector + "\". Could be: Arms, LArm, RArm or None.");
  }
  std::lock_guard<std::mutex> lock(fMutex);
  if (effector != fEffector) {
    fResync = true;
  }
  fEffector = effector;
  fWholeBody = params[1].asBool();
}

void ArmsLooker::start() {
  {
    std::lock_guard<std::mutex> lock(fMutex);
    fRunning = true;
    fResync = true;
  }
  fMemory->raiseEvent(Tracker::Namer::getNameArmRestarted(), KRValue(true));
}

void ArmsLooker::stopLooker() {
  std::lock_guard<std::mutex> lock(fMutex);
  fRunning = false;
}

void ArmsLooker::exit() {
  stopLooker();
}

std::vector<ArmsLooker::ArmState*> ArmsLooker::xArms() {
  std::vector<ArmState*> arms;
  if (fEffector == "Arms" || fEffector == "LArm") {
    arms.push_back(&fArms[0]);
  }
  if (fEffector == "Arms" || fEffector == "RArm") {
    arms.push_back(&fArms[1]);
  }
  return arms;
}

void ArmsLooker::xAppendRest(ArmState& state, std::vector<std::string>& names,
                             std::vector<float>& angles) {
  for (std::size_t i = 0; i < state.arm->joints.size(); ++i) {
    const Model::TrackerJoint& joint = state.arm->joints[i];
    float rest = i == 0 ? kRestShoulderPitch : 0.0f;
    Math::clipData(joint.min, joint.max, rest);
    state.remembered.angles[i] = rest;
    if (!joint.name.empty()) {
      names.push_back(joint.name);
      angles.push_back(rest);
    }
  }
}

void ArmsLooker::update(KRTimePoint now) {
  std::lock_guard<std::mutex> lock(fMutex);
  if (!fRunning) {
    return;
  }
  const auto sample = fInput.fresh(now, kLookerFreshness);
  const std::vector<ArmState*> arms = xArms();
  if (!sample || arms.empty()) {
    fResync = true;
    fHasLast = false;
    fTorsoVelocity = Math::Position3D();
    return;
  }
  if (fResync) {
    for (ArmState* state : arms) {
      const auto measured = fMotion->call<std::vector<float>>("getAngles", state->arm->name, true);
      std::size_t k = 0;
      for (std::size_t i = 0; i < state->arm->joints.size(); ++i) {
        if (!state->arm->joints[i].name.empty() && k < measured.size()) {
          state->remembered.angles[i] = measured[k++];
        }
      }
      state->atRest = false;
    }
    fResync = false;
  }

  const Math::Transform worldToTorso = Tracker::tools::getWorldToTorsoTransform(fMotion);
  const Math::Position3D seen = sample->info.getTorsoToObject3D(Math::pinv(worldToTorso));
  // The command acts during the next step, while the target and the torso go on moving: aim
  // where the target will be then, from its motion in the torso frame.
  if (fHasLast) {
    const float dt = static_cast<float>(secondsBetween(fLastTime, now));
    if (dt > 0.0f && dt < 0.1f) {
      fTorsoVelocity = fTorsoVelocity * (1.0f - kVelocitySmoothing) +
                       (seen - fLastSeen) * (kVelocitySmoothing / dt);
    }
  }
  fHasLast = true;
  fLastSeen = seen;
  fLastTime = now;
  const Math::Position3D target =
      seen + fTorsoVelocity * static_cast<float>(std::chrono::duration<double>(kLead).count());
  fNames.clear();
  fAngles.clear();
  const std::array<ArmState, 2> previous = fArms;
  for (ArmState* state : arms) {
    if (isWithinReach(*state->arm, target)) {
      state->atRest = false;
      fArmNames.clear();
      fArmAngles.clear();
      // The dead band decides when to move; each move then aims exactly, with every joint,
      // so that joints left inside their own band do not keep the forearm off the target.
      bool send = Tracker::tools::computePointAtAnglesWithThreshold(
          target, *state->arm, state->remembered, fArmNames, fArmAngles);
      send = send || aimError(*state->arm, state->remembered, target) > kMaxAimError;
      if (send) {
        fArmNames.clear();
        fArmAngles.clear();
        Tracker::tools::computePointAtAngles(target, *state->arm, fArmNames, fArmAngles);
        for (std::size_t i = 0; i < fArmAngles.size() && i < state->remembered.angles.size(); ++i) {
          state->remembered.angles[i] = fArmAngles[i];
        }
      }
      if (send) {
        fNames.insert(fNames.end(), fArmNames.begin(), fArmNames.end());
        fAngles.insert(fAngles.end(), fArmAngles.begin(), fArmAngles.end());
      }
    } else if (!fWholeBody && !state->atRest) {
      state->atRest = true;
      xAppendRest(*state, fNames, fAngles);
    }
  }
  if (fNames.empty()) {
    return;
  }
  if (Tracker::tools::areAllResourcesTaken(fMotion, fNames)) {
    fArms = previous;  // not sent: keep the dead band on what the arms were told
    return;
  }
  fMotion->call<void>("_trackerWithSpeed", fNames, fAngles, std::vector<float>{kSpeedFraction},
                      false, true);
  if (configSwitch(Tracker::LOG_ARM_COMMAND)) {
    Tracker::tools::logAnglesToFile(fAngles, fNames, kLogFile, logTime(now), fLogFirst);
  }
}

bool ArmsLooker::isRunning() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fRunning;
}

std::string ArmsLooker::getEffector() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fEffector;
}

bool ArmsLooker::isWholeBody() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fWholeBody;
}

}  // namespace Sim
}  // namespace KR
