// The search's pattern: where the gaze stops, in which order, and how long it rests there
// (round_searcher.h).

#include <krsim/tracking/round_searcher.h>

#include <algorithm>
#include <cmath>

#include <kr/math/math.h>

namespace KR {
namespace Sim {

int SearchPattern::turn() const {
  return alternate ? side : -side;
}

std::vector<float> SearchPattern::stops(std::size_t* lastSide) const {
  // Offsets from the origin; the head reaches [lo, hi].
  const float half = 0.5f * view;
  const float s = static_cast<float>(side);
  const float centre = Math::modulo2PI(torsoYaw - origin);
  const float lo = centre - headLimit;
  const float hi = centre + headLimit;
  const float near = side > 0 ? hi : lo;  // the reach on `side`
  const float far = side > 0 ? lo : hi;
  const auto reach = [&](float u) { return std::clamp(u, lo, hi); };
  std::vector<float> u{canTurn ? 0.0f : reach(0.0f)};
  if (alternate) {
    u.push_back(reach(s * step));
    u.push_back(reach(-s * step));
  }
  // Outward to the head's reach on each side, the last stop of each at the reach: one way
  // `side` first; alternating, the other side first, so that the sweep ends on `side`. The
  // base then turns round the back in one turn, the way the sweep ended (turn()), the head
  // leading at its reach and the camera seeing all the way, until the view meets what the
  // first side saw.
  const float w = static_cast<float>(turn());
  const float last = w * s > 0.0f ? near : far;
  const float first = w * s > 0.0f ? far : near;
  std::size_t lastFrom = u.size();
  for (const float edge : {first, last}) {
    const float way = edge == last ? w : -w;
    if (edge == last)
      lastFrom = u.size();
    for (int k = alternate ? 2 : 1;; ++k) {
      const float x = way * static_cast<float>(k) * step;
      if (way * (x - edge) >= 0.0f) {
        // Where the base turns on, the turn starts with the head at this reach: no stop here.
        if (edge != last || !canTurn)
          u.push_back(edge);
        break;
      }
      u.push_back(x);
    }
  }
  if (canTurn)
    u.push_back(first - w * 2.0f * half + w * 2.0f * Math::kPi);
  // Stops that repeat the one before (the reach cut them short) are left out.
  std::vector<float> out;
  float previous = 1e9f;
  for (std::size_t i = 0; i < u.size(); ++i) {
    if (i == lastFrom && lastSide != nullptr)
      *lastSide = out.size();
    if (std::fabs(u[i] - previous) > 0.05f)
      out.push_back(Math::modulo2PI(origin + u[i]));
    previous = u[i];
  }
  return out;
}

int sideOfTheBack(const SearchPattern& p) {
  // The base turns round the back toward the point opposite the origin the shorter way; when
  // that point is straight behind, the left is searched first.
  const float opposite = Math::modulo2PI(p.origin - p.torsoYaw + Math::kPi);
  if (std::fabs(opposite) > Math::kPi - 0.02f)
    return 1;
  const int way = opposite > 0.0f ? 1 : -1;
  return p.alternate ? way : -way;
}

double searchDwell(double cameraRateHz, double latencyS) {
  // A camera without a rate takes a frame every update (10 ms).
  const double frame = cameraRateHz > 0.0 ? 1.0 / cameraRateHz : 0.01;
  return frame + latencyS + std::chrono::duration<double>(RoundSearcher::kSettle).count();
}

}  // namespace Sim
}  // namespace KR
