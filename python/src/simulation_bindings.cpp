// krtracker.Simulation and krtracker.run as Python sees them: keywords, docstrings, properties.

#include <pybind11/stl.h>

#include "gc_support.h"
#include "simulation.h"

namespace KR {
namespace Py {

namespace {

const char* const kSimulationDoc =
    R"(A simulated robot on the simulated clock, the tracking service running on it.

With a scenario ('ball', 'face', 'people', 'navigate', 'landmarks', 'pursuit', 'oneshot',
'step', or the path of a scenario file) it plays that scenario's script and measures its
phases; without one it starts with an empty world and the script is yours: add targets, call
the tracker, step. Positions are in metres in the world (map) frame, angles in degrees where
the name says so, times in seconds of simulated time.

    sim = krtracker.Simulation(latency=0.05)
    sim.add_target("ball", "RedBall", [1.5, 0.3, 0.5])
    sim.tracker.registerTarget("RedBall", 0.06)
    sim.tracker.track("RedBall")
    sim.on_event("KRTracker/TargetLost", lambda value: print("lost at", sim.time))
    sim.step(2.0)
    sim.line_of_sight()             # [deg]

Keywords: robot ('kibo', 'rover', 'lumen', a description file, a URDF's mapping file or a
krtracker.Robot; None: the scenario's robot, kibo without one), physics ('mujoco' or
'kinematic'), latency [s] from capture to delivery of a detection, camera_rate [Hz], dropout
(probability that a frame misses the target), compensation (the tracking service's latency
compensation), seed (of the camera's noise), duration [s] (None: the scenario's own; a week
without one), mode and effector (replace the scenario's), noise [m] (extra noise on each
coordinate of a detection). A value out of its range raises ValueError naming the keyword.

Use it as a context manager, or call close(), to stop the robot at a known point.
)";

const char* const kRunDoc =
    R"(Runs a scenario to its end, as krtracker-sim does, and returns its summary: the
dict of the JSON summary ('scenario', 'robot', 'seed', ..., 'phases': one dict per phase with
its measures). The keywords are krtracker.Simulation's.

