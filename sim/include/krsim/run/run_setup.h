#pragma once
// What every run checks and loads before it starts, whichever command starts it: the robot
// the run asks for (loaded once), the scenario built for it, the mode against the robot and
// the physics backend's name.

#include <krsim/run/run_config.h>
#include <krsim/run/scenario.h>

namespace KR {
namespace Sim {

/// The scenario of `config` on its robot (Scenario::robot). InputError for a robot or
/// scenario file that cannot be read; KRError("krsim", ...) for a bad scenario, a mode the
/// robot lacks or an unknown physics backend, its message the one line the user reads. The
/// backend itself is not built here: a robot it rejects fails when the run is built.
Scenario prepareScenario(const RunConfig& config);

}  // namespace Sim
}  // namespace KR
