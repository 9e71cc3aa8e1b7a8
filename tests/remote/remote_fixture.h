#pragma once
// Cross-process fixture: this test binary started again with --host runs the fake modules in a
// child process; the tests reach them over DDS on the loopback interface.

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <kr/broker/broker.h>
#include <kr/broker/remote.h>

namespace remotetest {

/// The fake module a host serves by default.
constexpr const char* kFakeModule = "RemoteFake";

/// The modules a tracker opens plus "KRRobotModel": what a host started with the module
/// "tracker" serves, as the tracker tests' fakes (scripted remotely through "__answer",
/// "__throw" and "__reset").
const std::vector<std::string>& trackerFakeNames();

/// Runs the child's module (kFakeModule's kind, or "tracker") until stdin closes.
int runHost(const std::string& prefix, const std::string& module);

/// A child process hosting a module under a topic prefix.
class HostProcess {
 public:
  HostProcess(std::string prefix, std::string module = kFakeModule);
  ~HostProcess();
  void start();
  /// SIGKILL, as a crash would.
  void kill();

 private:
  std::string fPrefix;
  std::string fModule;
  pid_t fPid = -1;
  int fStdin = -1;
};

/// A topic prefix no other test run uses.
std::string uniquePrefix();

/// A caller broker attached to the transport, waiting until the child's modules are discovered.
struct Caller {
  explicit Caller(const std::string& prefix,
                  std::chrono::milliseconds timeout = std::chrono::milliseconds(1000),
                  const std::vector<std::string>& modules = {kFakeModule});
  std::shared_ptr<KR::KRBroker> broker;
  std::shared_ptr<KR::KRRemote> remote;
};

}  // namespace remotetest
