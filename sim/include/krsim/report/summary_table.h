#pragma once
// The tables printed at the end of a run: the measures of each phase in narrow, aligned
// columns, "-" where a figure was not measured.

#include <cstddef>
#include <string>
#include <vector>

#include <krsim/run/measures.h>
#include <krsim/run/phase_summary.h>

namespace KR {
namespace Sim {

/// The summary table of one run: one row per phase, the follow and pose columns only when a
/// phase measured them, the events listed below it.
std::string formatSummary(const std::vector<PhaseSummary>& summaries);
/// The table of a many-seed run: a mean and a 95th-percentile row per phase; one row per phase,
/// unlabelled, when `seeds` is 1.
std::string formatSeedSummary(const std::vector<SeedAggregate>& phases, std::size_t seeds);
/// How the target was found in one run, one row per phase with a line of sight: found after
/// (from the phase start, and from the tracker's loss), the longest acquisition, the time
/// searched and the line of sight while tracking.
std::string formatFinding(const std::vector<PhaseMeasures>& phases);
/// The same over many seeds: median and 90th percentile of the times to find, and the runs
/// that never found the target.
std::string formatSeedFinding(const std::vector<FindingAggregate>& phases);

}  // namespace Sim
}  // namespace KR
