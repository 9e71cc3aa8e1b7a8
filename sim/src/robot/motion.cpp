#include <krsim/robot/motion.h>

#include <algorithm>
#include <cmath>
#include <sstream>

#include <kr/error.h>
#include <kr/model/kinematics.h>

#include <krsim/robot/physics/factory.h>

namespace KR {
namespace Sim {

namespace {

constexpr const char* kModule = "KRMotion";

Math::Transform torsoOffset(float height) {
  return Math::Transform::fromPosition(0, 0, height);
}

double secondsBetween(KRTimePoint from, KRTimePoint to) {
  return std::chrono::duration<double>(to - from).count();
}

}  // namespace

SimMotion::SimMotion(const Model::Robot& robot, std::shared_ptr<const SimClock> clock,
                     std::unique_ptr<PhysicsBackend> physics)
    : KRModule(kModule),
      fRobot(robot),
      fClock(std::move(clock)),
      fPhysics(physics ? std::move(physics) : makePhysicsBackend("kinematic", fRobot)),
      fBase(BaseLimits::forRobotType(robot.getRobotType())) {
  for (const SimJoint& j : simulatedJoints(fRobot)) {
    fJointIndex[j.joint.name] = fJoints.size();
    fJoints.push_back({j.joint, j.rest, 0.0f});
    fPhysics->resetJoint(fJoints.size() - 1, j.rest);
    if (j.chain != "Body")
      fChains[j.chain].push_back(j.joint.name);
    fChains["Body"].push_back(j.joint.name);
  }
  const auto& head = fRobot.trackerModel().head;
  fHeadYaw = xIndex(head.yaw.name);
  fHeadPitch = xIndex(head.pitch.name);
  xRecord();
  bindMethods(*this, this);
}

std::string SimMotion::physicsName() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fPhysics->name();
}

void SimMotion::step(double dt) {
  std::lock_guard<std::mutex> lock(fMutex);
  if (fAwake) {
    const Math::Pose2D displacement = fBase.plan(dt);
    const float fdt = static_cast<float>(dt);
    fPhysics->setBaseVelocity(
        {displacement.x / fdt, displacement.y / fdt, displacement.theta / fdt});
    const BaseController::Gaze& gaze = fBase.gaze();
    if (gaze.active) {
      // The head holds the gaze from where the base will be at the end of the step.
      const float heading = fBase.odometryAfter(displacement).theta;
      for (const std::size_t i : {fHeadYaw, fHeadPitch}) {
        float angle = i == fHeadYaw ? Math::modulo2PI(gaze.yaw - heading) : gaze.pitch;
        Math::clipData(fJoints[i].joint.min, fJoints[i].joint.max, angle);
        xCommand(i, angle, gaze.fraction * fJoints[i].joint.maxVelocity);
      }
    }
    const Math::Pose2D before = fPhysics->basePose();
    fPhysics->step(dt);
    fBase.moved(displacementBetween(before, fPhysics->basePose()));
  }
  xRecord();
}

void SimMotion::xRecord() {
  fHistory.push_back({fClock->now(), fBase.odometry(), fPhysics->jointAngle(fHeadYaw),
                      fPhysics->jointAngle(fHeadPitch)});
  while (fHistory.size() > kHistorySize)
    fHistory.pop_front();
}

// ---- joints ----------------------------------------------------------------------------

std::size_t SimMotion::xIndex(const std::string& name) const {
  const auto it = fJointIndex.find(name);
  if (it == fJointIndex.end())
    throw KRError(kModule, "joint", "unknown joint " + name);
  return it->second;
}

void SimMotion::xCommand(std::size_t joint, float angle, float speed) {
  fJoints[joint].command = angle;
  fJoints[joint].speed = speed;
  fPhysics->setJointTarget(joint, angle, speed);
}

std::vector<std::string> SimMotion::jointNames() const {
  std::lock_guard<std::mutex> lock(fMutex);
  std::vector<std::string> out;
  for (const auto& s : fJoints)
    out.push_back(s.joint.name);
  return out;
}

std::vector<std::string> SimMotion::xExpand(const std::string& name) const {
  const auto chain = fChains.find(name);
  if (chain != fChains.end())
    return chain->second;
  if (fJointIndex.count(name) != 0)
    return {name};
  throw KRError(kModule, "expandNames", "unknown joint or chain " + name);
}

std::vector<std::string> SimMotion::expandNames(const std::string& name) const {
  std::lock_guard<std::mutex> lock(fMutex);
  return xExpand(name);
}

float SimMotion::getAngle(const std::string& joint) const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fPhysics->jointAngle(xIndex(joint));
}

