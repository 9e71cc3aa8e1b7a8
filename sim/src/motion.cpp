#include <krsim/motion.h>

#include <algorithm>
#include <cmath>
#include <sstream>

#include <kr/error.h>

namespace KR {
namespace Sim {

namespace {

constexpr const char* kModule = "KRMotion";
constexpr float kGoalLinearTolerance = 0.001f;   // [m]
constexpr float kGoalAngularTolerance = 0.002f;  // [rad]
constexpr float kGazeTurnGain = 3.0f;            // [1/s]
constexpr float kArmRestPitch = 1.4f;            // arms hanging down [rad]

float wrap(float a) {
  return Math::modulo2PI(a);
}

float clampf(float v, float lo, float hi) {
  return std::max(lo, std::min(hi, v));
}

Math::Transform torsoOffset(float height) {
  return Math::Transform::fromPosition(0, 0, height);
}

/// Names given as one string or a list of strings.
std::vector<std::string> namesFrom(const KRValue& v, const char* method) {
  if (v.isString())
    return {v.asString()};
  if (v.isArray()) {
    std::vector<std::string> out;
    for (std::size_t i = 0; i < v.size(); ++i) {
      if (!v[i].isString())
        throw KRError(kModule, method, "joint names must be strings");
      out.push_back(v[i].asString());
    }
    return out;
  }
  throw KRError(kModule, method, "expects a name or a list of names");
}

std::vector<float> floatsFrom(const KRValue& v, const char* method) {
  if (v.isNumber())
    return {v.asFloat()};
  if (v.isArray()) {
    std::vector<float> out;
    for (std::size_t i = 0; i < v.size(); ++i) {
      if (!v[i].isNumber())
        throw KRError(kModule, method, "angles must be numbers");
      out.push_back(v[i].asFloat());
    }
    return out;
  }
  throw KRError(kModule, method, "expects a number or a list of numbers");
}

}  // namespace

BaseLimits BaseLimits::forRobotType(int type) {
  BaseLimits limits;
  if (type == 1) {
    limits.maxLinearSpeed = 0.45f;
    limits.maxAngularSpeed = 1.2f;
  }
  return limits;
}

SimMotion::SimMotion(const Model::Robot& robot, std::shared_ptr<const SimClock> clock)
    : KRModule(kModule),
      fRobot(robot),
      fClock(std::move(clock)),
      fBaseLimits(BaseLimits::forRobotType(robot.getRobotType())) {
  const Model::KRTrackerModel& model = fRobot.trackerModel();
  auto addJoint = [this](const Model::TrackerJoint& joint, const std::string& chain) {
    if (joint.name.empty() || fJointIndex.count(joint.name) != 0)
      return;
    JointState state;
    state.joint = joint;
    fJointIndex[joint.name] = fJoints.size();
    fJoints.push_back(state);
    fChains[chain].push_back(joint.name);
    fChains["Body"].push_back(joint.name);
  };
  addJoint(model.head.yaw, "Head");
  addJoint(model.head.pitch, "Head");
  for (const auto& j : model.leftArm.joints)
    addJoint(j, "LArm");
  for (const auto& j : model.rightArm.joints)
    addJoint(j, "RArm");
  for (const auto& entry : fRobot.getJoints())
    addJoint(entry.second, "Body");
  for (auto& s : fJoints) {
    float rest = 0.0f;
    if (s.joint.name == model.leftArm.joints[0].name ||
        s.joint.name == model.rightArm.joints[0].name) {
      rest = kArmRestPitch;
    }
    Math::clipData(s.joint.min, s.joint.max, rest);
    s.angle = s.command = rest;
  }
  fHistory.push_back({fClock->now(), fOdometryPose, 0.0f, 0.0f});
  bindMethods();
}

void SimMotion::bindMethods() {
  bind("getTransform", [this](const std::string& name, int frame, bool) {
    return getTransform(name, frame).toVector();
  });
  bind("getPosition", [this](const std::string& name, int frame, bool) {
    return Math::position6DFromTransform(getTransform(name, frame)).toVector();
  });
  bind("getRobotPosition", [this](bool) { return getOdometryPose().toVector(); });
  bind("_getSensorTransformAtTime", [this](const std::string& name, KRTimePoint time) {
    std::lock_guard<std::mutex> lock(fMutex);
    const Snapshot* found = &fHistory.front();
    for (const auto& s : fHistory) {
      if (s.time <= time)
        found = &s;
    }
    const Math::Transform t = Math::transformFromPose2D(found->odometry) *
                              torsoOffset(fRobot.getTorsoHeight()) *
                              xTorsoToFrame(name, found->headYaw, found->headPitch);
    return t.toVector();
  });
  bind("areResourcesAvailable", [this](const std::vector<std::string>& names) {
    std::lock_guard<std::mutex> lock(fMutex);
    for (const auto& name : names) {
      std::vector<std::string> expanded{name};
      const auto chain = fChains.find(name);
      if (chain != fChains.end())
        expanded = chain->second;
      for (const auto& n : expanded) {
        if (fTakenResources.count(n) != 0)
          return false;
      }
    }
    return true;
  });
  bind("robotIsWakeUp", [this]() {
    std::lock_guard<std::mutex> lock(fMutex);
    return fAwake;
  });
  bind("moveTo", [this](float x, float y, float theta) { moveTo(x, y, theta); });
  bind("move", [this](float vx, float vy, float vtheta) { move(vx, vy, vtheta); });
  bind("navigateTo", [this](float x, float y) { return navigateTo(x, y); });
  bind("stopMove", [this]() { stopMove(); });
  bind("moveIsActive", [this]() { return moveIsActive(); });
  bind("getRobotVelocity", [this]() {
    std::lock_guard<std::mutex> lock(fMutex);
    return fBaseMode == BaseMode::Velocity ? fVelocity.toVector() : Math::Pose2D().toVector();
  });
  bind("setAngles", [this](const KRValue& names, const KRValue& angles, float fraction) {
    std::vector<std::string> joints;
    for (const auto& n : namesFrom(names, "setAngles")) {
      const auto e = expandNames(n);
      joints.insert(joints.end(), e.begin(), e.end());
    }
    std::vector<float> values = floatsFrom(angles, "setAngles");
    if (values.size() == 1 && joints.size() > 1)
      values.assign(joints.size(), values[0]);
    setAngles(joints, values, {fraction});
  });
  bind("getAngles", [this](const KRValue& names, bool useSensors) {
    std::vector<float> out;
    for (const auto& n : namesFrom(names, "getAngles")) {
      for (const auto& j : expandNames(n))
        out.push_back(useSensors ? getAngle(j) : getCommand(j));
    }
    return out;
  });
  bind("getJointNames", [this](const std::string& name) { return expandNames(name); });
  bind("_trackerWithSpeed", [this](const std::vector<std::string>& names,
                                   const std::vector<float>& angles,
                                   const std::vector<float>& speeds, bool wholeBody, bool) {
    const auto& head = fRobot.trackerModel().head;
    if (wholeBody && names.size() == 2 && angles.size() == 2 && names[0] == head.yaw.name &&
        names[1] == head.pitch.name) {
      lookAtWholeBody(angles[1], angles[0], speeds.empty() ? kWholeBodyGazeFraction : speeds[0]);
    } else {
      setAngles(names, angles, speeds);
    }
  });
  bind("_lookAtWb",
       [this](float pitch, float yaw) { lookAtWholeBody(pitch, yaw, kWholeBodyGazeFraction); });
  bind("_stopLookAt", [this](bool) {
    std::lock_guard<std::mutex> lock(fMutex);
    fGazeActive = false;
    for (const auto& j : fChains["Head"]) {
      auto& s = xJoint(j);
      s.command = s.angle;
    }
  });
  bind("_stopPointAt", [this](bool) {
    std::lock_guard<std::mutex> lock(fMutex);
    for (const char* chain : {"LArm", "RArm"}) {
      for (const auto& j : fChains[chain]) {
        auto& s = xJoint(j);
        s.command = s.angle;
      }
    }
  });
}

// ---- joints ----------------------------------------------------------------------------

SimMotion::JointState& SimMotion::xJoint(const std::string& name) {
  const auto it = fJointIndex.find(name);
  if (it == fJointIndex.end())
    throw KRError(kModule, "joint", "unknown joint " + name);
  return fJoints[it->second];
}

const SimMotion::JointState& SimMotion::xJoint(const std::string& name) const {
  const auto it = fJointIndex.find(name);
  if (it == fJointIndex.end())
    throw KRError(kModule, "joint", "unknown joint " + name);
  return fJoints[it->second];
}

std::vector<std::string> SimMotion::jointNames() const {
  std::lock_guard<std::mutex> lock(fMutex);
  std::vector<std::string> out;
  for (const auto& s : fJoints)
    out.push_back(s.joint.name);
  return out;
}

std::vector<std::string> SimMotion::expandNames(const std::string& name) const {
  std::lock_guard<std::mutex> lock(fMutex);
  const auto chain = fChains.find(name);
  if (chain != fChains.end())
    return chain->second;
  if (fJointIndex.count(name) != 0)
    return {name};
  throw KRError(kModule, "expandNames", "unknown joint or chain " + name);
}

float SimMotion::getAngle(const std::string& joint) const {
  std::lock_guard<std::mutex> lock(fMutex);
  return xJoint(joint).angle;
}

float SimMotion::getCommand(const std::string& joint) const {
  std::lock_guard<std::mutex> lock(fMutex);
  return xJoint(joint).command;
}

SimMotion::JointState SimMotion::getJointState(const std::string& joint) const {
  std::lock_guard<std::mutex> lock(fMutex);
  return xJoint(joint);
}

void SimMotion::setAngleNow(const std::string& joint, float angle) {
  std::lock_guard<std::mutex> lock(fMutex);
  auto& s = xJoint(joint);
  Math::clipData(s.joint.min, s.joint.max, angle);
  s.angle = s.command = angle;
  s.speed = 0.0f;
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
    xJoint(j);  // every name checked before anything moves
  const auto& head = fRobot.trackerModel().head;
  for (std::size_t i = 0; i < joints.size(); ++i) {
    auto& s = xJoint(joints[i]);
    float command = angles[i];
    Math::clipData(s.joint.min, s.joint.max, command);
    s.command = command;
    s.speed = fractions[fractions.size() == 1 ? 0 : i] * s.joint.maxVelocity;
    if (joints[i] == head.yaw.name || joints[i] == head.pitch.name)
      fGazeActive = false;
  }
}

// ---- base ------------------------------------------------------------------------------

void SimMotion::moveTo(float x, float y, float theta) {
  std::lock_guard<std::mutex> lock(fMutex);
  const Math::Transform goal =
      Math::transformFromPose2D(fOdometryPose) * Math::transformFromPose2D({x, y, theta});
  fGoal = Math::pose2DFromTransform(goal);
  fGoal.theta = wrap(fOdometryPose.theta + theta);
  fBaseMode = BaseMode::Goal;
}

void SimMotion::move(float vx, float vy, float vtheta) {
  std::lock_guard<std::mutex> lock(fMutex);
  const float lin = fBaseLimits.maxLinearSpeed;
  const float ang = fBaseLimits.maxAngularSpeed;
  const float norm = std::hypot(vx, vy);
  const float scale = norm > lin ? lin / norm : 1.0f;
  fVelocity = {vx * scale, vy * scale, clampf(vtheta, -ang, ang)};
  fBaseMode = (fVelocity.x == 0.0f && fVelocity.y == 0.0f && fVelocity.theta == 0.0f)
                  ? BaseMode::Idle
                  : BaseMode::Velocity;
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
  fBaseMode = BaseMode::Idle;
  fVelocity = {};
}

bool SimMotion::moveIsActive() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fBaseMode != BaseMode::Idle;
}

void SimMotion::lookAtWholeBody(float pitch, float yaw, float fraction) {
  std::lock_guard<std::mutex> lock(fMutex);
  xLookAtWholeBody(pitch, yaw, fraction);
}

void SimMotion::xLookAtWholeBody(float pitch, float yaw, float fraction) {
  if (!Math::Validation::isFractionStrict(fraction)) {
    throw KRError(kModule, "_lookAtWb", "a speed fraction must lie in ]0, 1]");
  }
  const float base = fBaseMode == BaseMode::Goal ? fGoal.theta : fOdometryPose.theta;
  fGazeActive = true;
  fGazeYaw = wrap(base + yaw);
  fGazePitch = pitch;
  fGazeFraction = fraction;
}

bool SimMotion::isWholeBodyGazeActive() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fGazeActive;
}

