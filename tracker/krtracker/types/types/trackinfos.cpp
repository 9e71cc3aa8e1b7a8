#include <krtracker/types/types/trackinfos.h>

#include <chrono>
#include <sstream>
#include <utility>

#include <kr/error.h>
#include <kr/math/math.h>
#include <kr/value/valueutils.h>

namespace KR {
namespace Tracker {
namespace types {

namespace {
const std::string kConstructorName = "TrackInfos/Constructor";
constexpr std::size_t kHeaderSize = 7;
constexpr std::size_t kPoseSize = 6;

const char* const kColumnNames[] = {"WorldToObjectX",  "WorldToObjectY",  "WorldToObjectZ",
                                    "WorldToObjectWx", "WorldToObjectWy", "WorldToObjectWz",
                                    "Distance",        "HeadThreshold",   "SourceId",
                                    "TrackEffector",   "Timestamp",       "isValid"};
}  // namespace

TrackInfos::TrackInfos(const KRValue& value) {
  checkArrayFromKRValue(value, kConstructorName, "TrackInfos");
  if (value.size() > 0) {
    checkArrayFromKRValue(value[0], kConstructorName, "Header");
  }
  if (value.size() > 1) {
    checkArrayFromKRValue(value[1], kConstructorName, "WorldToObject");
  }
  if (value.size() != 2 || value[0].size() != kHeaderSize || value[1].size() != kPoseSize) {
    throw KRError("KRTracker", "TrackInfos", "KRValue does not follow the format.");
  }

  const KRValue& header = value[0];
  fTimestamp = extractDuration(header[0], header[1], kConstructorName, "Timestamp").count();
  fSourceId = extractIntFromKRValue(header[2], kConstructorName, "SourceId");
  fTrackEffector = extractIntFromKRValue(header[3], kConstructorName, "TrackEffector");
  fDistance = extractFloat(header[4], kConstructorName, "Distance");
  fHeadThreshold = extractFloat(header[5], kConstructorName, "HeadThreshold");
  // Only a genuine bool marks the sample valid; anything else leaves it invalid.
  const bool* valid = header[6].getIf<bool>();
  fIsValid = valid != nullptr && *valid;
  fWorldToObject = extractPosition6DFromKRValue(value[1], kConstructorName, "WorldToObject");
}

TrackInfos::TrackInfos(const Math::Position6D& worldToObject, std::int64_t seconds,
                       std::int64_t microseconds, int trackEffector, float distance,
                       float headThreshold)
    : fWorldToObject(worldToObject),
      fDistance(distance),
      fHeadThreshold(headThreshold),
      fSourceId(-1),
      fTrackEffector(trackEffector),
      fIsValid(true),
      fTimestamp((seconds * 1000000 + microseconds) * 1000) {}

Math::Position3D TrackInfos::getWorldToObject3D() const {
  return {fWorldToObject.x, fWorldToObject.y, fWorldToObject.z};
}

Math::Transform TrackInfos::xWorldToObject() const {
  return Math::transformFromPosition6D(fWorldToObject);
}

Math::Position6D TrackInfos::getTorsoToObject6D(const Math::Transform& torsoToWorld) const {
  return Math::position6DFromTransform(torsoToWorld * xWorldToObject());
}

Math::Position3D TrackInfos::getTorsoToObject3D(const Math::Transform& torsoToWorld) const {
  return Math::position3DFromTransform(torsoToWorld * xWorldToObject());
}

Math::Position6D TrackInfos::getRobotToObject6D(const Math::Transform& worldToRobot) const {
  return Math::position6DFromTransform(Math::pinv(worldToRobot) * xWorldToObject());
}

Math::Position3D TrackInfos::getRobotToObject3D(const Math::Transform& worldToRobot) const {
  return Math::position3DFromTransform(Math::pinv(worldToRobot) * xWorldToObject());
}

Math::Pose2D TrackInfos::getTorsoToObjectMove(const Math::Transform& torsoToWorld) const {
  return Math::pose2DFromTransform(torsoToWorld * xWorldToObject());
}

Math::Pose2D TrackInfos::getRobotToObjectMove(const Math::Transform& worldToRobot) const {
  return Math::pose2DFromTransform(Math::pinv(worldToRobot) * xWorldToObject());
}

Math::Rotation3D TrackInfos::getRobotToObjectWB(const Math::Transform& worldToRobot) const {
  const Math::Position6D robotToObject = getRobotToObject6D(worldToRobot);
  return {0.0f, robotToObject.wy, robotToObject.wz};
}

KRValue TrackInfos::toKRValue() const {
  KRValue time = convertDurationToKRValue(std::chrono::nanoseconds(fTimestamp));
  KRValue::Array header;
  header.reserve(kHeaderSize);
  header.emplace_back(std::move(time[0]));
  header.emplace_back(std::move(time[1]));
  header.emplace_back(static_cast<int>(fSourceId));
  header.emplace_back(static_cast<int>(fTrackEffector));
  header.emplace_back(fDistance);
  header.emplace_back(fHeadThreshold);
  header.emplace_back(fIsValid);

  KRValue::Array pose;
  pose.reserve(kPoseSize);
  for (float f : {fWorldToObject.x, fWorldToObject.y, fWorldToObject.z, fWorldToObject.wx,
                  fWorldToObject.wy, fWorldToObject.wz}) {
    pose.emplace_back(f);
  }

  KRValue out = KRValue::makeArray(2);
  out[0] = KRValue(std::move(header));
  out[1] = KRValue(std::move(pose));
  return out;
}

KRValue TrackInfos::toKRValue(float time) const {
  KRValue out = toKRValue();
  out[0][0] = KRValue(static_cast<float>(time / 1000.0));
  out[0][1] = KRValue(static_cast<float>(time * 1000.0));
  return out;
}

std::string TrackInfos::toString(const std::string& separator, bool withHeader) const {
  std::ostringstream os;
  if (withHeader) {
    for (const char* name : kColumnNames) {
      os << name << separator;
    }
    os << "\n";
  }
  // The pose keeps the math library's own space-separated form, the distance right after it.
  os << fWorldToObject << fDistance << separator << fHeadThreshold << separator << fSourceId
     << separator << fTrackEffector << separator << fTimestamp << separator << (fIsValid ? 1 : 0)
     << separator << "\n";
  return os.str();
}

}  // namespace types
}  // namespace Tracker
}  // namespace KR
