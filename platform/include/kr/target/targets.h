#pragma once
// Target names defined by the platform's target library.

namespace KR {
namespace Tracker {
namespace Target {
/// The landmarks target: the one target followed through two events and a pair of ids.
inline constexpr const char* TargetLandMarks = "LandMarks";
inline constexpr const char* TargetRedBall = "RedBall";
inline constexpr const char* TargetFace = "Face";
inline constexpr const char* TargetPeople = "People";
inline constexpr const char* TargetSound = "Sound";
}  // namespace Target
}  // namespace Tracker
}  // namespace KR
