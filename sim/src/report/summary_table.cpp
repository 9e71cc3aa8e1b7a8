#include <krsim/report/summary_table.h>

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <optional>
#include <sstream>

namespace KR {
namespace Sim {

namespace {

std::string fixed(const std::optional<double>& v, int precision) {
  if (!v)
    return "-";
  std::ostringstream os;
  os << std::fixed << std::setprecision(precision) << *v;
  return os.str();
}

std::string table(const std::vector<std::vector<std::string>>& header,
                  const std::vector<std::vector<std::string>>& rows) {
  std::vector<std::size_t> width(header[0].size(), 0);
  for (const auto* block : {&header, &rows}) {
    for (const auto& r : *block) {
      for (std::size_t c = 0; c < r.size(); ++c)
        width[c] = std::max(width[c], r[c].size());
    }
  }
  std::ostringstream os;
  auto line = [&](const std::vector<std::string>& cells) {
    std::string text;
    for (std::size_t c = 0; c < cells.size(); ++c) {
      std::ostringstream cell;
      if (c == 0) {
        cell << std::left << std::setw(static_cast<int>(width[c])) << cells[c];
      } else {
        cell << "  " << std::right << std::setw(static_cast<int>(width[c])) << cells[c];
      }
      text += cell.str();
    }
    while (!text.empty() && text.back() == ' ')
      text.pop_back();
    os << text << "\n";
  };
  for (const auto& h : header)
    line(h);
  for (const auto& r : rows)
    line(r);
  return os.str();
}

std::vector<std::vector<std::string>> measuresHeader() {
  return {{"phase", "on target", "LoS RMS", "p95", "max", "bias", "jitter", "on target",
           "overshoot", "settling", "arms RMS"},
          {"", "after [s]", "[deg]", "[deg]", "[deg]", "[deg]", "[deg]", "[%]", "[deg]", "[s]",
           "[deg]"}};
}

std::vector<std::string> measuresRow(const std::string& label, const PhaseMeasures& m) {
  return {label,
          fixed(m.timeToOnTargetS, 2),
          fixed(m.losRmsDeg, 2),
          fixed(m.losP95Deg, 2),
          fixed(m.losMaxDeg, 2),
          fixed(m.losBiasDeg, 2),
          fixed(m.losJitterDeg, 2),
          fixed(m.onTargetPct, 1),
          fixed(m.overshootDeg, 2),
          fixed(m.settlingS, 2),
          fixed(m.armsRmsDeg, 2)};
}

}  // namespace

std::string formatSummary(const std::vector<PhaseSummary>& summaries) {
  auto stat = [](const ErrorStats& st, bool rms, int precision) -> std::string {
    return st.count == 0 ? "-" : fixed(rms ? st.rms() : st.max, precision);
  };
  const bool anyRelative = std::any_of(summaries.begin(), summaries.end(),
                                       [](const auto& s) { return s.relativeErrorM.count > 0; });
  const bool anyLocalisation = std::any_of(summaries.begin(), summaries.end(), [](const auto& s) {
    return s.localisationM.count > 0 || s.localisationMissing > 0;
  });
  auto header = measuresHeader();
  if (anyRelative) {
    header[0].insert(header[0].end(), {"follow RMS", "follow max"});
    header[1].insert(header[1].end(), {"[m]", "[m]"});
  }
  if (anyLocalisation) {
    header[0].insert(header[0].end(), {"pose max", "pose max"});
    header[1].insert(header[1].end(), {"[m]", "[deg]"});
  }
  std::vector<std::vector<std::string>> rows;
  std::string events;
  for (const auto& s : summaries) {
    auto row = measuresRow(s.measures.name, s.measures);
    if (anyRelative)
      row.insert(row.end(), {stat(s.relativeErrorM, true, 3), stat(s.relativeErrorM, false, 3)});
    if (anyLocalisation) {
      row.insert(row.end(), {stat(s.localisationM, false, 3), stat(s.localisationDeg, false, 2)});
    }
    rows.push_back(std::move(row));
    std::string list;
    for (const auto& e : s.measures.events)
      list += (list.empty() ? "" : ", ") + e.first + " x" + std::to_string(e.second);
    events += "  " + s.measures.name + ": " + (list.empty() ? "none" : list) + "\n";
  }
  return table(header, rows) + "Events:\n" + events;
}

std::string formatSeedSummary(const std::vector<SeedAggregate>& phases, std::size_t seeds) {
  std::vector<std::vector<std::string>> rows;
  for (const auto& p : phases) {
    if (seeds == 1) {
      rows.push_back(measuresRow(p.mean.name, p.mean));
      continue;
    }
    rows.push_back(measuresRow(p.mean.name + " mean", p.mean));
    rows.push_back(measuresRow(p.p95.name + " p95", p.p95));
  }
  return table(measuresHeader(), rows);
}

namespace {

std::string seconds(double v) {
  return std::isinf(v) ? "never" : fixed(v, 2);
}

}  // namespace

std::string formatFinding(const std::vector<PhaseMeasures>& phases) {
  std::vector<std::vector<std::string>> rows;
  for (const auto& m : phases) {
    if (!m.searchS)
      continue;
    rows.push_back({m.name, m.foundAfterS ? fixed(m.foundAfterS, 2) : "never",
                    fixed(m.foundAfterLostS, 2), fixed(m.acquisitionS, 2), fixed(m.searchS, 2),
                    fixed(m.losRmsTrackingDeg, 2)});
  }
  if (rows.empty())
    return "";
  return "Finding:\n" + table({{"phase", "found", "after", "acquisition", "search", "LoS RMS"},
                               {"", "after [s]", "TargetLost [s]", "[s]", "[s]", "tracking [deg]"}},
                              rows);
}

std::string formatSeedFinding(const std::vector<FindingAggregate>& phases) {
  std::vector<std::vector<std::string>> rows;
  for (const auto& a : phases) {
    rows.push_back({a.name, seconds(a.foundMedianS), seconds(a.foundP90S),
                    seconds(a.afterLostMedianS), seconds(a.afterLostP90S),
                    std::to_string(a.neverFound) + "/" + std::to_string(a.runs)});
  }
  if (rows.empty())
    return "";
  return "Finding:\n" + table({{"phase", "found after", "p90", "after TargetLost", "p90", "never"},
                               {"", "median [s]", "[s]", "median [s]", "[s]", "found"}},
                              rows);
}

}  // namespace Sim
}  // namespace KR
