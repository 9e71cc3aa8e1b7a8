// SimMotion's bindings on the broker: the remote methods of "KRMotion", each converting its
// arguments and calling SimMotion.
#include <krsim/robot/motion.h>

#include <kr/error.h>

namespace KR {
namespace Sim {

namespace {

constexpr const char* kModule = "KRMotion";

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

void SimMotion::bindMethods(KRModule& module, SimMotion* self) {
  module.bind("getTransform", &SimMotion::rGetTransform, self);
  module.bind("getPosition", &SimMotion::rGetPosition, self);
  module.bind("getRobotPosition", &SimMotion::rGetRobotPosition, self);
  module.bind("_getSensorTransformAtTime", &SimMotion::rGetSensorTransformAtTime, self);
  module.bind("areResourcesAvailable", &SimMotion::areResourcesAvailable, self);
  module.bind("robotIsWakeUp", &SimMotion::isAwake, self);
  module.bind("moveTo", &SimMotion::moveTo, self);
  module.bind("move", &SimMotion::move, self);
  module.bind("navigateTo", &SimMotion::navigateTo, self);
  module.bind("stopMove", &SimMotion::stopMove, self);
  module.bind("moveIsActive", &SimMotion::moveIsActive, self);
  module.bind("getRobotVelocity", &SimMotion::rGetRobotVelocity, self);
  module.bind("setAngles", &SimMotion::rSetAngles, self);
  module.bind("getAngles", &SimMotion::rGetAngles, self);
  module.bind("getJointNames", &SimMotion::expandNames, self);
  module.bind("_trackerWithSpeed", &SimMotion::rTrackerWithSpeed, self);
  module.bind("_lookAtWb", &SimMotion::rLookAtWb, self);
  module.bind("_stopLookAt", &SimMotion::rStopLookAt, self);
  module.bind("_stopPointAt", &SimMotion::rStopPointAt, self);
}

const KRModule& motionMethodTable() {
  static const auto kTable = [] {
    auto table = std::make_unique<KRModule>(kModule);
    SimMotion::bindMethods(*table, nullptr);
    return table;
  }();
  return *kTable;
}

std::vector<float> SimMotion::rGetTransform(const std::string& name, int frame, bool) const {
  return getTransform(name, frame).toVector();
}

std::vector<float> SimMotion::rGetPosition(const std::string& name, int frame, bool) const {
  return Math::position6DFromTransform(getTransform(name, frame)).toVector();
}

std::vector<float> SimMotion::rGetRobotPosition(bool) const {
  return getOdometryPose().toVector();
}

std::vector<float> SimMotion::rGetSensorTransformAtTime(const std::string& name,
                                                        KRTimePoint time) const {
  return getTransformAtTime(name, time).toVector();
}

std::vector<float> SimMotion::rGetRobotVelocity() const {
  return getRobotVelocity().toVector();
}

void SimMotion::rSetAngles(const KRValue& names, const KRValue& angles, float fraction) {
  std::vector<std::string> joints;
  for (const auto& n : namesFrom(names, "setAngles")) {
    const auto e = expandNames(n);
    joints.insert(joints.end(), e.begin(), e.end());
  }
  std::vector<float> values = floatsFrom(angles, "setAngles");
  if (values.size() == 1 && joints.size() > 1)
    values.assign(joints.size(), values[0]);
  setAngles(joints, values, {fraction});
}

std::vector<float> SimMotion::rGetAngles(const KRValue& names, bool useSensors) const {
  std::vector<float> out;
  for (const auto& n : namesFrom(names, "getAngles")) {
    for (const auto& j : expandNames(n))
      out.push_back(useSensors ? getAngle(j) : getCommand(j));
  }
  return out;
}

void SimMotion::rTrackerWithSpeed(const std::vector<std::string>& names,
                                  const std::vector<float>& angles,
                                  const std::vector<float>& speeds, bool wholeBody, bool) {
  const auto& head = fRobot.trackerModel().head;
  if (wholeBody && names.size() == 2 && angles.size() == 2 && names[0] == head.yaw.name &&
      names[1] == head.pitch.name) {
    lookAtWholeBody(angles[1], angles[0], speeds.empty() ? kWholeBodyGazeFraction : speeds[0]);
  } else {
    setAngles(names, angles, speeds);
  }
}

void SimMotion::rLookAtWb(float pitch, float yaw) {
  lookAtWholeBody(pitch, yaw, kWholeBodyGazeFraction);
}

void SimMotion::rStopLookAt(bool) {
  stopLookAt();
}

void SimMotion::rStopPointAt(bool) {
  std::lock_guard<std::mutex> lock(fMutex);
  xStopChain("LArm");
  xStopChain("RArm");
}

}  // namespace Sim
}  // namespace KR