float SimMotion::getCommand(const std::string& joint) const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fJoints[xIndex(joint)].command;
}

SimMotion::JointState SimMotion::getJointState(const std::string& joint) const {
  std::lock_guard<std::mutex> lock(fMutex);
  const std::size_t i = xIndex(joint);
  return {fJoints[i].joint, fPhysics->jointAngle(i), fJoints[i].command, fJoints[i].speed};
}

void SimMotion::setAngleNow(const std::string& joint, float angle) {
  std::lock_guard<std::mutex> lock(fMutex);
  const std::size_t i = xIndex(joint);
  Math::clipData(fJoints[i].joint.min, fJoints[i].joint.max, angle);
  fJoints[i].command = angle;
  fJoints[i].speed = 0.0f;
  fPhysics->resetJoint(i, angle);
}

void SimMotion::setAngles(const std::vector<std::string>& joints, const std::vector<float>& angles,
                          const std::vector<float>& fractions) {
  std::lock_guard<std::mutex> lock(fMutex);
  xSetAngles(joints, angles, fractions);
}

void SimMotion::xSetAngles(const std::vector<std::string>& joints, const std::vector<float>& angles,
                           const std::vector<float>& fractions) {
  if (joints.size() != angles.size()) {
    std::ostringstream os;
    os << joints.size() << " joints but " << angles.size() << " angles";
    throw KRError(kModule, "setAngles", os.str());
  }
  if (fractions.empty() || (fractions.size() != 1 && fractions.size() != joints.size())) {
    throw KRError(kModule, "setAngles", "expects one speed fraction or one per joint");
  }
  for (float f : fractions) {
    if (!Math::Validation::isFractionStrict(f)) {
      throw KRError(kModule, "setAngles", "a speed fraction must lie in ]0, 1]");
    }
  }
  for (const auto& j : joints)
    xIndex(j);  // every name checked before anything moves
  for (std::size_t k = 0; k < joints.size(); ++k) {
    const std::size_t i = xIndex(joints[k]);
    float command = angles[k];
    Math::clipData(fJoints[i].joint.min, fJoints[i].joint.max, command);
    xCommand(i, command, fractions[fractions.size() == 1 ? 0 : k] * fJoints[i].joint.maxVelocity);
    if (i == fHeadYaw || i == fHeadPitch)
      fBase.stopGaze();
  }
}

void SimMotion::stopChain(const std::string& chain) {
  std::lock_guard<std::mutex> lock(fMutex);
  xStopChain(chain);
}

void SimMotion::xStopChain(const std::string& chain) {
  for (const auto& name : xExpand(chain)) {
    const std::size_t i = xIndex(name);
    xCommand(i, fPhysics->jointAngle(i), fJoints[i].speed);
  }
}

// ---- base ------------------------------------------------------------------------------

void SimMotion::moveTo(float x, float y, float theta) {
  std::lock_guard<std::mutex> lock(fMutex);
  fBase.moveTo(x, y, theta);
}

void SimMotion::move(float vx, float vy, float vtheta) {
  std::lock_guard<std::mutex> lock(fMutex);
  fBase.move(vx, vy, vtheta);
}

bool SimMotion::navigateTo(float x, float y) {
  if (fRobot.getRobotType() != 1) {
    throw KRError(kModule, "navigateTo", "navigation is not available on this robot");
  }
  moveTo(x, y, std::atan2(y, x));
  return true;
}