void SimMotion::xMoveBase(float dx, float dy, float dtheta) {
  auto apply = [](Math::Pose2D& p, float mx, float my, float mt) {
    const float mid = p.theta + 0.5f * mt;
    p.x += mx * std::cos(mid) - my * std::sin(mid);
    p.y += mx * std::sin(mid) + my * std::cos(mid);
    p.theta = wrap(p.theta + mt);
  };
  apply(fTruePose, dx, dy, dtheta);
  apply(fOdometryPose, dx * (1.0f + fDriftLinear), dy * (1.0f + fDriftLinear),
        dtheta * (1.0f + fDriftAngular));
}

void SimMotion::xStepBase(double dt) {
  const float fdt = static_cast<float>(dt);
  const float lin = fBaseLimits.maxLinearSpeed * fdt;
  const float ang = fBaseLimits.maxAngularSpeed * fdt;
  switch (fBaseMode) {
    case BaseMode::Idle:
      break;
    case BaseMode::Velocity:
      xMoveBase(fVelocity.x * fdt, fVelocity.y * fdt, fVelocity.theta * fdt);
      break;
    case BaseMode::Goal: {
      const float ex = fGoal.x - fOdometryPose.x;
      const float ey = fGoal.y - fOdometryPose.y;
      const float et = wrap(fGoal.theta - fOdometryPose.theta);
      const float dist = std::hypot(ex, ey);
      if (dist < kGoalLinearTolerance && std::fabs(et) < kGoalAngularTolerance) {
        fBaseMode = BaseMode::Idle;
        break;
      }
      const float step = std::min(lin, dist);
      const float c = std::cos(fOdometryPose.theta);
      const float s = std::sin(fOdometryPose.theta);
      const float ux = dist > 0.0f ? ex / dist : 0.0f;
      const float uy = dist > 0.0f ? ey / dist : 0.0f;
      // Displacement in the robot frame.
      xMoveBase(step * (c * ux + s * uy), step * (-s * ux + c * uy), clampf(et, -ang, ang));
      break;
    }
  }
  if (fGazeActive && fBaseMode == BaseMode::Idle) {
    const float rel = wrap(fGazeYaw - fOdometryPose.theta);
    const float excess = std::fabs(rel) - kWholeBodyComfortYaw;
    if (excess > 0.0f) {
      const float omega = std::min(fBaseLimits.maxAngularSpeed, kGazeTurnGain * excess);
      xMoveBase(0.0f, 0.0f, std::copysign(omega * fdt, rel));
    }
  }
}

