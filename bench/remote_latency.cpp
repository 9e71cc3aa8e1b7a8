// Latency and rate of calls to a module of another process over DDS on loopback, beside the
// same calls in-process. The program starts itself again as the host of the module.
//
//   remote_latency [--calls N]
//
// Prints, per case, the median and 99th percentile round trip and the calls per second of
// one caller calling back to back.

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <kr/broker/broker.h>
#include <kr/broker/remote.h>

#include "bench_support.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

std::shared_ptr<KR::KRModule> makeModule() {
  auto m = std::make_shared<KR::KRModule>("BenchRemote");
  m->bind("getPosition",
          [] { return std::vector<float>{0.3f, -0.2f, 0.318f, 0.01f, 0.02f, 0.4f}; });
  m->bind("raiseEvent", [](const std::string& name, const KR::KRValue& value) {
    return static_cast<int>(name.size() + value.size());
  });
  return m;
}

int host(const char* prefix) {
  auto broker = KR::KRBroker::create("bench-host");
  broker->addModule(makeModule());
  KR::KRRemoteOptions options;
  options.ddsConfig = KR::kLoopbackDdsConfig;  // interface lo, no multicast, peer 127.0.0.1
  options.topicPrefix = prefix;
  options.servingThreads = 1;
  auto remote = KR::KRRemote::attach(broker, options);
  remote->publishAll();
  char c;
  while (::read(0, &c, 1) > 0) {
  }
  remote->close();
  return 0;
}

struct Result {
  double medianUs, p99Us, callsPerSecond;
};

Result measure(int calls, const std::function<void()>& call) {
  for (int i = 0; i < calls / 10; ++i)
    call();  // warm up
  std::vector<double> us(static_cast<std::size_t>(calls));
  const Clock::time_point start = Clock::now();
  for (double& t : us) {
    const Clock::time_point t0 = Clock::now();
    call();
    t = std::chrono::duration<double, std::micro>(Clock::now() - t0).count();
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  std::sort(us.begin(), us.end());
  return {us[us.size() / 2], us[us.size() * 99 / 100], calls / seconds};
}

void print(const char* name, const Result& r) {
  std::printf("%-34s median %9.2f us   p99 %9.2f us   %10.0f calls/s\n", name, r.medianUs, r.p99Us,
              r.callsPerSecond);
}

}  // namespace

int main(int argc, char** argv) {
  // Both sides join the loopback-only network given in their options; Cyclone's own
  // configuration from the environment is not consulted.
  ::unsetenv("CYCLONEDDS_URI");
  if (argc == 3 && std::strcmp(argv[1], "--host") == 0)
    return host(argv[2]);
  int calls = 20000;
  if (argc == 3 && std::strcmp(argv[1], "--calls") == 0)
    calls = std::max(100, std::atoi(argv[2]));

  const std::string prefix = "krbench_" + std::to_string(::getpid());
  int fds[2];
  if (::pipe(fds) != 0)
    return 1;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[0], 0);
  posix_spawn_file_actions_addclose(&actions, fds[1]);
  std::string self = "/proc/self/exe", flag = "--host", pre = prefix;
  char* args[] = {self.data(), flag.data(), pre.data(), nullptr};
  pid_t child = -1;
  if (posix_spawn(&child, self.c_str(), &actions, nullptr, args, environ) != 0)
    return 1;
  posix_spawn_file_actions_destroy(&actions);
  ::close(fds[0]);

  auto local = KR::KRBroker::create("bench-local");
  local->addModule(makeModule());
  auto localProxy = local->getProxy("BenchRemote", 0);

  auto broker = KR::KRBroker::create("bench-caller");
  KR::KRRemoteOptions options;
  options.ddsConfig = KR::kLoopbackDdsConfig;  // interface lo, no multicast, peer 127.0.0.1
  options.topicPrefix = prefix;
  auto remote = KR::KRRemote::attach(broker, options);
  if (!remote->waitForModule("BenchRemote", std::chrono::seconds(10))) {
    std::fprintf(stderr, "the host process was not discovered\n");
    ::kill(child, SIGKILL);
    return 1;
  }
  auto remoteProxy = broker->getProxy("BenchRemote", 0);
  const KR::KRValue event = krbench::trackerEvent();
  const std::string eventName = "KRTracker/ObjectConverter3";

  std::printf("%d calls per case\n", calls);
  print("in-process, six floats", measure(calls, [&] {
          benchmark::DoNotOptimize(localProxy->call<std::vector<float>>("getPosition"));
        }));
  print("in-process, tracker event", measure(calls, [&] {
          benchmark::DoNotOptimize(localProxy->call<int>("raiseEvent", eventName, event));
        }));
  print("remote (DDS loopback), six floats", measure(calls, [&] {
          benchmark::DoNotOptimize(remoteProxy->call<std::vector<float>>("getPosition"));
        }));
  print("remote (DDS loopback), tracker event", measure(calls, [&] {
          benchmark::DoNotOptimize(remoteProxy->call<int>("raiseEvent", eventName, event));
        }));

  remote->close();
  ::close(fds[1]);
  int status = 0;
  ::waitpid(child, &status, 0);
  return 0;
}
