// krtracker.Simulation's event callbacks: subscribed on the memory service by event name,
// queued by whichever thread raises the event, run on the stepping thread with the GIL. A
// callback that raises is reported through sys.unraisablehook (by default its traceback on
// stderr) and counted; the run goes on.

#include <thread>
#include <vector>

#include "simulation.h"
#include "values.h"

namespace KR {
namespace Py {

int Simulation::onEvent(const std::string& name, py::function callback) {
  if (name.empty())
    throw py::value_error("on_event: name expects an event's name, e.g. 'KRTracker/TargetLost'");
  {
    py::gil_scoped_release release;
    std::lock_guard<std::recursive_mutex> lock(fMutex);
    Sim::ScenarioRun& run = xRun();
    if (fSubscriptions.count(name) == 0) {
      std::shared_ptr<EventQueue> queue = fEvents;
      fSubscriptions[name] = run.simulation().memory().subscribe(
          name,
          [queue](const std::string& event, const KRValue& value) { queue->push(event, value); });
    }
  }
  const int id = fNextCallback++;
  fCallbacks[id] = Callback{name, std::move(callback)};
  return id;
}

void Simulation::removeCallback(int id) {
  if (fCallbacks.erase(id) == 0)
    throw py::key_error("remove_callback: no callback " + std::to_string(id));
}

void Simulation::xDeliver() {
  auto events = fEvents->take();
  if (events.empty())
    return;
  // The callbacks as they are now: one may add or remove others while it runs.
  std::vector<Callback> callbacks;
  for (const auto& entry : fCallbacks)
    callbacks.push_back(entry.second);
  fDeliveringThread = std::this_thread::get_id();
  struct Reset {
    std::thread::id& thread;
    ~Reset() { thread = std::thread::id(); }
  } reset{fDeliveringThread};
  for (const auto& [name, value] : events) {
    for (const auto& callback : callbacks) {
      if (callback.event != name)
        continue;
      try {
        callback.function(toPython(value));
      } catch (py::error_already_set& e) {
        // Ctrl-C and exit are the user's, not the callback's fault: they stop the run.
        if (!e.matches(PyExc_Exception))
          throw;
        ++fCallbackErrors;
        e.discard_as_unraisable(callback.function);
      }
    }
  }
}

void Simulation::close() {
  {
    py::gil_scoped_release release;
    std::lock_guard<std::recursive_mutex> lock(fMutex);
    fRun.reset();
  }
  fEvents->take();
  fCallbacks.clear();
}

int Simulation::traverse(visitproc visit, void* arg) {
  for (const auto& entry : fCallbacks)
    Py_VISIT(entry.second.function.ptr());
  return 0;
}

void Simulation::clear() {
  // Moved out first: releasing a callback may run Python code that looks at the simulation.
  auto callbacks = std::move(fCallbacks);
  fCallbacks.clear();
  callbacks.clear();
}

}  // namespace Py
}  // namespace KR
