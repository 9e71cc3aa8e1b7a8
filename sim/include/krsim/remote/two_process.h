#pragma once
// The simulated robot as two processes talking over DDS: the robot side (clock, motion,
// memory, robot model, world and the eight sub-modules of the tracking service) runs the
// scenario in real time; the tracking service ("KRTracker" and its GenericTracker) runs in a
// process of its own and reaches the robot's modules by name.
//
//   krtracker-sim remote-tracker                 # start first (or second: each waits)
//   krtracker-sim remote-robot [scenario]        # plays the scenario, prints its summary
//
// Both take the topic prefix from KRTRACKER_REMOTE_PREFIX and stay on the loopback interface
// (no multicast, 127.0.0.1 as the one peer) unless KRTRACKER_DDS_CONFIG names another network.

#include <iosfwd>
#include <string>

#include <krsim/run/run_config.h>
#include <krsim/run/scenario.h>

namespace KR {
namespace Sim {

/// Hosts "KRTracker" until the robot side leaves (or `maxSeconds` pass). Returns 0 on a
/// normal end, 1 when the robot's modules never appeared.
int runRemoteTrackingService(std::ostream& out, std::ostream& err, double maxSeconds = 3600.0);

/// Plays `scenario` (prepared for `config`, see run_setup.h) in real time on the robot side,
/// with the tracking service in another process, and prints the summary. Returns 0, or 1
/// when the service never appeared.
int runRemoteRobot(const RunConfig& config, Scenario scenario, std::ostream& out,
                   std::ostream& err);

}  // namespace Sim
}  // namespace KR