    krtracker.run("ball", seed=1)["phases"][0]["los_rms_deg"]
)";

/// Builds a simulation from the keywords without the GIL (the robot's physics takes a while).
std::unique_ptr<Simulation> makeSimulation(const RunOptions& options, bool recordSeries) {
  Sim::RunConfig config = runConfigOf(options);
  const bool withScenario = !options.scenario.is_none();
  py::gil_scoped_release release;
  return std::make_unique<Simulation>(std::move(config), withScenario, recordSeries);
}

RunOptions optionsOf(py::object scenario, py::object robot, std::string physics, double latency,
                     double cameraRate, double dropout, bool compensation, long long seed,
                     std::optional<double> duration, std::optional<std::string> mode,
                     std::optional<std::string> effector, double noise) {
  return RunOptions{std::move(scenario),
                    std::move(robot),
                    std::move(physics),
                    latency,
                    cameraRate,
                    dropout,
                    compensation,
                    seed,
                    duration,
                    std::move(mode),
                    std::move(effector),
                    noise};
}

py::dict run(py::object scenario, py::object robot, std::string physics, double latency,
             double cameraRate, double dropout, bool compensation, long long seed,
             std::optional<double> duration, std::optional<std::string> mode,
             std::optional<std::string> effector, double noise) {
  if (scenario.is_none())
    throw py::type_error("run: scenario expects a scenario's name or file");
  auto sim = makeSimulation(
      optionsOf(std::move(scenario), std::move(robot), std::move(physics), latency, cameraRate,
                dropout, compensation, seed, duration, std::move(mode), std::move(effector), noise),
      false);
  sim->runToEnd();
  py::dict summary = sim->summary();
  sim->close();
  return summary;
}

void defineSteps(py::class_<Simulation>& cls) {
  cls.def("step", &Simulation::step, py::arg("seconds") = 0.01,
          "Advances the simulation by `seconds` of simulated time, in 10 ms control steps "
          "(rounded to the nearest step); the event callbacks run after each step. A scenario "
          "stops at the end of its script; stepping past it raises RuntimeError.")
      .def("run_to_end", &Simulation::runToEnd, "Steps to the end of the scenario's script.")
      .def_property_readonly("time", &Simulation::time, "Simulated seconds since the start.")
      .def_property_readonly("finished", &Simulation::finished,
                             "Whether the scenario's script is over.")
      .def_property_readonly("scenario", &Simulation::scenarioName,
                             "The scenario's name ('empty' without one).")
      .def_property_readonly(
          "tracker", [](py::object self) { return self.cast<Simulation&>().tracker(self); },
          "The tracking service 'KRTracker' (a krtracker.Tracker): every method of the tracker "
          "under its own name.")
      .def(
          "proxy",
          [](py::object self, const std::string& module) {
            return self.cast<Simulation&>().proxy(self, module);
          },
          py::arg("module"),
          "A module of the simulated robot by its name: 'KRMotion', 'KRMemory', "
          "'KRRobotModel', 'KRTracker' or one of the tracking service's sub-modules.");
}

void defineWorld(py::class_<Simulation>& cls) {
  cls.def("add_target", &Simulation::addTarget, py::arg("name"), py::arg("kind"),
          py::arg("position"),
          "Adds a target to the world at `position`, [x, y, z] in metres in the world frame. "
          "kind: RedBall, Face, People, Sound or LandMarks. Without a scenario the first target "
          "added is the one the samples (series()) and line_of_sight() measure.")
      .def("move_target", &Simulation::moveTarget, py::arg("name"), py::arg("position"),
           "Moves a target to `position` [x, y, z] (metres, world frame) from now on.")
      .def("hide_target", &Simulation::hideTarget, py::arg("name"), py::arg("hidden") = true,
           "Hides a target from the camera from now on (hidden=False shows it again).")
      .def_property_readonly("targets", &Simulation::targetNames,
                             "The names of the world's targets.")
      .def("line_of_sight", &Simulation::lineOfSight, py::arg("target") = py::none(),
           "The angle between the camera's axis and the direction to a target now [deg]; by "
           "default the followed target (the first added), else the current phase's.");
}

void defineResults(py::class_<Simulation>& cls) {
  cls.def("on_event", &Simulation::onEvent, py::arg("name"), py::arg("callback"),
          "Calls callback(value) for each memory event of that name (e.g. "
          "'KRTracker/TargetLost'), after the step that raised it. Returns an id for "
          "remove_callback(). A callback that raises is reported (sys.unraisablehook: its "
          "traceback on stderr) and counted in callback_errors; the run goes on.")
      .def("remove_callback", &Simulation::removeCallback, py::arg("id"),
           "Removes a callback added by on_event().")
      .def_property_readonly("callback_errors", &Simulation::callbackErrors,
                             "How many callbacks raised so far.")
      .def("summary", &Simulation::summary,
           "The JSON summary's dict for the phases reached so far (none without a scenario).")
      .def("series", &Simulation::series,
           "The samples so far, one element per 10 ms step: {column: NumPy array}, the CSV's "
           "columns and names. Numbers are float64 (NaN where the CSV's cell is empty), "
           "phase_index int64, and phase, events and observation arrays of str.")
      .def("close", &Simulation::close,
           "Stops the tracker and the robot; the simulation cannot be used any more.")
      .def("__enter__", [](py::object self) { return self; })
      .def("__exit__", [](Simulation& self, py::args) { self.close(); });
}

}  // namespace

void bindSimulation(py::module_& m) {
  py::class_<Simulation> cls(m, "Simulation", kSimulationDoc, collectable<Simulation>());
  cls.def(py::init([](py::object scenario, py::object robot, std::string physics, double latency,
                      double cameraRate, double dropout, bool compensation, long long seed,
                      std::optional<double> duration, std::optional<std::string> mode,
                      std::optional<std::string> effector, double noise) {
            return makeSimulation(
                optionsOf(std::move(scenario), std::move(robot), std::move(physics), latency,
                          cameraRate, dropout, compensation, seed, duration, std::move(mode),
                          std::move(effector), noise),
                true);
          }),
          py::arg("scenario") = py::none(), py::arg("robot") = py::none(),
          py::arg("physics") = "mujoco", py::arg("latency") = 0.08, py::arg("camera_rate") = 15.0,
          py::arg("dropout") = 0.0, py::arg("compensation") = true, py::arg("seed") = 1,
          py::arg("duration") = py::none(), py::arg("mode") = py::none(),
          py::arg("effector") = py::none(), py::arg("noise") = 0.0);
  defineSteps(cls);
  defineWorld(cls);
  defineResults(cls);

  m.def("run", &run, kRunDoc, py::arg("scenario"), py::kw_only(), py::arg("robot") = py::none(),
        py::arg("physics") = "mujoco", py::arg("latency") = 0.08, py::arg("camera_rate") = 15.0,
        py::arg("dropout") = 0.0, py::arg("compensation") = true, py::arg("seed") = 1,
        py::arg("duration") = py::none(), py::arg("mode") = py::none(),
        py::arg("effector") = py::none(), py::arg("noise") = 0.0);
}

}  // namespace Py
}  // namespace KR
