#include <krsim/tracking/landmark_pose.h>

#include <cmath>
#include <cstddef>

#include <kr/math/math.h>

namespace KR {
namespace Sim {

std::optional<Math::Pose2D> robotPoseFromLandmarks(const std::array<Math::Position3D, 2>& seen,
                                                   const std::array<Math::Position3D, 2>& mapped) {
  const float seenDx = seen[1].x - seen[0].x;
  const float seenDy = seen[1].y - seen[0].y;
  if (std::hypot(seenDx, seenDy) < 0.01f) {
    return std::nullopt;
  }
  const float theta =
      Math::modulo2PI(std::atan2(mapped[1].y - mapped[0].y, mapped[1].x - mapped[0].x) -
                      std::atan2(seenDy, seenDx));
  const float c = std::cos(theta);
  const float s = std::sin(theta);
  float x = 0.0f;
  float y = 0.0f;
  for (std::size_t i = 0; i < 2; ++i) {
    x += 0.5f * (mapped[i].x - (c * seen[i].x - s * seen[i].y));
    y += 0.5f * (mapped[i].y - (s * seen[i].x + c * seen[i].y));
  }
  return Math::Pose2D(x, y, theta);
}

}  // namespace Sim
}  // namespace KR
