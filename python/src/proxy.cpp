#include "proxy.h"

#include <algorithm>
#include <utility>

#include <pybind11/stl.h>

#include "gc_support.h"
#include "values.h"

namespace KR {
namespace Py {

namespace {

const char* const kProxyDoc = R"(A module of the robot, each of its methods under its own name.

Arguments and results are Python values: None, bool, int, float, str and lists of them (tuples
and NumPy arrays are taken as lists). A value that does not convert raises TypeError naming the
argument; the library's errors raise krtracker.KRError, a RuntimeError, with its text.

    memory = sim.proxy("KRMemory")
    memory.insertData("answer", [42, "yes"])
    memory.getData("answer")            # [42, 'yes']
)";

const char* const kTrackerDoc =
    R"(The tracking service "KRTracker": every public method of the tracker,
under its own name, with Python values in and out.

Positions are in metres, angles in radians, frames are krtracker.FRAME_TORSO (0),
FRAME_WORLD (1) and FRAME_ROBOT (2). The library's errors raise krtracker.KRError, a
RuntimeError, with the library's text.

    t = sim.tracker
    t.registerTarget("RedBall", 0.06)   # the ball's diameter [m]
    t.setMode("Head")
    t.track("RedBall")
    t.getTargetPosition(krtracker.FRAME_TORSO)
)";

}  // namespace

Proxy::Proxy(std::string module, CallRoute route, py::object owner)
    : fModule(std::move(module)), fRoute(std::move(route)), fOwner(std::move(owner)) {}

py::object Proxy::call(const std::string& method, const py::args& args,
                       const std::vector<std::string>& names) {
  if (!fOwner)
    throw std::runtime_error(fModule + "." + method + ": the proxy's owner is gone");
  const std::vector<KRValue> values = toArguments(method, args, names);
  KRValue result;
  {
    py::gil_scoped_release release;
    result = fRoute.call(method, values);
  }
  if (fRoute.after)
    fRoute.after();
  return toPython(result);
}

int Proxy::traverse(visitproc visit, void* arg) {
  Py_VISIT(fOwner.ptr());
  return 0;
}

void Proxy::clear() {
  fOwner = py::object();
}

std::vector<std::string> Proxy::methods() const {
  std::vector<std::string> names = fRoute.methods ? fRoute.methods() : std::vector<std::string>{};
  std::sort(names.begin(), names.end());
  return names;
}

py::object makeProxy(const std::string& module, CallRoute route, py::object owner) {
  if (module == "KRTracker")
    return py::cast(TrackerProxy(module, std::move(route), std::move(owner)));
  return py::cast(Proxy(module, std::move(route), std::move(owner)));
}

void bindProxies(py::module_& m) {
  py::class_<Proxy>(m, "Proxy", kProxyDoc, collectable<Proxy>())
      .def_property_readonly("module", &Proxy::module, "The module's name.")
      .def("methods", &Proxy::methods,
           "The module's methods, sorted; empty for a module of another process.")
      .def(
          "call",
          [](Proxy& self, const std::string& method, py::args args) {
            return self.call(method, args);
          },
          py::arg("method"),
          "call(method, *args): calls the module's method by its name; the same as "
          "proxy.method(*args).")
      .def(
          "_call_named",
          [](Proxy& self, const std::string& method, const std::vector<std::string>& names,
             py::args args) { return self.call(method, args, names); },
          "Calls `method`, naming its arguments `names` in conversion errors.")
      .def("__getattr__",
           [](py::object self, const std::string& name) {
             const Proxy& proxy = self.cast<const Proxy&>();
             const auto known = proxy.methods();
             if (name.rfind("__", 0) == 0 ||
                 (!known.empty() && std::find(known.begin(), known.end(), name) == known.end())) {
               throw py::attribute_error("module " + proxy.module() + " has no method '" + name +
                                         "'");
             }
             return py::module_::import("functools").attr("partial")(self.attr("call"), name);
           })
      .def("__dir__",
           [](py::object self) {
             py::list names = py::module_::import("builtins").attr("object").attr("__dir__")(self);
             for (const auto& method : self.cast<const Proxy&>().methods())
               names.append(method);
             return names;
           })
      .def("__repr__",
           [](const Proxy& self) { return "<krtracker.Proxy of module " + self.module() + ">"; });

  py::class_<TrackerProxy, Proxy>(m, "Tracker", kTrackerDoc).def("__repr__", [](const Proxy&) {
    return std::string("<krtracker.Tracker of module KRTracker>");
  });
}

}  // namespace Py
}  // namespace KR
