// krtracker-sim: the tracker on a simulated robot. See `krtracker-sim --help`.

#include <iostream>
#include <string>
#include <vector>

#include <app/cli.h>
#include <krsim/tracking/context.h>

#if defined(__SANITIZE_THREAD__)
// Cyclone DDS (remote-tracker, remote-robot) is not built with ThreadSanitizer: its own atomics
// and lock-free queues show as races inside the library. Races in our own code still show.
extern "C" const char* __tsan_default_suppressions() {
  return "race:libddsc.so\ncalled_from_lib:libddsc.so\n";
}
#endif

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  return KR::Sim::runCommandLine(args, std::cout, std::cerr, &KR::Sim::createTrackerModules);
}
