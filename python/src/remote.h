#pragma once
// krtracker.connect: a broker of this process on the DDS transport, through which Python calls
// the modules other processes serve (krtracker-sim remote-tracker's "KRTracker").

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <pybind11/pybind11.h>

#include <kr/broker/broker.h>
#include <kr/broker/remote.h>

namespace KR {
namespace Py {

namespace py = pybind11;

class Broker {
 public:
  /// Joins the DDS domain (loopback unless KRTRACKER_DDS_CONFIG says otherwise) under the topic
  /// prefix (KRTRACKER_REMOTE_PREFIX's, or "kr", when none is given). Called without the GIL.
  Broker(const std::optional<std::string>& prefix, double timeoutS);
  ~Broker();
  Broker(const Broker&) = delete;
  Broker& operator=(const Broker&) = delete;

  /// A proxy of a module served by another process, found within the timeout; KRError when
  /// none appears.
  py::object proxy(py::object self, const std::string& module);
  /// The modules other processes serve now, sorted.
  std::vector<std::string> modules() const;
  const std::string& prefix() const { return fPrefix; }
  void close();

 private:
  std::string fPrefix;
  std::shared_ptr<KRBroker> fBroker;
  std::shared_ptr<KRRemote> fRemote;
  std::shared_ptr<std::atomic<bool>> fClosed = std::make_shared<std::atomic<bool>>(false);
};

void bindRemote(py::module_& m);

}  // namespace Py
}  // namespace KR
