#pragma once
// The JSON summary of a run (schema in the README): what ran, then one object per phase with
// every measure of krsim/run/measures.h, null where a measure does not apply.

#include <cstdint>
#include <string>
#include <vector>

#include <krsim/run/measures.h>

namespace KR {
namespace Sim {

struct RunInfo {
  std::string scenario;
  std::string robot;
  std::uint32_t seed = 1;
  std::string physics = "kinematic";
  std::string transport = "inproc";  // "inproc" or "dds"
  double latencyS = 0.0;
  bool compensation = true;
  double simulatedS = 0.0;
  double cpuS = 0.0;
};

/// One run.
std::string summaryJson(const RunInfo& info, const std::vector<PhaseMeasures>& phases);

/// Runs over seeds first..last: "seed" is null, "seeds" gives the range, each phase's measure
/// is {"mean": x, "p95": y} across the seeds, and "runs" holds each seed's own summary;
/// `info.simulatedS` and `info.cpuS` are the totals.
std::string seedsJson(const RunInfo& info, std::uint32_t first, std::uint32_t last,
                      const std::vector<std::vector<PhaseMeasures>>& runs,
                      const std::vector<double>& cpuS);

}  // namespace Sim
}  // namespace KR