void SimMotion::stopMove() {
  std::lock_guard<std::mutex> lock(fMutex);
  fBase.stop();
}

bool SimMotion::moveIsActive() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fBase.isActive();
}

Math::Pose2D SimMotion::getRobotVelocity() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fBase.commandedVelocity();
}

void SimMotion::lookAtWholeBody(float pitch, float yaw, float fraction) {
  std::lock_guard<std::mutex> lock(fMutex);
  fBase.lookAt(pitch, yaw, fraction);
}

bool SimMotion::isWholeBodyGazeActive() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fBase.gaze().active;
}

void SimMotion::stopLookAt() {
  std::lock_guard<std::mutex> lock(fMutex);
  fBase.stopGaze();
  xStopChain("Head");
}

// ---- ground truth and hooks ------------------------------------------------------------

Math::Pose2D SimMotion::getTruePose() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fPhysics->basePose();
}

void SimMotion::resetPose(const Math::Pose2D& mapPose) {
  std::lock_guard<std::mutex> lock(fMutex);
  fPhysics->resetBase(mapPose);
  fBase.reset();
}

void SimMotion::setOdometryDrift(float linearScale, float angularScale) {
  std::lock_guard<std::mutex> lock(fMutex);
  fBase.setDrift(linearScale, angularScale);
}

Math::Pose2D SimMotion::getOdometryPose() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fBase.odometry();
}

Math::Transform SimMotion::getMapToOdometry() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return Math::transformFromPose2D(fPhysics->basePose()) *
         Math::pinv(Math::transformFromPose2D(fBase.odometry()));
}

void SimMotion::setWakeUp(bool awake) {
  std::lock_guard<std::mutex> lock(fMutex);
  fAwake = awake;
}

bool SimMotion::isAwake() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fAwake;
}

void SimMotion::setResourceTaken(const std::string& name, bool taken) {
  std::lock_guard<std::mutex> lock(fMutex);
  const auto chain = fChains.find(name);
  for (const auto& n : chain != fChains.end() ? chain->second : std::vector<std::string>{name}) {
    if (taken) {
      fTakenResources.insert(n);
    } else {
      fTakenResources.erase(n);
    }
  }
}

bool SimMotion::areResourcesAvailable(const std::vector<std::string>& names) const {
  std::lock_guard<std::mutex> lock(fMutex);
  for (const auto& name : names) {
    const auto chain = fChains.find(name);
    for (const auto& n : chain != fChains.end() ? chain->second : std::vector<std::string>{name}) {
      if (fTakenResources.count(n) != 0)
        return false;
    }
  }
  return true;
}

void SimMotion::setBaseLimits(const BaseLimits& limits) {
  std::lock_guard<std::mutex> lock(fMutex);
  fBase.setLimits(limits);
}

BaseLimits SimMotion::getBaseLimits() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fBase.limits();
}

// ---- forward kinematics ----------------------------------------------------------------

Math::Transform SimMotion::xTorsoToFrame(const std::string& name, float headYaw,
                                         float headPitch) const {
  const Model::KRTrackerModel& model = fRobot.trackerModel();
  if (name == "Torso")
    return Math::Transform();
  static const char* const kEffectors[] = {"CameraTop", "CameraBottom", "DepthCamera"};
  if (name == "Head")
    return Model::headNeckPose(model.head, headYaw, headPitch);
  for (int e = 0; e < Model::kTrackEffectorCount; ++e) {
    if (name == kEffectors[e])
      return Model::headEffectorPose(model.head, e, headYaw, headPitch);
  }
  const Model::TrackerArm* arm = nullptr;
  if (name == "LArm" || name == "LForeArm")
    arm = &model.leftArm;
  if (name == "RArm" || name == "RForeArm")
    arm = &model.rightArm;
  if (arm == nullptr)
    throw KRError(kModule, "getTransform", "unknown frame name " + name);
  float a[4] = {0, 0, 0, 0};
  for (int i = 0; i < 4; ++i) {
    if (!arm->joints[i].name.empty())
      a[i] = fPhysics->jointAngle(xIndex(arm->joints[i].name));
  }
  return Model::forearmPose(*arm, a[0], a[1], a[2], a[3]);
}

