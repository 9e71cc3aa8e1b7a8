#pragma once
// The command line of krtracker-sim: runs a scenario of the simulated robot and reports on
// it, or ("angles") prints the joint angles that the library computes for a point without
// simulating anything. Kept in the library so that tests drive it like the program does.

#include <iosfwd>
#include <string>
#include <vector>

#include <krsim/module.h>

namespace KR {
namespace Sim {

/// Exit codes: 0 success, 1 failure while running (plot not drawn, file not written),
/// 2 bad command line or robot description. Errors are one line on `err`.
int runCommandLine(const std::vector<std::string>& args, std::ostream& out, std::ostream& err,
                   const SubModuleFactory& modules);

/// The usage text of --help.
std::string usage();

}  // namespace Sim
}  // namespace KR
