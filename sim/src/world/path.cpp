#include <krsim/world/path.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include <kr/error.h>

namespace KR {
namespace Sim {

Path::Path(std::vector<Keyframe> keyframes) : fKeyframes(std::move(keyframes)) {
  for (std::size_t i = 1; i < fKeyframes.size(); ++i) {
    if (fKeyframes[i].time < fKeyframes[i - 1].time) {
      throw KRError("World", "Path", "keyframes must be in time order");
    }
  }
}

Path Path::fixed(const Math::Position3D& position) {
  return Path({{0.0, position}});
}

Path Path::orbit(const Math::Position3D& center, float radius, float z, float startAngle,
                 float angularSpeed, double startTime, double endTime, double sampleStep) {
  std::vector<Keyframe> frames;
  const auto n = static_cast<long>(std::ceil((endTime - startTime) / sampleStep - 1e-9));
  for (long i = 0; i <= n; ++i) {
    const double t = std::min(endTime, startTime + static_cast<double>(i) * sampleStep);
    const double a = startAngle + angularSpeed * (t - startTime);
    frames.push_back({t,
                      {center.x + radius * static_cast<float>(std::cos(a)),
                       center.y + radius * static_cast<float>(std::sin(a)), z}});
  }
  return Path(std::move(frames));
}

Path& Path::then(const Path& other) {
  for (const auto& k : other.fKeyframes)
    add(k.time, k.position);
  return *this;
}

Path& Path::add(double time, const Math::Position3D& position) {
  if (!fKeyframes.empty() && time < fKeyframes.back().time) {
    throw KRError("World", "Path", "keyframes must be in time order");
  }
  fKeyframes.push_back({time, position});
  return *this;
}

Math::Position3D Path::at(double time) const {
  if (fKeyframes.empty())
    return {};
  if (time <= fKeyframes.front().time)
    return fKeyframes.front().position;
  if (time >= fKeyframes.back().time)
    return fKeyframes.back().position;
  const auto next = std::upper_bound(fKeyframes.begin(), fKeyframes.end(), time,
                                     [](double t, const Keyframe& k) { return t < k.time; });
  const Keyframe& b = *next;
  const Keyframe& a = *(next - 1);
  const double span = b.time - a.time;
  const float u = span > 0.0 ? static_cast<float>((time - a.time) / span) : 1.0f;
  return a.position + (b.position - a.position) * u;
}

}  // namespace Sim
}  // namespace KR