Math::Transform SimMotion::xTransform(const std::string& name, int frame) const {
  const Math::Transform torsoTo =
      xTorsoToFrame(name, fPhysics->jointAngle(fHeadYaw), fPhysics->jointAngle(fHeadPitch));
  switch (frame) {
    case Math::FRAME_TORSO:
      return torsoTo;
    case Math::FRAME_ROBOT:
      return torsoOffset(fRobot.getTorsoHeight()) * torsoTo;
    case Math::FRAME_WORLD:
      return Math::transformFromPose2D(fBase.odometry()) * torsoOffset(fRobot.getTorsoHeight()) *
             torsoTo;
    default:
      throw KRError(kModule, "getTransform", "unknown frame " + std::to_string(frame));
  }
}

Math::Transform SimMotion::getTransform(const std::string& name, int frame) const {
  std::lock_guard<std::mutex> lock(fMutex);
  return xTransform(name, frame);
}

Math::Transform SimMotion::getTransformAtTime(const std::string& name, KRTimePoint time) const {
  std::lock_guard<std::mutex> lock(fMutex);
  // The two states about `time`, interpolated; the oldest or newest one outside the history.
  const auto after = std::lower_bound(fHistory.begin(), fHistory.end(), time,
                                      [](const Snapshot& s, KRTimePoint t) { return s.time < t; });
  Snapshot state;
  if (after == fHistory.begin()) {
    state = fHistory.front();
  } else if (after == fHistory.end()) {
    state = fHistory.back();
  } else {
    const Snapshot& a = *(after - 1);
    const Snapshot& b = *after;
    const float u =
        static_cast<float>(secondsBetween(a.time, time) / secondsBetween(a.time, b.time));
    state.odometry = {a.odometry.x + (b.odometry.x - a.odometry.x) * u,
                      a.odometry.y + (b.odometry.y - a.odometry.y) * u,
                      Math::modulo2PI(a.odometry.theta +
                                      Math::modulo2PI(b.odometry.theta - a.odometry.theta) * u)};
    state.headYaw = a.headYaw + (b.headYaw - a.headYaw) * u;
    state.headPitch = a.headPitch + (b.headPitch - a.headPitch) * u;
  }
  return Math::transformFromPose2D(state.odometry) * torsoOffset(fRobot.getTorsoHeight()) *
         xTorsoToFrame(name, state.headYaw, state.headPitch);
}

Math::Transform SimMotion::getTorsoToHeadEffector(int effector) const {
  static const char* const kEffectors[] = {"CameraTop", "CameraBottom", "DepthCamera"};
  if (effector < 0 || effector >= Model::kTrackEffectorCount) {
    throw KRError(kModule, "getTorsoToHeadEffector", "effector must be 0, 1 or 2");
  }
  return getTransform(kEffectors[effector], Math::FRAME_TORSO);
}

Math::Transform SimMotion::getMapToTorso() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return Math::transformFromPose2D(fPhysics->basePose()) * torsoOffset(fRobot.getTorsoHeight());
}

Math::Transform SimMotion::getMapToHeadEffector(int effector) const {
  return getMapToTorso() * getTorsoToHeadEffector(effector);
}

Math::Transform SimMotion::getWorldToTorso() const {
  return getTransform("Torso", Math::FRAME_WORLD);
}

Math::Transform SimMotion::getTorsoToForearm(const std::string& arm) const {
  if (arm != "LArm" && arm != "RArm") {
    throw KRError(kModule, "getTorsoToForearm", "unknown arm " + arm);
  }
  return getTransform(arm, Math::FRAME_TORSO);
}

}  // namespace Sim
}  // namespace KR
