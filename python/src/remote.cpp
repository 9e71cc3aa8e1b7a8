#include "remote.h"

#include <chrono>
#include <cmath>

#include <pybind11/stl.h>

#include <kr/error.h>

#include "proxy.h"

namespace KR {
namespace Py {

namespace {

const char* const kBrokerDoc =
    R"(A broker of this process on the DDS transport, reaching the modules that other
processes serve under the same topic prefix. DDS stays on the loopback interface unless
KRTRACKER_DDS_CONFIG names another network.

    # in a shell: krtracker-sim remote-tracker & krtracker-sim remote-robot
    with krtracker.connect() as broker:
        tracker = broker.proxy("KRTracker")
        tracker.getActiveTarget()
)";

std::chrono::milliseconds timeoutOf(double seconds) {
  if (!std::isfinite(seconds) || seconds <= 0.0 || seconds > 3600.0)
    throw py::value_error("connect: timeout expects seconds above 0 and up to 3600");
  return std::chrono::milliseconds(std::lround(seconds * 1000.0));
}

}  // namespace

Broker::Broker(const std::optional<std::string>& prefix, double timeoutS) {
  KRRemoteOptions options = remoteOptionsFromEnvironment();
  if (prefix)
    options.topicPrefix = *prefix;
  options.timeout = timeoutOf(timeoutS);
  fPrefix = options.topicPrefix;
  py::gil_scoped_release release;
  fBroker = KRBroker::create("python");
  fRemote = KRRemote::attach(fBroker, options);
}

Broker::~Broker() {
  close();
}

py::object Broker::proxy(py::object self, const std::string& module) {
  std::shared_ptr<KRProxy> proxy;
  {
    py::gil_scoped_release release;
    if (*fClosed)
      throw std::runtime_error("proxy: the broker is closed");
    proxy = fBroker->getProxy(module);  // waits up to the timeout for the module to appear
  }
  CallRoute route;
  route.call = [proxy, closed = fClosed](const std::string& method,
                                         const std::vector<KRValue>& args) {
    if (*closed)
      throw std::runtime_error(method + ": the broker is closed");
    return proxy->callValues(method, args);
  };
  return makeProxy(module, std::move(route), std::move(self));
}

std::vector<std::string> Broker::modules() const {
  if (*fClosed)
    return {};
  return fRemote->getRemoteModuleNames();
}

void Broker::close() {
  if (fClosed->exchange(true))
    return;
  py::gil_scoped_release release;
  fRemote->close();
  fBroker->shutdown();
}

void bindRemote(py::module_& m) {
  py::class_<Broker>(m, "Broker", kBrokerDoc)
      .def(
          "proxy",
          [](py::object self, const std::string& module) {
            return self.cast<Broker&>().proxy(self, module);
          },
          py::arg("module"),
          "A proxy of a module another process serves (a krtracker.Tracker for 'KRTracker'); "
          "krtracker.KRError when it does not appear within the timeout.")
      .def_property_readonly("modules", &Broker::modules,
                             "The modules other processes serve now, sorted.")
      .def_property_readonly("prefix", &Broker::prefix, "The DDS topic prefix.")
      .def("close", &Broker::close, "Leaves the DDS domain; the proxies stop working.")
      .def("__enter__", [](py::object self) { return self; })
      .def("__exit__", [](Broker& self, py::args) { self.close(); });

  m.attr("LOOPBACK_DDS_CONFIG") = KR::kLoopbackDdsConfig;
  m.def(
      "connect",
      [](std::optional<std::string> prefix, double timeout) {
        return std::make_unique<Broker>(prefix, timeout);
      },
      py::arg("prefix") = py::none(), py::arg("timeout") = 1.0,
      "A broker on the DDS transport, on the loopback interface by default. prefix: the topic "
      "prefix of the processes to reach (default: KRTRACKER_REMOTE_PREFIX, else 'kr'); "
      "timeout [s]: how long a call waits for its reply and proxy() for a module to appear.");
}

}  // namespace Py
}  // namespace KR
