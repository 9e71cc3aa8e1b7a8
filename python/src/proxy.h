#pragma once
// krtracker.Proxy: a module of a broker called from Python, each method under its own name, the
// arguments and the result converted (values.h). krtracker.Tracker is the proxy of the tracking
// service "KRTracker"; the package gives it GenericTracker's methods with their signatures.

#include <functional>
#include <string>
#include <vector>

#include <pybind11/pybind11.h>

#include <kr/value/krvalue.h>

namespace KR {
namespace Py {

namespace py = pybind11;

/// How a proxy reaches its module.
struct CallRoute {
  /// Runs a call; without the GIL.
  std::function<KRValue(const std::string& method, const std::vector<KRValue>& args)> call;
  /// Runs after each call with the GIL held (e.g. hands the events the call raised to their
  /// callbacks); may be empty.
  std::function<void()> after;
  /// The module's methods; empty when they are not known (a module of another process).
  std::function<std::vector<std::string>()> methods;
};

class Proxy {
 public:
  /// `owner` is kept alive as long as the proxy (the simulation or the broker it calls through).
  Proxy(std::string module, CallRoute route, py::object owner);
  virtual ~Proxy() = default;

  /// Calls `method` with `args`, named by `names` in conversion errors.
  py::object call(const std::string& method, const py::args& args,
                  const std::vector<std::string>& names = {});
  const std::string& module() const { return fModule; }
  std::vector<std::string> methods() const;

  /// The garbage collector's view of the owner.
  int traverse(visitproc visit, void* arg);
  void clear();

 private:
  std::string fModule;
  CallRoute fRoute;
  py::object fOwner;
};

/// The proxy of "KRTracker".
class TrackerProxy : public Proxy {
 public:
  using Proxy::Proxy;
};

/// A proxy of the right class for `module`: a TrackerProxy for "KRTracker".
py::object makeProxy(const std::string& module, CallRoute route, py::object owner);

void bindProxies(py::module_& m);

}  // namespace Py
}  // namespace KR
