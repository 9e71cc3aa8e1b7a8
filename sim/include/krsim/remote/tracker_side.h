#pragma once
// The tracking service of a run over DDS ("krtracker-sim remote-tracker"): it claims the topic
// prefix, waits for the robot side's modules, then hosts "KRTracker" (with its GenericTracker)
// until the robot side says the run is over, is lost, or a stop signal comes; it then prints
// what it served and writes its JSON summary.
//
// Both sides take the topic prefix from KRTRACKER_REMOTE_PREFIX and stay on the loopback
// interface (no multicast, 127.0.0.1 as the one peer) unless KRTRACKER_DDS_CONFIG names another
// network.

#include <iosfwd>
#include <string>
#include <vector>

#include <krsim/remote/session.h>

namespace KR {
namespace Sim {

/// The modules of the robot side that the tracking service reaches: its services and the
/// tracking service's eight sub-modules.
const std::vector<std::string>& robotModuleNames();

struct TrackerSideOptions {
  std::string json = "out/remote-tracker.json";  // the JSON summary, empty for none
  SessionTimes times;
};

/// Serves one run of the robot side. The caller installs StopSignals and checks the JSON's
/// path. Returns the exit code: 0 when the robot side ended the run (whatever its status),
/// 128 + the signal's number on SIGINT or SIGTERM (the robot side is told), kExitPeerLost when
/// the robot side was lost or left without a word. SessionEnd before the run: the prefix in
/// use (2), no robot side within the wait (kExitNoPeer), a signal while waiting.
int runRemoteTrackingService(const TrackerSideOptions& options, std::ostream& out);

}  // namespace Sim
}  // namespace KR
