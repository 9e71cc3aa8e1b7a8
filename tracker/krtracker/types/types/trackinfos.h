#pragma once
// TrackInfos: one sample of a tracked target, its pose in the world frame with when, by whom
// and for which effector it was seen. A plain copyable value.
//
// KRValue form: [[seconds, microseconds, sourceId, trackEffector, distance, headThreshold,
// valid], [x, y, z, wx, wy, wz]], the timestamp split into whole seconds and the remaining
// microseconds.

#include <cstdint>
#include <string>

#include <kr/math/types.h>
#include <kr/value/krvalue.h>

namespace KR {
namespace Tracker {
namespace types {

class TrackInfos {
 public:
  /// An invalid sample: zero pose, source id -1, timestamp 0.
  TrackInfos() = default;
  /// From the KRValue form. Throws the platform's errors for non-arrays and non-numeric
  /// elements, KRError("KRTracker", "TrackInfos", ...) for wrong sizes.
  explicit TrackInfos(const KRValue& value);
  /// A valid sample without source (id -1), seen at seconds + microseconds.
  TrackInfos(const Math::Position6D& worldToObject, std::int64_t seconds, std::int64_t microseconds,
             int trackEffector, float distance, float headThreshold);
  TrackInfos(const TrackInfos&) = default;
  TrackInfos& operator=(const TrackInfos&) = default;

  Math::Position6D getWorldToObject6D() const { return fWorldToObject; }
  Math::Position3D getWorldToObject3D() const;
  /// [ns]
  std::int64_t getTimestamp() const { return fTimestamp; }
  int getTrackEffector() const { return fTrackEffector; }
  /// [m]
  float getDistance() const { return fDistance; }
  /// [rad]
  float getHeadThreshold() const { return fHeadThreshold; }
  bool isValid() const { return fIsValid; }

  // The torso getters take the transform mapping world coordinates into torso coordinates
  // and apply it as is; the robot getters take the robot's pose in the world and invert it.
  Math::Position6D getTorsoToObject6D(const Math::Transform& torsoToWorld) const;
  Math::Position3D getTorsoToObject3D(const Math::Transform& torsoToWorld) const;
  Math::Position6D getRobotToObject6D(const Math::Transform& worldToRobot) const;
  Math::Position3D getRobotToObject3D(const Math::Transform& worldToRobot) const;
  Math::Pose2D getTorsoToObjectMove(const Math::Transform& torsoToWorld) const;
  Math::Pose2D getRobotToObjectMove(const Math::Transform& worldToRobot) const;
  /// The object's orientation in the robot frame without its roll: (0, pitch, yaw).
  Math::Rotation3D getRobotToObjectWB(const Math::Transform& worldToRobot) const;

  KRValue toKRValue() const;
  /// The KRValue form with header [0] = time / 1000 and header [1] = time * 1000 (floats):
  /// a time in milliseconds given once in seconds and once in microseconds.
  KRValue toKRValue(float time) const;
  /// One line of a diagnostic table, optionally preceded by the column names. The pose's
  /// components are separated by spaces whatever the separator.
  std::string toString(const std::string& separator, bool withHeader) const;

 private:
  Math::Transform xWorldToObject() const;

  Math::Position6D fWorldToObject;
  float fDistance = 0.0f;       // [m]
  float fHeadThreshold = 0.0f;  // [rad]
  std::int32_t fSourceId = -1;
  std::int32_t fTrackEffector = 0;
  bool fIsValid = false;
  std::int64_t fTimestamp = 0;  // [ns]
};

}  // namespace types
}  // namespace Tracker
}  // namespace KR
