// krtracker.Simulation's results: the JSON summary's dict for the phases reached so far, and the
// samples of every step as NumPy columns named as the CSV's.

#include <pybind11/numpy.h>

#include <krsim/report/json_summary.h>
#include <krsim/run/run_loop.h>

#include "simulation.h"

namespace KR {
namespace Py {

py::dict Simulation::summary() {
  std::string json;
  {
    py::gil_scoped_release release;
    std::lock_guard<std::recursive_mutex> lock(fMutex);
    Sim::ScenarioRun& run = xRun();
    const Sim::RunRecord record{run.scenario().name, run.scenario().robot->robot->getName(),
                                run.simulatedSeconds(), fCpuS, ""};
    json = Sim::summaryJson(fConfig, record, Sim::measuresOf(run.summaries()));
  }
  // Read by Python's own parser: the dict is the file's, key for key.
  return py::module_::import("json").attr("loads")(json);
}

py::dict Simulation::series() {
  py::gil_scoped_release release;
  std::lock_guard<std::recursive_mutex> lock(fMutex);
  xRun();
  if (!fSeries)
    throw std::runtime_error("series: this simulation does not record its samples");
  const Sim::SampleSeries& series = *fSeries;
  py::gil_scoped_acquire gil;
  const py::module_ numpy = py::module_::import("numpy");
  py::dict out;
  for (std::size_t c = 0; c < series.columns().size(); ++c) {
    const std::string& name = series.columns()[c];
    if (series.isText(c)) {
      py::list texts;
      for (const auto& text : series.texts(c))
        texts.append(py::str(text));
      out[py::str(name)] = numpy.attr("array")(texts, py::arg("dtype") = "str");
      continue;
    }
    const std::vector<double>& numbers = series.numbers(c);
    py::array_t<double> column(static_cast<py::ssize_t>(numbers.size()), numbers.data());
    // The phase's index is a whole number in every step (-1 outside the phases).
    out[py::str(name)] = name == "phase_index" ? column.attr("astype")("int64") : column;
  }
  return out;
}

}  // namespace Py
}  // namespace KR
