#pragma once
// ScenarioRun: plays a scenario on a simulation and measures it. Each step it records a
// sample (krsim/run/sample.h: robot, joints commanded and measured, the current phase's target,
// the observation as the tracker received it, the tracker's state, line-of-sight and pointing
// errors), hands it to its observers (e.g. the CSV, krsim/report/csv_writer.h) and feeds it to
// the phase's meter (krsim/run/measures.h); nothing grows with the length of the run.
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

#include <array>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <kr/value/krvalue.h>

#include <krsim/run/measures.h>
#include <krsim/run/phase_summary.h>
#include <krsim/run/sample.h>
#include <krsim/run/scenario.h>
#include <krsim/run/simulation.h>

namespace KR {
namespace Sim {

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
  /// Called at the start of each phase and at the end of the run with the phase's name (or
  /// "end"), once the sample of that step is recorded (lastSample()), e.g. to take a picture
  /// of the scene.
  void setPhaseHook(PhaseHook hook) { fPhaseHook = std::move(hook); }
  /// Called with every sample, after the observers added before it.
  void addSampleObserver(std::function<void(const Sample&)> observer) {
    fSampleObservers.push_back(std::move(observer));
  }

  /// Runs the actions that are due, one simulation step, and records it. False once the
  /// scenario's duration is over (nothing is done then).
  bool step();
  void runToEnd();
  bool finished() const;
  /// Seconds simulated so far.
  double simulatedSeconds() const;

  /// Samples outside every phase (all of them in a scenario without phases) measure the line of
  /// sight to this target of the world; empty: they measure nothing.
  void followTarget(const std::string& name) { fFollowed = name; }
  const std::string& followedTarget() const { return fFollowed; }
  /// The line-of-sight error to a target of the world now [deg]; KRError for an unknown name.
  double lineOfSightDeg(const std::string& target);

  const Sample& lastSample() const { return fLast; }
  /// The phases reached so far, measured up to now.
  std::vector<PhaseSummary> summaries() const;
  /// The joints of the samples' joint values, in their order.
  const std::vector<std::string>& jointNames() const { return fJoints; }

 private:
  void xEvents();
  void xRecord();
  // The parts of a sample, each recorded by one function.
  int xPhaseAt(double time) const;
  void xEnterPhase(int phase);
  void xMeasure(Sample& s);
  /// The target's state, position and line of sight; returns the target in the torso frame.
  Math::Position3D xTarget(Sample& s, const std::string& name);
  void xLineOfSight(Sample& s, const Math::Position3D& inTorso);
  void xPointing(Sample& s, const Phase& phase, const Math::Position3D& inTorso, MeasureSample& m);
  void xRelativePosition(Sample& s, const std::array<float, 6>& requested, PhaseSummary& extra);
  void xLocalisation(const Sample& s, const Phase& phase, PhaseSummary& extra);
  void xStepDetails(Sample& s);
  void xDetection(Sample& s, const KRValue& observation) const;
  void xReport();
  bool xInReach(const std::string& arm, const Math::Position3D& torsoTarget) const;

  Scenario fScenario;
  // Written by the observation subscribers; declared before the simulation that calls them.
  mutable std::mutex fObservationMutex;
  std::optional<KRValue> fObservation;  // the last observation received during the current step
  std::unique_ptr<Simulation> fSim;
  std::size_t fNextAction = 0;
  Sample fLast;
  std::vector<PhaseMeter> fMeters;
  std::vector<PhaseSummary> fExtra;  // follow and localisation
  std::vector<bool> fReached;
  int fPhase = -1;
  bool fTrackerTracked = false;
  bool fTrackerLost = false;
  bool fSearching = false;  // between the searcher's start and end events
  long fLastLocalisationSecond = -1;
  std::vector<std::string> fJoints;
  std::map<std::string, std::string> fObservations;  // observation events followed
  std::string fStepEvents;                           // the tracker's events of the current step
  std::string fFollowed;                             // measured outside the phases
  PhaseHook fPhaseHook;
  std::string fPhaseLabel;  // of a phase entered in this step, for the hook
  std::vector<std::function<void(const Sample&)>> fSampleObservers;
  // Progress.
  Progress fProgress;
  double fStatusPeriod = 5.0;
  double fNextStatus = 0.0;
};

}  // namespace Sim
}  // namespace KR
