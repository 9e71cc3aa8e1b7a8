#pragma once
// The measures of a run, defined once: a PhaseMeter takes the samples of one phase as they are
// produced and sums them up at constant memory. The README's "Measures" section and --help
// describe the same figures.
//
// - visible: the target is inside the camera's field of view and not occluded, so that a camera
//   could see it;
// - on target: the target is visible and the line-of-sight error is under the phase's threshold;
// - time to on-target: from the phase start, and from each loss (the target stops being
//   perceived, or the tracker reports it lost, after it had been on target), to the next
//   sample on target, search included; the longest of these intervals is reported, none when
//   one of them never ends;
// - line of sight: over every sample with the target visible, acquisition included: RMS,
//   95th percentile, max, mean (bias) and standard deviation (jitter) of the error's size;
// - on target [%]: share of the phase's samples on target;
// - step phases: overshoot is how far the camera's horizontal error goes past the target,
//   against the direction of the step; settling is the time from the phase start until the
//   error stays within 1 degree to the phase end, none (never) when it has not stayed there
//   for at least kSettlingHoldS by then: an error still swinging only dips into the band;
// - acquisition: from the target becoming visible to the first detection of it reaching the
//   tracking service; the longest over the phase's appearances;
// - search: the time the searcher spent searching during the phase;
// - line of sight while tracking: RMS of the error from the first detection after each
//   appearance until the target is out of sight again (the turn counts, the wait before the
//   detection does not);
// - found after: from the phase start to the first detection of the visible target; the one
//   after TargetLost is counted from the tracker's first loss in the phase, 0 when the target
//   was found again before the tracker reported a loss;
// - arms: pointing error of the arms the effector commands, RMS over the samples measured.

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace KR {
namespace Sim {

/// One step of a phase as the measures see it.
struct MeasureSample {
  double time = 0.0;         // [s]
  bool perceived = false;    // the camera can see it (in view and not occluded)
  bool trackerLost = false;  // the tracker's own state: lost since its last detection
  bool hasLineOfSight = false;
  double lineOfSightDeg = 0.0;  // size of the error between camera axis and target
  double horizontalDeg = 0.0;   // signed horizontal part of it, positive to the left
  std::vector<double> armDeg;   // one per commanded arm that is measured this step
  bool tracked = false;         // the tracker's own state: detected since its last loss
  bool detected = false;        // an observation reached the tracking service this step
  bool searching = false;       // the searcher is searching
};

struct PhaseSetup {
  std::string name;
  double begin = 0.0;  // [s]
  double onTargetDeg = 3.0;
  bool lineOfSight = true;  // false where only arms point
  bool step = false;        // overshoot and settling apply
};

/// What a phase measured; empty optionals are printed "-" and written null.
struct PhaseMeasures {
  std::string name;
  std::optional<double> timeToOnTargetS;
  std::optional<double> losRmsDeg;
  std::optional<double> losP95Deg;
  std::optional<double> losMaxDeg;
  std::optional<double> losBiasDeg;
  std::optional<double> losJitterDeg;
  std::optional<double> onTargetPct;
  std::optional<double> overshootDeg;
  std::optional<double> settlingS;
  std::optional<double> armsRmsDeg;
  std::optional<double> acquisitionS;
  std::optional<double> searchS;
  std::optional<double> losRmsTrackingDeg;
  std::optional<double> foundAfterS;
  std::optional<double> foundAfterLostS;
  /// Events the tracker raised during the phase, in order of first appearance, with counts.
  std::vector<std::pair<std::string, std::size_t>> events;
};

/// The settling band of step phases [deg].
constexpr double kSettlingDeg = 1.0;
/// How long the error must have stayed in the band by the phase end to count as settled [s].
constexpr double kSettlingHoldS = 0.5;

class PhaseMeter {
 public:
  explicit PhaseMeter(PhaseSetup setup);
  void add(const MeasureSample& s);
  void addEvent(const std::string& name);
  PhaseMeasures result() const;
  const PhaseSetup& setup() const { return fPhase; }

 private:
  // Line-of-sight error sizes by 0.01 degree, for the percentile at constant memory.
  static constexpr double kBinDeg = 0.01;
  static constexpr std::size_t kBins = 18001;

  PhaseSetup fPhase;
  std::size_t fSamples = 0;
  std::size_t fOnTarget = 0;
  // Time to on-target.
  std::optional<double> fWaitingSince;  // phase start or loss not yet followed by on-target
  bool fOnTargetSinceLoss = false;
  double fLongestWait = 0.0;
  // Line of sight.
  std::size_t fLosCount = 0;
  double fLosSum = 0.0;
  double fLosSquares = 0.0;
  double fLosMax = 0.0;
  std::vector<std::size_t> fHistogram;
  // Steps.
  int fStepSign = 0;  // sign of the horizontal error at the first sample in view
  bool fCrossed = false;
  double fOvershoot = 0.0;
  std::optional<double> fSettledSince;
  bool fAnyLos = false;
  // Arms.
  std::size_t fArmCount = 0;
  double fArmSquares = 0.0;
  // Finding.
  void xFinding(const MeasureSample& s, bool measured);
  double fLastTime;
  bool fWasPerceived = false;
  std::optional<double> fAppearedAt;  // visible, not yet detected
  std::optional<double> fLongestAcquisition;
  bool fFollowing = false;  // detected since it last appeared
  std::size_t fTrackingCount = 0;
  double fTrackingSquares = 0.0;
  double fSearchS = 0.0;
  std::optional<double> fFoundAt;
  std::optional<double> fLostAt;  // the tracker's first loss before the first find
  std::vector<std::pair<std::string, std::size_t>> fEvents;
};

/// Every figure of PhaseMeasures, for code that treats them alike.
inline constexpr std::optional<double> PhaseMeasures::*kMeasureFields[] = {
    &PhaseMeasures::timeToOnTargetS,   &PhaseMeasures::losRmsDeg,
    &PhaseMeasures::losP95Deg,         &PhaseMeasures::losMaxDeg,
    &PhaseMeasures::losBiasDeg,        &PhaseMeasures::losJitterDeg,
    &PhaseMeasures::onTargetPct,       &PhaseMeasures::overshootDeg,
    &PhaseMeasures::settlingS,         &PhaseMeasures::armsRmsDeg,
    &PhaseMeasures::acquisitionS,      &PhaseMeasures::searchS,
    &PhaseMeasures::losRmsTrackingDeg, &PhaseMeasures::foundAfterS,
    &PhaseMeasures::foundAfterLostS};

/// A phase over many seeds: the mean and the 95th percentile of each figure across them.
struct SeedAggregate {
  PhaseMeasures mean;
  PhaseMeasures p95;
};

/// Phases matched by position over runs of the same scenario with different seeds.
std::vector<SeedAggregate> aggregateSeeds(const std::vector<std::vector<PhaseMeasures>>& runs);

/// How fast a phase's target was found over many seeds. A run that never found it counts as
/// infinitely late: a percentile that falls on such runs is infinite ("never").
struct FindingAggregate {
  std::string name;
  std::size_t runs = 0;
  std::size_t neverFound = 0;
  double foundMedianS = 0.0;
  double foundP90S = 0.0;
  double afterLostMedianS = 0.0;
  double afterLostP90S = 0.0;
};

/// Phases matched by position, as aggregateSeeds; only the phases with a line of sight.
std::vector<FindingAggregate> aggregateFinding(const std::vector<std::vector<PhaseMeasures>>& runs);

/// The q-quantile (0 < q <= 1) by nearest rank of values where none stands for infinity;
/// infinity for no values.
double quantileOrNever(std::vector<std::optional<double>> values, double q);

/// Mean and 95th percentile (nearest rank) of the values present; none when none is.
std::pair<std::optional<double>, std::optional<double>> meanAndP95(
    const std::vector<std::optional<double>>& values);

}  // namespace Sim
}  // namespace KR
