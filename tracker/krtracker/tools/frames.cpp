// Frame conversions through the motion service. Every function asks the service afresh: the
// robot moves between two calls, so nothing is cached.

#include <krtracker/tools/tools.h>

#include <exception>
#include <string>
#include <vector>

#include <ko/log.h>

namespace KR {
namespace Tracker {
namespace tools {

namespace {
const std::string kToolsCategory = "KRTracker.tools";

// Registers the tools' log category when the library is loaded.
const bool kCategoryRegistered = [] {
  ko::log::registerCategory(kToolsCategory);
  return true;
}();
const std::string kGetTransform = "getTransform";
const std::string kGetPosition = "getPosition";
const std::string kGetRobotPosition = "getRobotPosition";
const std::string kTorso = "Torso";
const char* const kUnexpectedFrame =
    "Unexpected frame could be {FRAME_TORSO = 0, FRAME_WORLD = 1, FRAME_ROBOT = 2}.";

/// The torso's transform expressed in `frame`, read from the sensors.
Math::Transform getTorsoTransformIn(const std::shared_ptr<KRProxy>& motion, Math::FRAME frame) {
  return Math::Transform(
      motion->call<std::vector<float>>(kGetTransform, kTorso, static_cast<int>(frame), true));
}

Math::Position3D unexpectedFrame(const std::string& location) {
  ko::log::warning(kToolsCategory, location, kUnexpectedFrame);
  return Math::Position3D();
}
}  // namespace

Math::Transform getWorldToTorsoTransform(const std::shared_ptr<KRProxy>& motion) {
  const Math::Position6D worldToTorso(motion->call<std::vector<float>>(
      kGetPosition, kTorso, static_cast<int>(Math::FRAME_WORLD), true));
  return Math::transformFromPosition6D(worldToTorso);
}

Math::Transform getWorldToRobotTransform(const std::shared_ptr<KRProxy>& motion) {
  const Math::Pose2D worldToRobot(motion->call<std::vector<float>>(kGetRobotPosition, true));
  return Math::transformFromPose2D(worldToRobot);
}

Math::Transform getSensorTransform(KRProxy& proxy, const std::string& name, KRTimePoint time) {
  try {
    return Math::Transform(proxy.call<std::vector<float>>("_getSensorTransformAtTime", name, time));
  } catch (const std::exception& e) {
    ko::log::error(kToolsCategory, "getSensorTransform",
                   "Could not get sensor transform for " + name + ": " + e.what());
  }
  return Math::Transform();
}

Math::Position3D convertToTorsoFrame(const std::shared_ptr<KRProxy>& motion,
                                     const Math::Position3D& position, Math::FRAME frame) {
  // Asked for every frame value, the torso and unexpected ones included.
  const Math::Transform frameToTorso = getTorsoTransformIn(motion, frame);
  switch (frame) {
    case Math::FRAME_WORLD:
    case Math::FRAME_ROBOT:
      return Math::pinv(frameToTorso) * position;
    case Math::FRAME_TORSO:
      return position;
  }
  return unexpectedFrame("convertToTorsoFrame");
}

Math::Position3D convertToRobotFrame(const std::shared_ptr<KRProxy>& motion,
                                     const Math::Position3D& position, Math::FRAME frame) {
  switch (frame) {
    case Math::FRAME_ROBOT:
      return position;
    case Math::FRAME_WORLD:
      return Math::pinv(getWorldToRobotTransform(motion)) * position;
    case Math::FRAME_TORSO:
      return getTorsoTransformIn(motion, Math::FRAME_ROBOT) * position;
  }
  return unexpectedFrame("convertToRobotFrame");
}

Math::Position3D convertTorsoFrameToDesiredFrame(const std::shared_ptr<KRProxy>& motion,
                                                 const Math::Position3D& position,
                                                 Math::FRAME frame) {
  const Math::Transform frameToTorso = getTorsoTransformIn(motion, frame);
  switch (frame) {
    case Math::FRAME_WORLD:
    case Math::FRAME_ROBOT:
      return frameToTorso * position;
    case Math::FRAME_TORSO:
      return position;
  }
  return unexpectedFrame("convertTorsoFrameToDesiredFrame");
}

}  // namespace tools
}  // namespace Tracker
}  // namespace KR
