#include <krsim/tracking/filter.h>

#include <algorithm>
#include <cmath>

namespace KR {
namespace Sim {

bool ConstantVelocityFilter::update(double time, const Math::Position3D& z) {
  if (!std::isfinite(z.x) || !std::isfinite(z.y) || !std::isfinite(z.z) || !std::isfinite(time))
    return false;
  const double dt = time - fTime;
  if (!fHasSample || dt > fGains.resetAfter) {
    fPosition = z;
    fVelocity = {};
  } else if (dt <= 0.0) {
    fPosition += (z - fPosition) * fGains.alpha;
    return true;  // the time stays that of the latest measurement
  } else {
    const Math::Position3D predicted = fPosition + fVelocity * static_cast<float>(dt);
    const Math::Position3D residual = z - predicted;
    if (residual.norm() > fGains.jumpGate) {
      fPosition = z;
      fVelocity = {};
    } else {
      fPosition = predicted + residual * fGains.alpha;
      fVelocity += residual * (fGains.beta / static_cast<float>(dt));
    }
  }
  fHasSample = true;
  fTime = time;
  return true;
}

Math::Position3D ConstantVelocityFilter::predict(double time, double maxHorizon) const {
  const double horizon = std::clamp(time - fTime, 0.0, std::max(maxHorizon, 0.0));
  return fPosition + fVelocity * static_cast<float>(horizon);
}

}  // namespace Sim
}  // namespace KR
