#pragma once
// krtracker.Simulation: the simulated robot stepped from Python on the simulated clock, with
// or without a scenario; krtracker.run: one whole run of a scenario, as the command line does
// it.
//
// Threads and the GIL: the steps, the tracker's calls and the building of the robot run without
// the GIL, under the simulation's own (recursive) lock, which is taken with the GIL released
// (but by the destructor, when no other thread can hold the simulation). The memory events that
// callbacks wait for are queued by whichever thread raises them (the stepping thread, the broker's
// worker) and handed to the callbacks on the stepping thread after each 10 ms step, the GIL taken
// again, so that a callback may call the tracker or move a target between two steps.

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <pybind11/pybind11.h>

#include <krsim/report/sample_series.h>
#include <krsim/run/run_config.h>
#include <krsim/run/scenario_run.h>

#include "proxy.h"

namespace KR {
namespace Py {

namespace py = pybind11;

/// The settings of a run as Python gives them (krtracker.Simulation's and run()'s keywords).
struct RunOptions {
  py::object scenario;  // None or a name or a file
  py::object robot;     // None, a name, a path or a krtracker.Robot
  std::string physics = "mujoco";
  double latency = 0.08;
  double cameraRate = 15.0;
  double dropout = 0.0;
  bool compensation = true;
  long long seed = 1;
  std::optional<double> duration;
  std::optional<std::string> mode;
  std::optional<std::string> effector;
  double noise = 0.0;
};

/// The RunConfig of `options`, validated: ValueError naming the keyword for a value out of its
/// range.
Sim::RunConfig runConfigOf(const RunOptions& options);
/// The keyword's name in place of the command line's option in a message of the library.
std::string withKeywordNames(std::string message);

/// Events raised by any thread, waiting for the stepping thread to hand them to callbacks.
class EventQueue {
 public:
  void push(const std::string& name, const KRValue& value);
  std::vector<std::pair<std::string, KRValue>> take();
  bool empty() const;

 private:
  mutable std::mutex fMutex;
  std::vector<std::pair<std::string, KRValue>> fEvents;
};

class Simulation {
 public:
  /// Builds the robot, its services, the tracking service and the scenario (an empty world
  /// without one). Called without the GIL.
  Simulation(Sim::RunConfig config, bool withScenario, bool recordSeries);
  ~Simulation();
  Simulation(const Simulation&) = delete;
  Simulation& operator=(const Simulation&) = delete;

  /// Steps for `seconds` of simulated time, in 10 ms steps; the callbacks run after each.
  void step(double seconds);
  /// Steps to the end of the scenario's script.
  void runToEnd();
  double time();
  bool finished();
  std::string scenarioName();

  py::object tracker(py::object self);
  py::object proxy(py::object self, const std::string& module);

  void addTarget(const std::string& name, const std::string& kind, py::object position);
  void moveTarget(const std::string& name, py::object position);
  void hideTarget(const std::string& name, bool hidden);
  std::vector<std::string> targetNames();
  double lineOfSight(const std::optional<std::string>& target);

  int onEvent(const std::string& name, py::function callback);
  void removeCallback(int id);
  long callbackErrors() const { return fCallbackErrors; }

  py::dict summary();
  py::dict series();
  void close();

  /// The garbage collector's view of the callbacks, which may refer back to the simulation.
  int traverse(visitproc visit, void* arg);
  void clear();

 private:
  struct Callback {
    std::string event;
    py::function function;
  };

  /// The run; RuntimeError once closed. Caller holds fMutex.
  Sim::ScenarioRun& xRun();
  /// Hands the queued events to their callbacks; caller holds the GIL.
  void xDeliver();
  /// Runs `steps` steps or to the end of the script, delivering events after each.
  void xSteps(long steps);
  CallRoute xRoute(const std::string& module);

  std::recursive_mutex fMutex;
  Sim::RunConfig fConfig;
  std::unique_ptr<Sim::ScenarioRun> fRun;
  std::shared_ptr<Sim::SampleSeries> fSeries;
  std::shared_ptr<EventQueue> fEvents = std::make_shared<EventQueue>();
  std::map<std::string, int> fSubscriptions;  // memory subscription by event name
  std::map<int, Callback> fCallbacks;         // guarded by the GIL
  int fNextCallback = 1;
  long fCallbackErrors = 0;
  std::thread::id fDeliveringThread;  // the thread running callbacks, if one is
  double fCpuS = 0.0;                 // CPU time spent stepping [s]
};

void bindSimulation(py::module_& m);

}  // namespace Py
}  // namespace KR
