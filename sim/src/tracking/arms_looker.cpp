#include <krsim/tracking/arms_looker.h>

#include <algorithm>
#include <cmath>

#include <kr/error.h>
#include <kr/math/math.h>
#include <kr/model/kinematics.h>

#include <krtracker/config/krgenerictrackerconfig.h>
#include <krtracker/generictracker/submodules.h>
#include <krtracker/tools/namer/namer.h>
#include <krtracker/tools/tools.h>

namespace KR {
namespace Sim {

namespace {
constexpr float kRestShoulderPitch = 1.4f;  // arms hanging down [rad]
}  // namespace

float ArmsLooker::aimError(const Model::TrackerArm& arm, const Model::TrackerArmAngle& angles,
                           const Math::Position3D& target) {
  return Math::aimError(Model::forearmPose(arm, angles), target);
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
    : LookerBase(Tracker::kArmsLookerModule, context, Tracker::Namer::getNameArmRestarted()),
      fCanPoint(context.robot->canPointAt()) {
  bind("setImplParam", &ArmsLooker::setImplParam, this);
}

void ArmsLooker::setImplParam(const KRValue& params) {
  if (!params.isArray() || params.size() != 2 || !params[0].isString() || !params[1].isBool()) {
    throw KRError(Tracker::kArmsLookerModule, "setImplParam", "Expected [effector, wholeBody].");
  }
  const std::string& effector = params[0].asString();
  if (effector != "Arms" && effector != "LArm" && effector != "RArm" && effector != "None") {
    throw KRError(
        Tracker::kArmsLookerModule, "setImplParam",
        "Invalid effector name: \"" + effector + "\". Could be: Arms, LArm, RArm or None.");
  }
  std::lock_guard<std::mutex> lock(fMutex);
  if (effector != fState.effector) {
    fState.resync = true;
  }
  fState.effector = effector;
  fState.wholeBody = params[1].asBool();
}

std::vector<std::pair<ArmsLooker::Arm*, const Model::TrackerArm*>> ArmsLooker::xArms() {
  std::vector<std::pair<Arm*, const Model::TrackerArm*>> arms;
  if (!fCanPoint)
    return arms;
  const std::string& effector = fState.effector;
  if (effector == "Arms" || effector == "LArm") {
    arms.emplace_back(&fState.arms[0], &fModel.leftArm);
  }
  if (effector == "Arms" || effector == "RArm") {
    arms.emplace_back(&fState.arms[1], &fModel.rightArm);
  }
  return arms;
}

void ArmsLooker::xAppendRest(Arm& state, const Model::TrackerArm& arm,
                             std::vector<std::string>& names, std::vector<float>& angles) {
  for (std::size_t i = 0; i < arm.joints.size(); ++i) {
    const Model::TrackerJoint& joint = arm.joints[i];
    float rest = i == 0 ? kRestShoulderPitch : 0.0f;
    Math::clipData(joint.min, joint.max, rest);
    state.remembered.angles[i] = rest;
    if (!joint.name.empty()) {
      names.push_back(joint.name);
      angles.push_back(rest);
    }
  }
}

void ArmsLooker::xOnLost() {
  fState.hasLast = false;
  fState.torsoVelocity = Math::Position3D();
}

bool ArmsLooker::xFollow(const TargetInput::Sample& sample, KRTimePoint now) {
  ArmsLookerState& s = fState;
  const auto arms = xArms();
  if (arms.empty()) {
    return false;
  }
  if (s.resync) {
    xResyncArms(arms);
    s.resync = false;
  }
  const Math::Position3D target = xAimPoint(sample, now);
  fNames.clear();
  fAngles.clear();
  const auto previous = s.arms;
  for (const auto& [state, arm] : arms) {
    if (isWithinReach(*arm, target)) {
      state->atRest = false;
      xAppendAim(*state, *arm, target);
    } else if (!s.wholeBody && !state->atRest) {
      state->atRest = true;
      xAppendRest(*state, *arm, fNames, fAngles);
    }
  }
  if (fNames.empty()) {
    return true;
  }
  if (xAllTaken()) {
    s.arms = previous;  // not sent: keep the dead band on what the arms were told
    return true;
  }
  fMotion->call<void>("_trackerWithSpeed", fNames, fAngles, std::vector<float>{kSpeedFraction},
                      false, true);
  xLog(Tracker::LOG_ARM_COMMAND, kLogFile, now);
  return true;
}

void ArmsLooker::xResyncArms(const std::vector<std::pair<Arm*, const Model::TrackerArm*>>& arms) {
  for (const auto& [state, arm] : arms) {
    const auto measured = fMotion->call<std::vector<float>>("getAngles", arm->name, true);
    std::size_t k = 0;
    for (std::size_t i = 0; i < arm->joints.size(); ++i) {
      if (!arm->joints[i].name.empty() && k < measured.size()) {
        state->remembered.angles[i] = measured[k++];
      }
    }
    state->atRest = false;
  }
}

Math::Position3D ArmsLooker::xAimPoint(const TargetInput::Sample& sample, KRTimePoint now) {
  ArmsLookerState& s = fState;
  const Math::Transform worldToTorso = Tracker::tools::getWorldToTorsoTransform(fMotion);
  const Math::Position3D seen = sample.info.getTorsoToObject3D(Math::pinv(worldToTorso));
  // The command acts during the next step, while the target and the torso go on moving: aim
  // where the target will be then, from its motion in the torso frame.
  if (s.hasLast) {
    const float dt = static_cast<float>(secondsBetween(s.lastTime, now));
    if (dt > 0.0f && dt < 0.1f) {
      s.torsoVelocity = s.torsoVelocity * (1.0f - kVelocitySmoothing) +
                        (seen - s.lastSeen) * (kVelocitySmoothing / dt);
    }
  }
  s.hasLast = true;
  s.lastSeen = seen;
  s.lastTime = now;
  return seen + s.torsoVelocity * static_cast<float>(std::chrono::duration<double>(kLead).count());
}

void ArmsLooker::xAppendAim(Arm& state, const Model::TrackerArm& arm,
                            const Math::Position3D& target) {
  fArmNames.clear();
  fArmAngles.clear();
  // The dead band decides when to move; each move then aims exactly, with every joint,
  // so that joints left inside their own band do not keep the forearm off the target.
  bool send = Tracker::tools::computePointAtAnglesWithThreshold(target, arm, state.remembered,
                                                                fArmNames, fArmAngles);
  send = send || aimError(arm, state.remembered, target) > kMaxAimError;
  if (!send) {
    return;
  }
  fArmNames.clear();
  fArmAngles.clear();
  Tracker::tools::computePointAtAngles(target, arm, fArmNames, fArmAngles);
  for (std::size_t i = 0; i < fArmAngles.size() && i < state.remembered.angles.size(); ++i) {
    state.remembered.angles[i] = fArmAngles[i];
  }
  fNames.insert(fNames.end(), fArmNames.begin(), fArmNames.end());
  fAngles.insert(fAngles.end(), fArmAngles.begin(), fArmAngles.end());
}

}  // namespace Sim
}  // namespace KR