void SimMotion::step(double dt) {
  std::lock_guard<std::mutex> lock(fMutex);
  if (fAwake) {
    xStepBase(dt);
    if (fGazeActive) {
      const auto& head = fRobot.trackerModel().head;
      auto& yaw = xJoint(head.yaw.name);
      auto& pitch = xJoint(head.pitch.name);
      float y = wrap(fGazeYaw - fOdometryPose.theta);
      float p = fGazePitch;
      Math::clipData(yaw.joint.min, yaw.joint.max, y);
      Math::clipData(pitch.joint.min, pitch.joint.max, p);
      yaw.command = y;
      pitch.command = p;
      yaw.speed = fGazeFraction * yaw.joint.maxVelocity;
      pitch.speed = fGazeFraction * pitch.joint.maxVelocity;
    }
    const float fdt = static_cast<float>(dt);
    for (auto& s : fJoints) {
      const float maxStep = s.speed * fdt;
      const float diff = s.command - s.angle;
      s.angle += clampf(diff, -maxStep, maxStep);
    }
  }
  const auto& head = fRobot.trackerModel().head;
  fHistory.push_back(
      {fClock->now(), fOdometryPose, xJoint(head.yaw.name).angle, xJoint(head.pitch.name).angle});
  while (fHistory.size() > kHistorySize)
    fHistory.pop_front();
}

