// krtracker-sim: the tracker on a simulated robot. See `krtracker-sim --help`.

#include <iostream>
#include <string>
#include <vector>

#include <krsim/cli.h>
#include <krsim/module.h>
#include <krsim/remote.h>

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  // The two processes of a run over DDS (see krsim/remote.h).
  if (!args.empty() && args[0] == "remote-tracker")
    return KR::Sim::runRemoteTrackingService(std::cout, std::cerr);
  if (!args.empty() && args[0] == "remote-robot")
    return KR::Sim::runRemoteRobot(args.size() > 1 ? args[1] : "ball", std::cout, std::cerr);
  return KR::Sim::runCommandLine(args, std::cout, std::cerr, &KR::Sim::createTrackerModules);
}
