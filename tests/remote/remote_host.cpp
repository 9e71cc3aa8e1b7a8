#include "remote_fixture.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include <kr/error.h>
#include <support/fake_module.h>

extern char** environ;

namespace remotetest {

namespace {

std::string selfPath() {
  char buf[4096];
  const ssize_t n = ::readlink("/proc/self/exe", buf, sizeof(buf) - 1);
  if (n <= 0)
    throw std::runtime_error("cannot find the test binary");
  return std::string(buf, static_cast<std::size_t>(n));
}

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
  m->bind("sixFloats", []() { return std::vector<float>{0.1f, 0.2f, 0.3f, 0.4f, 0.5f, 0.6f}; });
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

/// A scripted fake that the parent process scripts through extra methods:
/// "__answer"(method, value), "__throw"(method, text), "__reset"(method).
class ScriptedFake : public krtest::FakeModule {
 public:
  using FakeModule::FakeModule;
  KR::KRValue invoke(const std::string& method, const std::vector<KR::KRValue>& args) override {
    if (method == "__answer") {
      answer(args.at(0).asString(), args.at(1));
    } else if (method == "__throw") {
      throwOn(args.at(0).asString(), args.at(1).asString());
    } else if (method == "__reset") {
      reset(args.at(0).asString());
    } else {
      return FakeModule::invoke(method, args);
    }
    return KR::KRValue();
  }
};

/// The modules a tracker opens, answering as the tracker tests' harness does.
void addTrackerFakes(KR::KRBroker& broker) {
  for (const std::string& name : trackerFakeNames()) {
    auto fake = std::make_shared<ScriptedFake>(name);
    if (name == "KRRobotModel")
      fake->answer("getConfig", krtest::readRobotFile("kibo.xml"));
    if (name == "_KRTargetManager") {
      fake->answer("isTargetManaged", true);
      fake->answer("getEventName", "evt");
      fake->answer("getSecondEventName", "evt2");
      fake->answer("getTargetIds", std::vector<int>{4, 7});
      fake->answer("getRegisteredTargets", std::vector<std::string>{});
    }
    broker.addModule(fake);
  }
}

}  // namespace

const std::vector<std::string>& trackerFakeNames() {
  static const std::vector<std::string> kNames = {
      "KRMotion",         "_Smoother",   "_MotionMove",      "_NavigationMove",
      "_RoundSearcher",   "_HeadLooker", "_WholeBodyLooker", "_ArmsLooker",
      "_KRTargetManager", "KRMemory",    "KRRobotModel"};
  return kNames;
}

int runHost(const std::string& prefix, const std::string& modules) {
  auto broker = KR::KRBroker::create("host");
  std::stringstream names(modules);
  std::string name;
  while (std::getline(names, name, ',')) {
    if (name == "tracker") {
      addTrackerFakes(*broker);
    } else {
      broker->addModule(makeFake(name));
    }
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

HostProcess::HostProcess(std::string prefix, std::string modules)
    : fPrefix(std::move(prefix)), fModules(std::move(modules)) {
  start();
}

HostProcess::~HostProcess() {
  if (fPid > 0) {
    ::close(fStdin);  // asks the child to leave the domain cleanly
    int status = 0;
    ::waitpid(fPid, &status, 0);
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
  const std::string path = selfPath();
  std::vector<std::string> args{path, "--host", fPrefix, fModules};
  std::vector<char*> argv;
  for (std::string& a : args)
    argv.push_back(a.data());
  argv.push_back(nullptr);
  const int rc = posix_spawn(&fPid, path.c_str(), &actions, nullptr, argv.data(), environ);
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
  int status = 0;
  ::waitpid(fPid, &status, 0);
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
