#include <krsim/report/json_summary.h>

#include <cmath>

#include <nlohmann/json.hpp>

namespace KR {
namespace Sim {

namespace {

using json = nlohmann::ordered_json;

const char* const kFieldNames[] = {"time_to_on_target_s",  "los_rms_deg",   "los_p95_deg",
                                   "los_max_deg",          "los_bias_deg",  "los_jitter_deg",
                                   "on_target_pct",        "overshoot_deg", "settling_s",
                                   "arms_rms_deg",         "acquisition_s", "search_s",
                                   "los_rms_tracking_deg", "found_after_s", "found_after_lost_s"};
static_assert(std::size(kFieldNames) == std::size(kMeasureFields));

json value(const std::optional<double>& v) {
  return v ? json(*v) : json(nullptr);
}

json top(const RunConfig& config, const RunRecord& record) {
  json j;
  j["scenario"] = record.scenario;
  j["robot"] = record.robot;
  j["seed"] = config.seed;
  j["physics"] = config.physics;
  j["transport"] = config.transport;
  if (!record.status.empty())
    j["status"] = record.status;
  j["latency_s"] = config.camera.latencyS;
  j["compensation"] = config.compensation;
  // Whole steps of the simulated clock, without the last bits of the division.
  j["simulated_s"] = std::round(record.simulatedS * 1e6) / 1e6;
  j["cpu_s"] = std::round(record.cpuS * 1e6) / 1e6;
  return j;
}

json events(const PhaseMeasures& m) {
  json e = json::object();
  for (const auto& [name, count] : m.events)
    e[name] = count;
  return e;
}

json phaseJson(const PhaseMeasures& m) {
  json p;
  p["name"] = m.name;
  for (std::size_t i = 0; i < std::size(kFieldNames); ++i)
    p[kFieldNames[i]] = value(m.*kMeasureFields[i]);
  p["events"] = events(m);
  return p;
}

json runJson(const RunConfig& config, const RunRecord& record,
             const std::vector<PhaseMeasures>& phases) {
  json j = top(config, record);
  j["phases"] = json::array();
  for (const auto& m : phases)
    j["phases"].push_back(phaseJson(m));
  return j;
}

}  // namespace

std::string summaryJson(const RunConfig& config, const RunRecord& record,
                        const std::vector<PhaseMeasures>& phases) {
  return runJson(config, record, phases).dump(2) + "\n";
}

std::string seedsJson(const RunConfig& config, const RunRecord& record, SeedRange range,
                      const std::vector<std::vector<PhaseMeasures>>& runs,
                      const std::vector<double>& cpuS) {
  json j = top(config, record);
  j["seed"] = nullptr;
  j["seeds"] = {{"first", range.first}, {"last", range.last}};
  j["phases"] = json::array();
  for (const auto& a : aggregateSeeds(runs)) {
    json p;
    p["name"] = a.mean.name;
    for (std::size_t i = 0; i < std::size(kFieldNames); ++i) {
      p[kFieldNames[i]] = {{"mean", value(a.mean.*kMeasureFields[i])},
                           {"p95", value(a.p95.*kMeasureFields[i])}};
    }
    j["phases"].push_back(p);
  }
  j["runs"] = json::array();
  for (std::size_t r = 0; r < runs.size(); ++r) {
    RunConfig one = config;
    one.seed = range.first + static_cast<std::uint32_t>(r);
    RunRecord oneRecord = record;
    oneRecord.cpuS = r < cpuS.size() ? cpuS[r] : 0.0;
    oneRecord.simulatedS = record.simulatedS / static_cast<double>(runs.size());
    j["runs"].push_back(runJson(one, oneRecord, runs[r]));
  }
  return j.dump(2) + "\n";
}

}  // namespace Sim
}  // namespace KR
