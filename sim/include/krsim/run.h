#pragma once
// ScenarioRun: plays a scenario on a simulation and measures it. Each step it records a
// sample (robot, head, the current phase's target, line-of-sight and pointing errors) and it
// sums every phase up at the end.
//
// Measures:
// - line of sight: angle between the x axis of the head camera that the world uses and the
//   direction from that camera to the target;
// - acquisition: the target is on target once perceived and within the phase's
//   acquireDegrees; "time to acquire" runs from the moment the target was last perceived
//   anew to the first acquisition of the phase. It is "tracked" from then on while perceived;
// - pointing: angle between a forearm's x axis and the direction from the elbow to the
//   target, counted once the phase has settled, while the target is tracked (or, in one-shot
//   phases, at any time) and lies within the arm's reach (its shoulder angles toward the
//   target within limits);
// - relative position: the target in the robot frame against the requested offset;
// - localisation: the tracker's landmark-based robot position against the true pose, asked
//   once per second.

#include <cstddef>
#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <krsim/scenario.h>
#include <krsim/simulation.h>

namespace KR {
namespace Sim {

struct Sample {
  double time = 0.0;   // [s]
  int phase = -1;      // index in the scenario's phases, -1 outside them
  Math::Pose2D robot;  // map frame
  float headYaw = 0.0f;
  float headPitch = 0.0f;
  bool hasTarget = false;
  Math::Position3D target;    // map frame
  float bearingYaw = 0.0f;    // target seen from the head's pivot, torso frame [rad]
  float bearingPitch = 0.0f;  // positive looks down, like the head pitch [rad]
  bool inView = false;
  bool perceived = false;
  bool tracked = false;
  float lineOfSightDeg = 0.0f;
  float leftArmDeg = -1.0f;      // -1: not measured
  float rightArmDeg = -1.0f;     // -1: not measured
  float relativeErrorM = -1.0f;  // -1: not measured
};

/// Root mean square and maximum of a series.
struct ErrorStats {
  std::size_t count = 0;
  double sumSquares = 0.0;
  double max = 0.0;
  void add(double v);
  double rms() const;
};

struct PhaseSummary {
  std::string name;
  double begin = 0.0;
  double end = 0.0;
  double acquireSeconds = -1.0;  // -1: never acquired
  ErrorStats lineOfSightDeg;
  ErrorStats armDeg;
  ErrorStats relativeErrorM;
  ErrorStats localisationM;
  ErrorStats localisationDeg;
  std::size_t localisationMissing = 0;  // answers without a position
  /// Events raised during the phase, in order of first appearance; observations and the
  /// smoother's per-step streams (Namer::getNameLooker(), getNameMove()) are left out.
  std::vector<std::pair<std::string, std::size_t>> events;
};

class ScenarioRun {
 public:
  using Progress = std::function<void(const std::string& line)>;

  /// Builds the simulation for the scenario (robot, start pose, drift, targets); `base`
  /// gives the seed, the noise and the sub-module factory.
  ScenarioRun(Scenario scenario, SimulationConfig base);

  const Scenario& scenario() const { return fScenario; }
  Simulation& simulation() { return *fSim; }
  void setProgress(Progress progress, double statusPeriodSeconds = 5.0);

  /// Runs the actions that are due, one simulation step, and records it. False once the
  /// scenario's duration is over (nothing is done then).
  bool step();
  void runToEnd();
  bool finished() const;

  const std::vector<Sample>& samples() const { return fSamples; }
  std::vector<PhaseSummary> summaries() const;
  /// One line per step; the same scenario and seed give the same bytes.
  void writeCsv(std::ostream& out) const;
  static std::string csvHeader();

 private:
  void xRecord();
  void xReport();
  bool xInReach(const std::string& arm, const Math::Position3D& torsoTarget) const;

  Scenario fScenario;
  std::unique_ptr<Simulation> fSim;
  std::size_t fNextAction = 0;
  std::vector<Sample> fSamples;
  // Acquisition state of the current phase.
  int fPhase = -1;
  bool fAcquired = false;
  double fPerceivedSince = -1.0;
  std::vector<double> fAcquireSeconds;
  std::vector<std::vector<std::pair<double, double>>> fLocalisation;  // per phase: m, deg
  std::vector<std::size_t> fLocalisationMissing;
  long fLastLocalisationSecond = -1;
  // Progress.
  Progress fProgress;
  double fStatusPeriod = 5.0;
  double fNextStatus = 0.0;
  std::size_t fHistorySeen = 0;
};

/// The summary table printed at the end of a run.
std::string formatSummary(const std::vector<PhaseSummary>& summaries);

}  // namespace Sim
}  // namespace KR
