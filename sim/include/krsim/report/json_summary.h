#pragma once
// The JSON summary of a run (schema in the README): what ran, then one object per phase with
// every measure of krsim/run/measures.h, null where a measure does not apply.

#include <cstdint>
#include <string>
#include <vector>

#include <krsim/run/measures.h>
#include <krsim/run/run_config.h>

namespace KR {
namespace Sim {

/// What ran: the scenario's and the robot's names, and what it took.
struct RunRecord {
  std::string scenario;
  std::string robot;
  double simulatedS = 0.0;
  double cpuS = 0.0;
  /// How the run ended ("completed", "stopped by signal 2", ...); not written when empty.
  std::string status;
};

/// One run with `config`'s settings (seed, physics, transport, latency, compensation).
std::string summaryJson(const RunConfig& config, const RunRecord& record,
                        const std::vector<PhaseMeasures>& phases);

/// Runs over the seeds of `range`: "seed" is null, "seeds" gives the range, each phase's
/// measure is {"mean": x, "p95": y} across the seeds, and "runs" holds each seed's own summary;
/// `record`'s times are the totals.
std::string seedsJson(const RunConfig& config, const RunRecord& record, SeedRange range,
                      const std::vector<std::vector<PhaseMeasures>>& runs,
                      const std::vector<double>& cpuS);

}  // namespace Sim
}  // namespace KR
