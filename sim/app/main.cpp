// krtracker-sim: the tracker on a simulated robot. See `krtracker-sim --help`.

#include <algorithm>
#include <cstdlib>
#include <iomanip>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <app/cli.h>
#include <krsim/report/snapshot.h>
#include <krsim/run/simulation.h>
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

  // Pictures need an X display (Xvfb on a headless machine): refused before anything runs.
  const bool snapshots = std::find(args.begin(), args.end(), "--snapshots") != args.end();
  const char* display = std::getenv("DISPLAY");
  if (snapshots && (display == nullptr || *display == '\0')) {
    std::cerr << "krtracker-sim: --snapshots needs an X display; on a headless machine run under "
                 "Xvfb, e.g. xvfb-run -a krtracker-sim ...\n";
    return 2;
  }

  // --snapshots: one picture per phase boundary, numbered in the order they were taken. The
  // renderer opens its off-screen context on the first picture, on the simulating thread.
  std::unique_ptr<KR::Sim::SnapshotRenderer> renderer;
  int taken = 0;
  KR::Sim::RunHooks hooks;
  hooks.snapshot = [&](KR::Sim::Simulation& sim, const std::string& folder,
                       const std::string& label) {
    if (!renderer)
      renderer =
          std::make_unique<KR::Sim::SnapshotRenderer>(sim.robot(), sim.description().urdf.get());
    std::ostringstream path;
    std::string name = label;
    std::replace(name.begin(), name.end(), ' ', '-');
    path << folder << "/" << std::setw(2) << std::setfill('0') << ++taken << "-" << name << ".png";
    renderer->write(sim, path.str());
  };
  return KR::Sim::runCommandLine(args, std::cout, std::cerr, &KR::Sim::createTrackerModules, hooks);
}
