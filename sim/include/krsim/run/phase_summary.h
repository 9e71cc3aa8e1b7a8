#pragma once
// PhaseSummary: what a run measured over one phase, as ScenarioRun::summaries() gives it.

#include <cstddef>

#include <krsim/run/measures.h>

namespace KR {
namespace Sim {

/// Root mean square and maximum of a series.
struct ErrorStats {
  std::size_t count = 0;
  double sumSquares = 0.0;
  double max = 0.0;
  void add(double v);
  double rms() const;
};

/// The measures of a phase (krsim/run/measures.h) and the follow and localisation figures of the
/// phases that ask for them.
struct PhaseSummary {
  PhaseMeasures measures;
  double begin = 0.0;  // [s]
  double end = 0.0;    // [s]
  ErrorStats relativeErrorM;
  ErrorStats localisationM;
  ErrorStats localisationDeg;
  std::size_t localisationMissing = 0;  // answers without a position
};

}  // namespace Sim
}  // namespace KR