// ---- ground truth and hooks ------------------------------------------------------------

Math::Pose2D SimMotion::getTruePose() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fTruePose;
}

void SimMotion::resetPose(const Math::Pose2D& mapPose) {
  std::lock_guard<std::mutex> lock(fMutex);
  fTruePose = mapPose;
  fOdometryPose = {};
  fBaseMode = BaseMode::Idle;
  fGazeActive = false;
}

void SimMotion::setOdometryDrift(float linearScale, float angularScale) {
  std::lock_guard<std::mutex> lock(fMutex);
  fDriftLinear = linearScale;
  fDriftAngular = angularScale;
}

Math::Pose2D SimMotion::getOdometryPose() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fOdometryPose;
}

Math::Transform SimMotion::getMapToOdometry() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return Math::transformFromPose2D(fTruePose) *
         Math::pinv(Math::transformFromPose2D(fOdometryPose));
}

void SimMotion::setWakeUp(bool awake) {
  std::lock_guard<std::mutex> lock(fMutex);
  fAwake = awake;
}

void SimMotion::setResourceTaken(const std::string& name, bool taken) {
  std::lock_guard<std::mutex> lock(fMutex);
  std::vector<std::string> expanded{name};
  const auto chain = fChains.find(name);
  if (chain != fChains.end())
    expanded = chain->second;
  for (const auto& n : expanded) {
    if (taken) {
      fTakenResources.insert(n);
    } else {
      fTakenResources.erase(n);
    }
  }
}

