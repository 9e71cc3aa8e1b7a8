#pragma once
// ScenarioRun: plays a scenario on a simulation and measures it. Each step it records a
// sample (robot, joints commanded and measured, the current phase's target, the observation
// as the tracker received it, the tracker's state, line-of-sight and pointing errors), streams
// it to the CSV if one is given, and feeds it to the phase's meter (krsim/run/measures.h); nothing
// grows with the length of the run.
//
// - line of sight: angle between the x axis of the head camera that the world uses and the
//   direction from that camera to the target;
// - tracked: the tracker's own state, from its events: a detection since its last loss;
// - pointing: angle between a forearm's x axis and the direction from the elbow to the
//   target, for the arms the phase's effector commands, once the phase has settled, while
//   the target lies within the arm's reach (its shoulder angles toward it within limits);
// - relative position: the target in the robot frame against the requested offset;
// - localisation: the tracker's landmark-based robot position against the true pose, asked
//   once per second.

#include <cstddef>
#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <krsim/run/measures.h>
#include <krsim/run/scenario.h>
#include <krsim/run/simulation.h>

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
  bool tracked = false;  // the tracker's state: detected since its last loss
  float lineOfSightDeg = 0.0f;
  float horizontalDeg = 0.0f;    // signed horizontal part, positive: target to the left
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

/// The measures of a phase (krsim/run/measures.h) and the follow and localisation figures of the
/// phases that ask for them.
struct PhaseSummary {
  PhaseMeasures measures;
  double begin = 0.0;
  double end = 0.0;
  ErrorStats relativeErrorM;
  ErrorStats localisationM;
  ErrorStats localisationDeg;
  std::size_t localisationMissing = 0;  // answers without a position
};

class ScenarioRun {
 public:
  using Progress = std::function<void(const std::string& line)>;
  using PhaseHook = std::function<void(const std::string& label)>;

  /// Builds the simulation for the scenario (robot, start pose, drift, targets); `base`
  /// gives the seed, the noise, the perception settings and the sub-module factory.
  ScenarioRun(Scenario scenario, SimulationConfig base);

  const Scenario& scenario() const { return fScenario; }
  Simulation& simulation() { return *fSim; }
  void setProgress(Progress progress, double statusPeriodSeconds = 5.0);
  /// Streams one CSV line per step to `out` (the header at once); the stream must outlive
  /// the run.
  void setCsv(std::ostream* out);
  /// Called at the start of each phase and at the end of the run with the phase's name (or
  /// "end"), e.g. to take a picture of the scene.
  void setPhaseHook(PhaseHook hook) { fPhaseHook = std::move(hook); }
  /// Called with every sample.
  void setSampleObserver(std::function<void(const Sample&)> observer) {
    fSampleObserver = std::move(observer);
  }

  /// Runs the actions that are due, one simulation step, and records it. False once the
  /// scenario's duration is over (nothing is done then).
  bool step();
  void runToEnd();
  bool finished() const;
  /// Seconds simulated so far.
  double simulatedSeconds() const;

  const Sample& lastSample() const { return fLast; }
  /// The phases reached so far, measured up to now.
  std::vector<PhaseSummary> summaries() const;
  /// The CSV columns: the sample, then each joint commanded and measured.
  std::string csvHeader() const;

 private:
  void xRecord();
  void xEvents();
  void xReport();
  void xWriteCsv(const Sample& s);
  bool xInReach(const std::string& arm, const Math::Position3D& torsoTarget) const;

  Scenario fScenario;
  // Written by the observation subscribers; declared before the simulation that calls them.
  mutable std::mutex fObservationMutex;
  std::string fObservation;  // the last observation received during the current step
  std::unique_ptr<Simulation> fSim;
  std::size_t fNextAction = 0;
  Sample fLast;
  std::vector<PhaseMeter> fMeters;
  std::vector<PhaseSummary> fExtra;  // follow and localisation
  std::vector<bool> fReached;
  int fPhase = -1;
  bool fTrackerTracked = false;
  bool fTrackerLost = false;
  long fLastLocalisationSecond = -1;
  std::vector<std::string> fJoints;
  std::map<std::string, std::string> fObservations;  // observation events followed
  std::ostream* fCsv = nullptr;
  std::string fStepEvents;  // the tracker's events of the current step, for the CSV
  PhaseHook fPhaseHook;
  std::function<void(const Sample&)> fSampleObserver;
  // Progress.
  Progress fProgress;
  double fStatusPeriod = 5.0;
  double fNextStatus = 0.0;
};

/// The summary table printed at the end of a run: one narrow row per phase, the events
/// listed below it.
std::string formatSummary(const std::vector<PhaseSummary>& summaries);
/// The table of a many-seed run: a mean and a 95th-percentile row per phase; one row per phase,
/// unlabelled, when `seeds` is 1.
std::string formatSeedSummary(const std::vector<SeedAggregate>& phases, std::size_t seeds);

}  // namespace Sim
}  // namespace KR
