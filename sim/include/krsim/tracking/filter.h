#pragma once
// ConstantVelocityFilter: an alpha-beta filter of a 3-D point moving at constant velocity, the
// target estimate of the smoother. Each measurement carries its own time (the capture time of
// a detection), so late or irregular measurements are placed where they belong; the estimate
// can be predicted to any later time. A measurement far from the prediction (a jump: another
// target, or one that reappears elsewhere) or after a long silence restarts the filter there,
// at rest, instead of being read as a burst of speed.
//
// A value type: no clock, no lock; times are seconds on any common origin.

#include <kr/math/types.h>

namespace KR {
namespace Sim {

class ConstantVelocityFilter {
 public:
  struct Gains {
    float alpha = 0.7f;          // share of the position residual taken
    float beta = 0.3f;           // share of the residual per period taken into the velocity
    float jumpGate = 0.35f;      // residual beyond which the filter restarts [m]
    double resetAfter = 0.5;     // silence after which the filter restarts [s]
    double maxPrediction = 0.3;  // farthest prediction past the last measurement [s]
  };

  ConstantVelocityFilter() = default;
  explicit ConstantVelocityFilter(const Gains& gains) : fGains(gains) {}

  /// Takes a measurement made at `time`. One older than the last is blended in at its place
  /// without changing the velocity. Non-finite measurements are ignored; returns false then.
  bool update(double time, const Math::Position3D& measured);
  /// Forgets every measurement.
  void reset() { fHasSample = false; }

  bool hasSample() const { return fHasSample; }
  /// Time of the latest measurement [s].
  double time() const { return fTime; }
  /// Estimate at the latest measurement's time.
  const Math::Position3D& position() const { return fPosition; }
  const Math::Position3D& velocity() const { return fVelocity; }
  /// The estimate carried to `time`, at most Gains::maxPrediction past the latest measurement
  /// and never before it.
  Math::Position3D predict(double time) const { return predict(time, fGains.maxPrediction); }
  /// The same, at most `maxHorizon` past the latest measurement [s].
  Math::Position3D predict(double time, double maxHorizon) const;
  const Gains& gains() const { return fGains; }

 private:
  Gains fGains;
  bool fHasSample = false;
  double fTime = 0.0;
  Math::Position3D fPosition;
  Math::Position3D fVelocity;
};

}  // namespace Sim
}  // namespace KR
