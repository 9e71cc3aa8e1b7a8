// krtracker-sim: the tracker on a simulated robot. See `krtracker-sim --help`.

#include <iostream>
#include <string>
#include <vector>

#include <app/cli.h>
#include <krsim/tracking/context.h>

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  return KR::Sim::runCommandLine(args, std::cout, std::cerr, &KR::Sim::createTrackerModules);
}
