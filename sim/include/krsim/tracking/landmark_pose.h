#pragma once
// The robot's pose in the map from two landmarks: where the robot sees them (robot frame) and
// where the map puts them. The smoother answers "getPosition" with it.

#include <array>
#include <optional>

#include <kr/math/types.h>

namespace KR {
namespace Sim {

/// The robot's pose in the map frame (x, y [m], theta [rad]): the rotation aligns the segment
/// between the landmarks seen with the one in the map, the translation is the mean over the
/// two. None when the landmarks are seen less than 1 cm apart (z is ignored).
std::optional<Math::Pose2D> robotPoseFromLandmarks(const std::array<Math::Position3D, 2>& seen,
                                                   const std::array<Math::Position3D, 2>& mapped);

}  // namespace Sim
}  // namespace KR
