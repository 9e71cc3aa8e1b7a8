#include <krsim/report/json_summary.h>

#include <cmath>

#include <nlohmann/json.hpp>

namespace KR {
namespace Sim {

namespace {

using json = nlohmann::ordered_json;

const char* const kFieldNames[] = {
    "time_to_on_target_s", "los_rms_deg",   "los_p95_deg",   "los_max_deg", "los_bias_deg",
    "los_jitter_deg",      "on_target_pct", "overshoot_deg", "settling_s",  "arms_rms_deg"};
static_assert(std::size(kFieldNames) == std::size(kMeasureFields));

json value(const std::optional<double>& v) {
  return v ? json(*v) : json(nullptr);
}

json top(const RunInfo& info) {
  json j;
  j["scenario"] = info.scenario;
  j["robot"] = info.robot;
  j["seed"] = info.seed;
  j["physics"] = info.physics;
  j["transport"] = info.transport;
  j["latency_s"] = info.latencyS;
  j["compensation"] = info.compensation;
  // Whole steps of the simulated clock, without the last bits of the division.
  j["simulated_s"] = std::round(info.simulatedS * 1e6) / 1e6;
  j["cpu_s"] = std::round(info.cpuS * 1e6) / 1e6;
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

json runJson(const RunInfo& info, const std::vector<PhaseMeasures>& phases) {
  json j = top(info);
  j["phases"] = json::array();
  for (const auto& m : phases)
    j["phases"].push_back(phaseJson(m));
  return j;
}

}  // namespace

std::string summaryJson(const RunInfo& info, const std::vector<PhaseMeasures>& phases) {
  return runJson(info, phases).dump(2) + "\n";
}

std::string seedsJson(const RunInfo& info, std::uint32_t first, std::uint32_t last,
                      const std::vector<std::vector<PhaseMeasures>>& runs,
                      const std::vector<double>& cpuS) {
  json j = top(info);
  j["seed"] = nullptr;
  j["seeds"] = {{"first", first}, {"last", last}};
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
    RunInfo one = info;
    one.seed = first + static_cast<std::uint32_t>(r);
    one.cpuS = r < cpuS.size() ? cpuS[r] : 0.0;
    one.simulatedS = info.simulatedS / static_cast<double>(runs.size());
    j["runs"].push_back(runJson(one, runs[r]));
  }
  return j.dump(2) + "\n";
}

}  // namespace Sim
}  // namespace KR
