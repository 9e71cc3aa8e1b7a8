#include <krsim/run/phase_summary.h>

#include <algorithm>
#include <cmath>

namespace KR {
namespace Sim {

void ErrorStats::add(double v) {
  ++count;
  sumSquares += v * v;
  max = std::max(max, v);
}

double ErrorStats::rms() const {
  return count ? std::sqrt(sumSquares / count) : 0.0;
}

}  // namespace Sim
}  // namespace KR