void SimMotion::setBaseLimits(const BaseLimits& limits) {
  std::lock_guard<std::mutex> lock(fMutex);
  fBaseLimits = limits;
}

BaseLimits SimMotion::getBaseLimits() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fBaseLimits;
}

// ---- forward kinematics ----------------------------------------------------------------

Math::Transform SimMotion::xTorsoToFrame(const std::string& name, float headYaw,
                                         float headPitch) const {
  const Model::KRTrackerModel& model = fRobot.trackerModel();
  if (name == "Torso")
    return Math::Transform();
  static const char* const kEffectors[] = {"CameraTop", "CameraBottom", "DepthCamera"};
  const Math::Transform neck = Math::transformFromPosition3D(model.head.headPosition) *
                               Math::Transform::fromRotZ(headYaw) *
                               Math::Transform::fromRotY(headPitch);
  if (name == "Head")
    return neck;
  for (int e = 0; e < Model::kTrackEffectorCount; ++e) {
    if (name == kEffectors[e])
      return neck * model.head.getNeckToEffectorTransform(e);
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
      a[i] = xJoint(arm->joints[i].name).angle;
  }
  return Math::transformFromPosition3D(arm->shoulderPosition) * Math::Transform::fromRotY(a[0]) *
         Math::Transform::fromRotZ(a[1]) * arm->armTransform * Math::Transform::fromRotZ(a[3]) *
         Math::Transform::fromRotX(a[2]);
}

Math::Transform SimMotion::xTransform(const std::string& name, int frame) const {
  const auto& head = fRobot.trackerModel().head;
  const Math::Transform torsoTo =
      xTorsoToFrame(name, xJoint(head.yaw.name).angle, xJoint(head.pitch.name).angle);
  switch (frame) {
    case Math::FRAME_TORSO:
      return torsoTo;
    case Math::FRAME_ROBOT:
      return torsoOffset(fRobot.getTorsoHeight()) * torsoTo;
    case Math::FRAME_WORLD:
      return Math::transformFromPose2D(fOdometryPose) * torsoOffset(fRobot.getTorsoHeight()) *
             torsoTo;
    default:
      throw KRError(kModule, "getTransform", "unknown frame " + std::to_string(frame));
  }
}

Math::Transform SimMotion::getTransform(const std::string& name, int frame) const {
  std::lock_guard<std::mutex> lock(fMutex);
  return xTransform(name, frame);
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
  return Math::transformFromPose2D(fTruePose) * torsoOffset(fRobot.getTorsoHeight());
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
