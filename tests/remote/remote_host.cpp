#include "remote_fixture.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

#include <kr/error.h>
#include <support/fake_module.h>
#include <tracker/tracker_fixture.h>

extern char** environ;

namespace remotetest {

namespace {

/// The fake module of the cross-process tests: typed methods of 0 to 5 arguments, an echo,
/// exceptions, a slow method and a counter for posted calls.
std::shared_ptr<KR::KRModule> makeFake(const std::string& name) {
  auto m = std::make_shared<KR::KRModule>(name);
  auto posted = std::make_shared<std::vector<int>>();
  auto postedMutex = std::make_shared<std::mutex>();
  m->bind("zero", []() { return 42; });
  m->bind("one", [](int a) { return a * 2; });
  m->bind("two", [](float a, const std::string& b) { return b + ":" + std::to_string(a * 10); });
  m->bind("three", [](bool a, int b, float c) { return KR::KRValue{!a, b + 1, c * 2}; });
  m->bind("four", [](int a, int b, int c, int d) { return std::vector<int>{d, c, b, a}; });
  m->bind("five", [](float a, float b, float c, float d, float e) { return a + b + c + d + e; });
  m->bind("echo", [](const KR::KRValue& v) { return v; });
  m->bind("fail", []() -> int { throw std::runtime_error("motor overheated"); });
  m->bind("failKR", []() -> int {
    throw KR::KRError("KRMotion", "setAngles", "joint HeadYaw out of range");
  });
  m->bind("slow", [](int ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    return ms;
  });
  m->bind("record", [posted, postedMutex](int i) {
    std::lock_guard<std::mutex> lock(*postedMutex);
    posted->push_back(i);
  });
  m->bind("recorded", [posted, postedMutex]() {
    std::lock_guard<std::mutex> lock(*postedMutex);
    return *posted;
  });
  m->bind("pid", []() { return static_cast<int>(::getpid()); });
  return m;
}

}  // namespace

const std::vector<std::string>& trackerFakeNames() {
  static const std::vector<std::string> kNames = [] {
    std::vector<std::string> names = krtest::trackerModuleNames();
    names.push_back("KRRobotModel");
    return names;
  }();
  return kNames;
}

int runHost(const std::string& prefix, const std::string& module) {
  // "tracker": the tracker tests' fakes, which the parent scripts through extra methods.
  std::unique_ptr<krtest::TrackerHarness> harness;
  std::shared_ptr<KR::KRBroker> broker = KR::KRBroker::create("host");
  if (module == "tracker") {
    harness = std::make_unique<krtest::TrackerHarness>();
    broker = harness->broker;
    for (const auto& [name, fake] : harness->modules) {
      krtest::FakeModule* f = fake.get();
      f->bind("__answer", [f](const std::string& m, const KR::KRValue& v) { f->answer(m, v); });
      f->bind("__throw", [f](const std::string& m, const std::string& t) { f->throwOn(m, t); });
      f->bind("__reset", [f](const std::string& m) { f->reset(m); });
    }
  } else {
    broker->addModule(makeFake(module));
  }
  KR::KRRemoteOptions options;
  options.topicPrefix = prefix;
  auto remote = KR::KRRemote::attach(broker, options);
  remote->publishAll();
  // Serve until the parent closes our stdin (or kills us).
  char c;
  while (::read(0, &c, 1) > 0) {
  }
  remote->close();
  broker->shutdown();
  return 0;
}

HostProcess::HostProcess(std::string prefix, std::string module)
    : fPrefix(std::move(prefix)), fModule(std::move(module)) {
  start();
}

HostProcess::~HostProcess() {
  if (fPid > 0) {
    ::close(fStdin);  // asks the child to leave the domain cleanly
    ::waitpid(fPid, nullptr, 0);
  }
}

void HostProcess::start() {
  int fds[2];
  if (::pipe(fds) != 0)
    throw std::runtime_error("pipe failed");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[0], 0);
  posix_spawn_file_actions_addclose(&actions, fds[1]);
  std::string args[] = {"/proc/self/exe", "--host", fPrefix, fModule};
  char* argv[] = {args[0].data(), args[1].data(), args[2].data(), args[3].data(), nullptr};
  const int rc = posix_spawn(&fPid, argv[0], &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(fds[0]);
  if (rc != 0)
    throw std::runtime_error("cannot start the host process");
  fStdin = fds[1];
}

void HostProcess::kill() {
  if (fPid <= 0)
    return;
  ::kill(fPid, SIGKILL);
  ::waitpid(fPid, nullptr, 0);
  ::close(fStdin);
  fPid = -1;
}

std::string uniquePrefix() {
  static std::atomic<int> counter{0};
  return "krtest_" + std::to_string(::getpid()) + "_" + std::to_string(++counter);
}

Caller::Caller(const std::string& prefix, std::chrono::milliseconds timeout,
               const std::vector<std::string>& modules)
    : broker(KR::KRBroker::create("caller")) {
  KR::KRRemoteOptions options;
  options.topicPrefix = prefix;
  options.timeout = timeout;
  remote = KR::KRRemote::attach(broker, options);
  for (const std::string& module : modules) {
    if (!remote->waitForModule(module, std::chrono::seconds(10)))
      throw std::runtime_error("the host process was not discovered");
  }
}

}  // namespace remotetest
