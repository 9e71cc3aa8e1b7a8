#include <krsim/run/measures.h>

#include <algorithm>
#include <cmath>
#include <limits>

namespace KR {
namespace Sim {

PhaseMeter::PhaseMeter(PhaseSetup setup)
    : fPhase(std::move(setup)),
      fWaitingSince(fPhase.begin),
      fHistogram(kBins, 0),
      fLastTime(fPhase.begin) {}

void PhaseMeter::xFinding(const MeasureSample& s, bool measured) {
  if (s.searching)
    fSearchS += s.time - fLastTime;
  fLastTime = s.time;
  if (s.trackerLost && !fLostAt && !fFoundAt)
    fLostAt = s.time;
  if (!s.perceived) {
    fAppearedAt.reset();
    fFollowing = false;
  } else if (!fWasPerceived) {
    // A target already followed when the phase starts has not just appeared.
    const bool followed = fSamples == 1 && s.tracked;
    if (followed)
      fFollowing = true;
    else
      fAppearedAt = s.time;
  }
  fWasPerceived = s.perceived;
  // Detections of a target out of sight were captured before it went: they find nothing.
  if (s.detected && s.perceived) {
    if (fAppearedAt) {
      const double wait = s.time - *fAppearedAt;
      fLongestAcquisition = std::max(fLongestAcquisition.value_or(0.0), wait);
      fAppearedAt.reset();
    }
    fFollowing = true;
    if (!fFoundAt)
      fFoundAt = s.time;
  }
  if (fFollowing && measured) {
    ++fTrackingCount;
    fTrackingSquares += s.lineOfSightDeg * s.lineOfSightDeg;
  }
}

void PhaseMeter::add(const MeasureSample& s) {
  ++fSamples;
  const bool measured = fPhase.lineOfSight && s.hasLineOfSight && s.perceived;
  const bool onTarget = measured && s.lineOfSightDeg < fPhase.onTargetDeg;
  xFinding(s, measured);
  if (onTarget) {
    ++fOnTarget;
    if (fWaitingSince) {
      fLongestWait = std::max(fLongestWait, s.time - *fWaitingSince);
      fWaitingSince.reset();
    }
    fOnTargetSinceLoss = true;
  } else if (fOnTargetSinceLoss && (!s.perceived || s.trackerLost)) {
    fWaitingSince = s.time;
    fOnTargetSinceLoss = false;
  }
  if (measured) {
    const double e = s.lineOfSightDeg;
    fAnyLos = true;
    ++fLosCount;
    fLosSum += e;
    fLosSquares += e * e;
    fLosMax = std::max(fLosMax, e);
    const auto bin = static_cast<std::size_t>(std::lround(e / kBinDeg));
    ++fHistogram[std::min(bin, kBins - 1)];
    if (fPhase.step) {
      if (fStepSign == 0 && std::fabs(s.horizontalDeg) > kSettlingDeg)
        fStepSign = s.horizontalDeg > 0.0 ? 1 : -1;
      if (fStepSign != 0)
        fOvershoot = std::max(fOvershoot, -fStepSign * s.horizontalDeg);
    }
  }
  if (measured && s.lineOfSightDeg <= kSettlingDeg) {
    if (!fSettledSince)
      fSettledSince = s.time;
  } else {
    fSettledSince.reset();
  }
  for (double a : s.armDeg) {
    ++fArmCount;
    fArmSquares += a * a;
  }
}

void PhaseMeter::addEvent(const std::string& name) {
  auto it =
      std::find_if(fEvents.begin(), fEvents.end(), [&](const auto& e) { return e.first == name; });
  if (it == fEvents.end()) {
    fEvents.emplace_back(name, 1);
  } else {
    ++it->second;
  }
}

PhaseMeasures PhaseMeter::result() const {
  PhaseMeasures m;
  m.name = fPhase.name;
  m.events = fEvents;
  if (fArmCount > 0)
    m.armsRmsDeg = std::sqrt(fArmSquares / static_cast<double>(fArmCount));
  if (!fPhase.lineOfSight)
    return m;
  m.acquisitionS = fLongestAcquisition;
  m.searchS = fSearchS;
  if (fTrackingCount > 0)
    m.losRmsTrackingDeg = std::sqrt(fTrackingSquares / static_cast<double>(fTrackingCount));
  if (fFoundAt) {
    m.foundAfterS = *fFoundAt - fPhase.begin;
    m.foundAfterLostS = fLostAt ? *fFoundAt - *fLostAt : 0.0;
  }
  if (!fWaitingSince)
    m.timeToOnTargetS = fLongestWait;
  if (fSamples > 0)
    m.onTargetPct = 100.0 * static_cast<double>(fOnTarget) / static_cast<double>(fSamples);
  if (fLosCount > 0) {
    const double n = static_cast<double>(fLosCount);
    const double mean = fLosSum / n;
    m.losRmsDeg = std::sqrt(fLosSquares / n);
    m.losMaxDeg = fLosMax;
    m.losBiasDeg = mean;
    m.losJitterDeg = std::sqrt(std::max(0.0, fLosSquares / n - mean * mean));
    const auto rank = static_cast<std::size_t>(std::ceil(0.95 * n));
    std::size_t seen = 0;
    for (std::size_t b = 0; b < kBins; ++b) {
      seen += fHistogram[b];
      if (seen >= rank) {
        m.losP95Deg = std::min(fLosMax, static_cast<double>(b) * kBinDeg);
        break;
      }
    }
  }
  if (fPhase.step && fAnyLos) {
    m.overshootDeg = fOvershoot;
    // Settled only when the error has stayed in the band for the hold time by the phase end.
    if (fSettledSince && fLastTime - *fSettledSince >= kSettlingHoldS - 1e-9)
      m.settlingS = *fSettledSince - fPhase.begin;
  }
  return m;
}

std::pair<std::optional<double>, std::optional<double>> meanAndP95(
    const std::vector<std::optional<double>>& values) {
  std::vector<double> v;
  for (const auto& x : values) {
    if (x)
      v.push_back(*x);
  }
  if (v.empty())
    return {};
  std::sort(v.begin(), v.end());
  double sum = 0.0;
  for (double x : v)
    sum += x;
  const auto rank = static_cast<std::size_t>(std::ceil(0.95 * static_cast<double>(v.size())));
  return {sum / static_cast<double>(v.size()), v[std::max<std::size_t>(rank, 1) - 1]};
}

std::vector<SeedAggregate> aggregateSeeds(const std::vector<std::vector<PhaseMeasures>>& runs) {
  std::vector<SeedAggregate> out;
  if (runs.empty())
    return out;
  for (std::size_t i = 0; i < runs.front().size(); ++i) {
    SeedAggregate a;
    a.mean.name = a.p95.name = runs.front()[i].name;
    const auto field = [&](std::optional<double> PhaseMeasures::*member) {
      std::vector<std::optional<double>> values;
      for (const auto& r : runs) {
        if (i < r.size())
          values.push_back(r[i].*member);
      }
      const auto [mean, p95] = meanAndP95(values);
      a.mean.*member = mean;
      a.p95.*member = p95;
    };
    for (auto member : kMeasureFields)
      field(member);
    out.push_back(std::move(a));
  }
  return out;
}

double quantileOrNever(std::vector<std::optional<double>> values, double q) {
  constexpr double kNever = std::numeric_limits<double>::infinity();
  if (values.empty())
    return kNever;
  std::vector<double> v;
  for (const auto& x : values)
    v.push_back(x.value_or(kNever));
  std::sort(v.begin(), v.end());
  const auto rank = static_cast<std::size_t>(std::ceil(q * static_cast<double>(v.size())));
  return v[std::clamp<std::size_t>(rank, 1, v.size()) - 1];
}

std::vector<FindingAggregate> aggregateFinding(
    const std::vector<std::vector<PhaseMeasures>>& runs) {
  std::vector<FindingAggregate> out;
  if (runs.empty())
    return out;
  for (std::size_t i = 0; i < runs.front().size(); ++i) {
    std::vector<std::optional<double>> found;
    std::vector<std::optional<double>> afterLost;
    bool measured = false;
    for (const auto& r : runs) {
      if (i >= r.size())
        continue;
      // A phase without a line of sight has no search figure at all.
      measured = measured || r[i].searchS.has_value();
      found.push_back(r[i].foundAfterS);
      afterLost.push_back(r[i].foundAfterLostS);
    }
    if (!measured)
      continue;
    FindingAggregate a;
    a.name = runs.front()[i].name;
    a.runs = found.size();
    a.neverFound = static_cast<std::size_t>(
        std::count_if(found.begin(), found.end(), [](const auto& x) { return !x; }));
    a.foundMedianS = quantileOrNever(found, 0.5);
    a.foundP90S = quantileOrNever(found, 0.9);
    a.afterLostMedianS = quantileOrNever(afterLost, 0.5);
    a.afterLostP90S = quantileOrNever(afterLost, 0.9);
    out.push_back(a);
  }
  return out;
}

}  // namespace Sim
}  // namespace KR
