#pragma once
// The robot side of a run over DDS ("krtracker-sim remote-robot"): the simulated robot (clock,
// motion, memory, robot model, world) and the tracking service's eight sub-modules, published
// to the domain, playing the scenario in real time while "KRTracker" runs in the other process
// (tracker_side.h). The run itself is an ordinary single run (run_loop.h) given what this
// class provides: the sub-modules' factory, the actions adapted to a remote tracker, and the
// reason to stop when the tracking service is gone.

#include <iosfwd>
#include <memory>
#include <string>

#include <krsim/remote/session.h>
#include <krsim/run/run_config.h>
#include <krsim/run/scenario.h>
#include <krsim/tracking/context.h>

namespace KR {
namespace Sim {

class RobotSide {
 public:
  /// `config` and `scenario` describe the run to the tracking service.
  RobotSide(const RunConfig& config, const Scenario& scenario, SessionTimes times,
            std::ostream& out);
  ~RobotSide();
  RobotSide(const RobotSide&) = delete;
  RobotSide& operator=(const RobotSide&) = delete;

  /// The sub-modules read this process's configuration table while the actions change the
  /// tracker's: after each action the table here takes the tracker's values. An action whose
  /// call fails because the tracking service is gone ends the run (stopReason) rather than
  /// failing it; none runs once it is gone.
  void adapt(Scenario& scenario);
  /// The factory of the run's sub-modules: it joins the domain on the run's broker, claims the
  /// topic prefix (SessionEnd(2) when another robot side is on it) and publishes the robot's
  /// modules.
  SubModuleFactory modules();
  /// Waits for the tracking service (SessionEnd as RemoteSession::waitForPeer).
  void waitForTracker();
  /// Why the run must stop now, empty while the tracking service is there.
  std::string stopReason() const;
  /// Tells the tracking service how the run ended.
  void tellTracker(const std::string& status);
  /// Leaves the domain.
  void close();

 private:
  bool xGoneWithin(double seconds) const;

  KRValue fDescription;
  KRRemoteOptions fOptions;
  SessionTimes fTimes;
  std::ostream& fOut;
  std::unique_ptr<RemoteSession> fSession;  // made by the factory, on the run's broker
};

}  // namespace Sim
}  // namespace KR
