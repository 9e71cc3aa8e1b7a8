#pragma once
// Runs krtracker-sim's command line in the test's process and keeps what it printed.

#include <sstream>
#include <string>
#include <vector>

#include <krsim/cli.h>
#include <krsim/module.h>

namespace krtest {

struct CommandResult {
  int code;
  std::string out;
  std::string err;
};

/// The command line with `args`, without the tracking service's sub-modules unless given.
inline CommandResult runCli(const std::vector<std::string>& args,
                            const KR::Sim::SubModuleFactory& modules = {}) {
  std::ostringstream out;
  std::ostringstream err;
  const int code = KR::Sim::runCommandLine(args, out, err, modules);
  return {code, out.str(), err.str()};
}

}  // namespace krtest
