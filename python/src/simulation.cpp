#include "simulation.h"

#include <cmath>
#include <ctime>
#include <sstream>

#include <pybind11/numpy.h>
#include <pybind11/stl.h>
#include <boost/algorithm/string/join.hpp>

#include <kr/error.h>

#include <krsim/report/json_summary.h>
#include <krsim/run/run_loop.h>
#include <krsim/run/run_setup.h>
#include <krsim/tracking/context.h>
#include <krsim/tracking/target_manager.h>

#include "values.h"

namespace KR {
namespace Py {

namespace {

constexpr double kStepS = 0.01;          // one control step [s]
constexpr long kSignalCheckSteps = 100;  // Ctrl-C is looked at every second of simulated time

Math::Position3D positionOf(py::handle position, const std::string& what) {
  const std::string refusal = what + ": position expects [x, y, z], three finite numbers [m]";
  std::vector<double> xyz;
  try {
    xyz = position.cast<std::vector<double>>();
  } catch (const py::cast_error&) {
    throw py::type_error(refusal);
  }
  if (xyz.size() != 3 || !std::isfinite(xyz[0]) || !std::isfinite(xyz[1]) ||
      !std::isfinite(xyz[2])) {
    throw py::value_error(refusal);
  }
  return {static_cast<float>(xyz[0]), static_cast<float>(xyz[1]), static_cast<float>(xyz[2])};
}

/// Steps are whole: a duration rounds to the nearest number of steps.
long stepsOf(double seconds) {
  if (!std::isfinite(seconds) || seconds < 0.0)
    throw py::value_error("step: seconds expects a finite number >= 0");
  return std::lround(seconds / kStepS);
}

}  // namespace

// ---- EventQueue --------------------------------------------------------------------------

void EventQueue::push(const std::string& name, const KRValue& value) {
  std::lock_guard<std::mutex> lock(fMutex);
  fEvents.emplace_back(name, value);
}

std::vector<std::pair<std::string, KRValue>> EventQueue::take() {
  std::lock_guard<std::mutex> lock(fMutex);
  std::vector<std::pair<std::string, KRValue>> events;
  events.swap(fEvents);
  return events;
}

bool EventQueue::empty() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fEvents.empty();
}

// ---- Simulation --------------------------------------------------------------------------

Simulation::Simulation(Sim::RunConfig config, bool withScenario, bool recordSeries)
    : fConfig(std::move(config)) {
  Sim::Scenario scenario;
  try {
    scenario = withScenario ? Sim::prepareScenario(fConfig) : Sim::prepareEmptyScenario(fConfig);
  } catch (const Sim::InputError& e) {
    throw py::value_error(e.what());
  } catch (const KRError& e) {
    throw py::value_error(withKeywordNames(e.message()));
  }
  Sim::SimulationConfig sim;
  static_cast<Sim::SimulationSettings&>(sim) = fConfig;
  sim.modules = &Sim::createTrackerModules;
  const std::clock_t start = std::clock();
  fRun = std::make_unique<Sim::ScenarioRun>(std::move(scenario), std::move(sim));
  if (recordSeries)
    fSeries = Sim::SampleSeries::follow(*fRun);
  fCpuS += static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
}

Simulation::~Simulation() {
  std::lock_guard<std::recursive_mutex> lock(fMutex);
  fRun.reset();
}

Sim::ScenarioRun& Simulation::xRun() {
  if (!fRun)
    throw std::runtime_error("the simulation is closed");
  return *fRun;
}

void Simulation::xSteps(long steps) {
  Sim::ScenarioRun& run = xRun();
  const std::clock_t start = std::clock();
  for (long i = 0; steps < 0 || i < steps; ++i) {
    if (!run.step())
      break;
    const bool signals = (i + 1) % kSignalCheckSteps == 0;
    if (!fEvents->empty() || signals) {
      py::gil_scoped_acquire gil;
      xDeliver();
      if (signals && PyErr_CheckSignals() != 0)
        throw py::error_already_set();
    }
  }
  fCpuS += static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
}

void Simulation::step(double seconds) {
  const long steps = stepsOf(seconds);
  if (fDeliveringThread == std::this_thread::get_id())
    throw std::runtime_error("step: a callback cannot step the simulation that runs it");
  py::gil_scoped_release release;
  std::lock_guard<std::recursive_mutex> lock(fMutex);
  if (steps > 0 && xRun().finished()) {
    std::ostringstream text;
    text << "step: the scenario " << xRun().scenario().name << " ended at "
         << xRun().simulatedSeconds() << " s";
    throw std::runtime_error(text.str());
  }
  xSteps(steps);
}

void Simulation::runToEnd() {
  py::gil_scoped_release release;
  std::lock_guard<std::recursive_mutex> lock(fMutex);
  xSteps(-1);
}

double Simulation::time() {
  py::gil_scoped_release release;
  std::lock_guard<std::recursive_mutex> lock(fMutex);
  return xRun().simulatedSeconds();
}

bool Simulation::finished() {
  py::gil_scoped_release release;
  std::lock_guard<std::recursive_mutex> lock(fMutex);
  return xRun().finished();
}

std::string Simulation::scenarioName() {
  py::gil_scoped_release release;
  std::lock_guard<std::recursive_mutex> lock(fMutex);
  return xRun().scenario().name;
}

CallRoute Simulation::xRoute(const std::string& module) {
  CallRoute route;
  route.call = [this, module](const std::string& method, const std::vector<KRValue>& args) {
    std::lock_guard<std::recursive_mutex> lock(fMutex);
    Sim::Simulation& sim = xRun().simulation();
    KRValue result = sim.broker().getProxy(module)->callValues(method, args);
    sim.broker().waitForPostedCalls();
    return result;
  };
  route.after = [this] { xDeliver(); };
  route.methods = [this, module] {
    py::gil_scoped_release release;
    std::lock_guard<std::recursive_mutex> lock(fMutex);
    return xRun().simulation().broker().getModule(module)->getMethodList();
  };
  return route;
}

py::object Simulation::tracker(py::object self) {
  return makeProxy("KRTracker", xRoute("KRTracker"), std::move(self));
}

py::object Simulation::proxy(py::object self, const std::string& module) {
  {
    py::gil_scoped_release release;
    std::lock_guard<std::recursive_mutex> lock(fMutex);
    xRun().simulation().broker().getProxy(module);  // KRError when there is no such module
  }
  return makeProxy(module, xRoute(module), std::move(self));
}

void Simulation::addTarget(const std::string& name, const std::string& kind, py::object position) {
  const auto& kinds = Sim::TargetManager::supportedKinds();
  if (std::find(kinds.begin(), kinds.end(), kind) == kinds.end()) {
    throw py::value_error("add_target: kind expects one of " + boost::algorithm::join(kinds, ", ") +
                          ", not '" + kind + "'");
  }
  if (name.empty())
    throw py::value_error("add_target: name expects a non-empty name");
  Sim::TargetScript script;
  script.name = name;
  script.kind = kind;
  script.path = Sim::Path::fixed(positionOf(position, "add_target"));
  py::gil_scoped_release release;
  std::lock_guard<std::recursive_mutex> lock(fMutex);
  Sim::ScenarioRun& run = xRun();
  run.simulation().world().addTarget(std::move(script));
  // Without phases to measure, the samples follow the first target added.
  if (run.scenario().phases.empty() && run.followedTarget().empty())
    run.followTarget(name);
}

void Simulation::moveTarget(const std::string& name, py::object position) {
  const Math::Position3D p = positionOf(position, "move_target");
  py::gil_scoped_release release;
  std::lock_guard<std::recursive_mutex> lock(fMutex);
  xRun().simulation().world().moveTarget(name, p);
}

void Simulation::hideTarget(const std::string& name, bool hidden) {
  py::gil_scoped_release release;
  std::lock_guard<std::recursive_mutex> lock(fMutex);
  xRun().simulation().world().setHidden(name, hidden);
}

std::vector<std::string> Simulation::targetNames() {
  py::gil_scoped_release release;
  std::lock_guard<std::recursive_mutex> lock(fMutex);
  std::vector<std::string> names;
  for (const auto& t : xRun().simulation().world().targets())
    names.push_back(t.name);
  return names;
}

double Simulation::lineOfSight(const std::optional<std::string>& target) {
  py::gil_scoped_release release;
  std::lock_guard<std::recursive_mutex> lock(fMutex);
  Sim::ScenarioRun& run = xRun();
  std::string name = target.value_or(run.followedTarget());
  // In a scenario: the current phase's target, else the first of the world.
  const int phase = run.lastSample().phase;
  if (name.empty() && phase >= 0)
    name = run.scenario().phases[static_cast<std::size_t>(phase)].target;
  if (name.empty()) {
    const auto targets = run.simulation().world().targets();
    if (targets.empty())
      throw std::invalid_argument("line_of_sight: the world has no target");
    name = targets.front().name;
  }
  return run.lineOfSightDeg(name);
}

}  // namespace Py
}  // namespace KR
