#pragma once
// Scripted motion of the world's targets: keyframes in the map frame, and the time intervals
// during which a target is hidden.

#include <vector>

#include <kr/math/math.h>

namespace KR {
namespace Sim {

struct Keyframe {
  double time = 0.0;          // [s] since the start of the simulation
  Math::Position3D position;  // map frame [m]
};

/// A scripted path: keyframes in time order, interpolated linearly, held before the first and
/// after the last. KRError("World", "Path", ...) for keyframes out of time order.
class Path {
 public:
  Path() = default;
  explicit Path(std::vector<Keyframe> keyframes);
  static Path fixed(const Math::Position3D& position);
  /// A circle about `center` (map frame) at height z, from `startAngle` [rad] turning at
  /// `angularSpeed` [rad/s] from `startTime` to `endTime`, sampled every `sampleStep` seconds.
  static Path orbit(const Math::Position3D& center, float radius, float z, float startAngle,
                    float angularSpeed, double startTime, double endTime, double sampleStep = 0.05);
  /// Appends the keyframes of another path (which must start later).
  Path& then(const Path& other);
  Path& add(double time, const Math::Position3D& position);

  /// Position at a time [s]; the origin for a path without keyframes.
  Math::Position3D at(double time) const;
  const std::vector<Keyframe>& keyframes() const { return fKeyframes; }

 private:
  std::vector<Keyframe> fKeyframes;
};

/// [begin, end) in seconds since the start of the simulation.
struct TimeInterval {
  double begin = 0.0;  // [s]
  double end = 0.0;    // [s]
  bool contains(double t) const { return t >= begin && t < end; }
};

}  // namespace Sim
}  // namespace KR
