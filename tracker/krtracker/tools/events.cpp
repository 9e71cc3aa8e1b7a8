// Tracker events into TrackInfos records, and the motion resource check. Both run for every
// observation of every target: the success path reads the event in place, builds no string
// and makes only the motion query that its layout needs.

#include <krtracker/tools/tools.h>

#include <cstddef>
#include <exception>
#include <string>
#include <vector>

#include <ko/log.h>
#include <kr/value/valueutils.h>

#include <krtracker/types/types/trackinfos.h>

namespace KR {
namespace Tracker {
namespace tools {

namespace {
const std::string kToolsCategory = "KRTracker.tools";
const std::string kConvertName = "convertTrackerEventToTrackInfo";
const std::string kInvalidFormat = "Invalid data format from event: ";

// Names handed to the value checks and the proxy, built once rather than on every event.
const std::string kGetRobotPosition = "getRobotPosition";
const std::string kAreResourcesAvailable = "areResourcesAvailable";
const std::string kEventValue = "event";
const std::string kWorldPose = "TargetPositionInFrameWorld";
const std::string kTorsoPose = "TargetPositionInFrameTorso";
const std::string kRobotPose = "TargetPositionInFrameRobot";
const std::string kSeconds = "TimeStamp seconds";
const std::string kMicroseconds = "TimeStamp microseconds";
const std::string kEffector = "End effector";
const std::string kThreshold = "Head threshold";

// What was being read when an error arose; it picks the log text.
enum class Step {
  Format,
  WorldPose,
  TorsoPose,
  RobotPose,
  MotionQuery,
  TimeStamp,
  Effector,
  Threshold
};

const char* stepPrefix(Step step) {
  switch (step) {
    case Step::WorldPose:
      return "Invalid TargetPositionInFrameWorld: ";
    case Step::TorsoPose:
      return "Invalid TargetPositionInFrameTorso: ";
    case Step::RobotPose:
      return "Invalid TargetPositionInFrameRobot: ";
    case Step::TimeStamp:
      return "Invalid TimeStamp: ";
    case Step::Effector:
      return "Invalid End effector: ";
    case Step::Threshold:
      return "Invalid Head threshold: ";
    case Step::Format:
    case Step::MotionQuery:
      break;
  }
  return "";
}

bool invalidFormat(const std::string& eventName) {
  if (ko::log::isEnabled(kToolsCategory, ko::log::Level::warning)) {
    ko::log::warning(kToolsCategory, kConvertName, kInvalidFormat + eventName);
  }
  return false;
}
}  // namespace

bool convertTrackerEventToTrackInfo(const KRValue& event, const std::string& callerName,
                                    const std::string& eventName,
                                    const std::shared_ptr<KRProxy>& motion,
                                    types::TrackInfos& out) {
  Step step = Step::Format;
  try {
    checkArrayFromKRValue(event, callerName, kEventValue);
    if (event.size() < 3) {
      return invalidFormat(eventName);
    }
    const KRValue& first = event[0];
    const KRValue& second = event[1];
    checkArrayFromKRValue(first, callerName, kEventValue);
    checkArrayFromKRValue(second, callerName, kEventValue);

    Math::Position6D worldToObject;
    float distance = 0.0f;
    std::size_t timeIndex = 0;
    if (first.size() == 6 && second.size() == 2) {
      // Target in the world frame; the distance is taken from the robot's base.
      step = Step::WorldPose;
      worldToObject = extractPosition6DFromKRValue(first, callerName, kWorldPose);
      step = Step::MotionQuery;
      const Math::Pose2D worldToRobot(motion->call<std::vector<float>>(kGetRobotPosition, true));
      distance = Math::distance(worldToObject, Math::position6DFromPose2D(worldToRobot));
      timeIndex = 1;
    } else {
      // Target in the torso frame, with its robot-frame copy that is checked but not used.
      if (event.size() < 4) {
        return invalidFormat(eventName);
      }
      checkArrayFromKRValue(event[2], callerName, kEventValue);
      if (first.size() != 6 || second.size() != 6) {
        return invalidFormat(eventName);
      }
      step = Step::TorsoPose;
      const Math::Position6D torsoToObject =
          extractPosition6DFromKRValue(first, callerName, kTorsoPose);
      step = Step::RobotPose;
      extractPosition6DFromKRValue(second, callerName, kRobotPose);
      step = Step::MotionQuery;
      const Math::Transform worldToTorso = getWorldToTorsoTransform(motion);
      worldToObject = Math::position6DFromTransform(worldToTorso *
                                                    Math::transformFromPosition6D(torsoToObject));
      distance = torsoToObject.norm();
      timeIndex = 2;
    }

    const KRValue& time = event[timeIndex];
    if (time.size() != 2) {
      return invalidFormat(eventName);
    }
    step = Step::TimeStamp;
    const int seconds = extractIntFromKRValue(time[0], callerName, kSeconds);
    const int microseconds = extractIntFromKRValue(time[1], callerName, kMicroseconds);
    step = Step::Effector;
    const int effector = extractIntFromKRValue(event[timeIndex + 1], callerName, kEffector);
    step = Step::Threshold;
    const std::size_t thresholdIndex = timeIndex + 2;
    const float headThreshold =
        event.size() > thresholdIndex
            ? extractFloatAndClip(event[thresholdIndex], 0.0f, Math::kPi, callerName, kThreshold)
            : getConfigFloatValue(HEAD_THRESHOLD);

    out =
        types::TrackInfos(worldToObject, seconds, microseconds, effector, distance, headThreshold);
    return true;
  } catch (const std::exception& e) {
    if (step == Step::MotionQuery) {
      ko::log::error(kToolsCategory, kConvertName, e.what());
    } else if (step == Step::Format) {
      invalidFormat(eventName);
    } else if (ko::log::isEnabled(kToolsCategory, ko::log::Level::warning)) {
      ko::log::warning(kToolsCategory, kConvertName, stepPrefix(step) + std::string(e.what()));
    }
  }
  return false;
}

bool areAllResourcesTaken(const std::shared_ptr<KRProxy>& motion,
                          const std::vector<std::string>& resourceNames) {
  try {
    if (motion->call<bool>(kAreResourcesAvailable, resourceNames)) {
      return false;
    }
    if (resourceNames.empty()) {
      return true;
    }
    // Some may be free although the whole set is not: ask for each one.
    std::vector<std::string> one(1);
    for (const std::string& name : resourceNames) {
      one[0] = name;
      if (motion->call<bool>(kAreResourcesAvailable, one)) {
        return false;
      }
    }
    return true;
  } catch (const std::exception& e) {
    ko::log::error(kToolsCategory, "areAllResourcesTaken", e.what());
  }
  return false;
}

}  // namespace tools
}  // namespace Tracker
}  // namespace KR
