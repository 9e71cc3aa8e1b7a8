// krtracker._krtracker: the compiled part of the Python package krtracker (see
// python/krtracker/__init__.py for the package itself).

#include <pybind11/pybind11.h>

#include "geometry.h"
#include "proxy.h"
#include "remote.h"
#include "simulation.h"
#include "values.h"

PYBIND11_MODULE(_krtracker, m) {
  m.doc() = "The compiled part of krtracker; import krtracker rather than this module.";
  // The classes and signatures name the package the user imports, krtracker.Simulation
  // rather than krtracker._krtracker.Simulation.
  m.attr("__name__") = "krtracker";
  KR::Py::bindValues(m);
  KR::Py::bindProxies(m);
  KR::Py::bindGeometry(m);
  KR::Py::bindSimulation(m);
  KR::Py::bindRemote(m);
}
