#include <kr/broker/broker.h>

#include <algorithm>
#include <exception>

#include <ko/log.h>

namespace KR {

namespace detail {
void throwArgumentCount(const std::string& module, const std::string& method, std::size_t expected,
                        std::size_t given) {
  throw KRError(
      module, method,
      "expects " + std::to_string(expected) + " argument(s), got " + std::to_string(given));
}
}  // namespace detail

// ---- KRModule ------------------------------------------------------------------------------

void KRModule::bindRaw(const std::string& method, Method m, Checker check) {
  auto shared = std::make_shared<Method>(std::move(m));
  std::unique_lock<std::shared_mutex> lock(fMethodsMutex);
  fMethods[method] = std::move(shared);
  if (check) {
    fCheckers[method] = std::move(check);
  } else {
    fCheckers.erase(method);
  }
}

void KRModule::checkArguments(const std::string& method, const std::vector<KRValue>& args) const {
  Checker check;
  {
    std::shared_lock<std::shared_mutex> lock(fMethodsMutex);
    if (fMethods.count(method) == 0)
      throw KRError(fName, method, "unknown method \"" + method + "\" of module " + fName);
    const auto it = fCheckers.find(method);
    if (it != fCheckers.end())
      check = it->second;
  }
  if (check)
    check(args);
}

bool KRModule::hasMethod(const std::string& method) const {
  std::shared_lock<std::shared_mutex> lock(fMethodsMutex);
  return fMethods.count(method) != 0;
}

std::vector<std::string> KRModule::getMethodList() const {
  std::vector<std::string> names;
  {
    std::shared_lock<std::shared_mutex> lock(fMethodsMutex);
    names.reserve(fMethods.size());
    for (const auto& entry : fMethods)
      names.push_back(entry.first);
  }
  std::sort(names.begin(), names.end());
  return names;
}

KRValue KRModule::invoke(const std::string& method, const std::vector<KRValue>& args) {
  std::shared_ptr<Method> m;
  {
    std::shared_lock<std::shared_mutex> lock(fMethodsMutex);
    auto it = fMethods.find(method);
    if (it != fMethods.end())
      m = it->second;
  }
  if (!m)
    throw KRError(fName, method, "unknown method \"" + method + "\" of module " + fName);
  // The lock is released before the method runs: a method may call back into its module.
  return (*m)(args);
}

// ---- KRProxy -------------------------------------------------------------------------------

KRProxy::KRProxy(std::weak_ptr<KRBroker> broker, std::shared_ptr<KRModule> module)
    : fBroker(std::move(broker)), fModule(std::move(module)) {}

KRValue KRProxy::callValues(const std::string& method, const std::vector<KRValue>& args) {
  if (std::shared_ptr<KRBroker> broker = fBroker.lock(); broker && broker->hasObserver()) {
    broker->notifyCall(fModule->getName(), method, args, false);
  }
  return fModule->invoke(method, args);
}

void KRProxy::postValues(const std::string& method, std::vector<KRValue> args) {
  std::shared_ptr<KRBroker> broker = fBroker.lock();
  if (!broker)
    throw KRError(fModule->getName(), method, "the broker is gone");
  if (broker->hasObserver())
    broker->notifyCall(fModule->getName(), method, args, true);
  broker->post(fModule, method, std::move(args));
}

// ---- KRBroker ------------------------------------------------------------------------------

std::shared_ptr<KRBroker> KRBroker::create(std::string name) {
  return std::shared_ptr<KRBroker>(new KRBroker(std::move(name)));
}

KRBroker::KRBroker(std::string name) : fName(std::move(name)) {}

KRBroker::~KRBroker() {
  {
    std::lock_guard<std::mutex> lock(fQueueMutex);
    fStopping = true;
  }
  fQueueCv.notify_all();
  if (fWorker.joinable()) {
    if (fWorker.get_id() == std::this_thread::get_id()) {
      fWorker.detach();  // the last reference was dropped by a posted call
    } else {
      fWorker.join();
    }
  }
}

void KRBroker::addModule(std::shared_ptr<KRModule> module) {
  if (!module)
    throw KRError("KRBroker", "addModule", "null module");
  std::unique_lock<std::shared_mutex> lock(fModulesMutex);
  const std::string& name = module->getName();
  if (fModules.count(name) != 0) {
    throw KRError("KRBroker", "addModule", "a module named \"" + name + "\" is already registered");
  }
  fModules.emplace(name, std::move(module));
}

bool KRBroker::removeModule(const std::string& name) {
  std::shared_ptr<KRModule> removed;  // destroyed after the lock is released
  std::unique_lock<std::shared_mutex> lock(fModulesMutex);
  auto it = fModules.find(name);
  if (it == fModules.end())
    return false;
  removed = std::move(it->second);
  fModules.erase(it);
  return true;
}

bool KRBroker::hasModule(const std::string& name) const {
  std::shared_lock<std::shared_mutex> lock(fModulesMutex);
  return fModules.count(name) != 0;
}

std::vector<std::string> KRBroker::getModuleNames() const {
  std::vector<std::string> names;
  {
    std::shared_lock<std::shared_mutex> lock(fModulesMutex);
    for (const auto& entry : fModules)
      names.push_back(entry.first);
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::shared_ptr<KRModule> KRBroker::getModule(const std::string& name) const {
  std::shared_lock<std::shared_mutex> lock(fModulesMutex);
  auto it = fModules.find(name);
  return it == fModules.end() ? nullptr : it->second;
}

std::shared_ptr<KRProxy> KRBroker::getProxy(const std::string& name, int flags) {
  if (flags != 0) {
    throw KRError("KRBroker", "getProxy",
                  "unsupported flags " + std::to_string(flags) + " for module \"" + name + "\"");
  }
  std::shared_ptr<KRModule> module = getModule(name);
  if (!module) {
    std::shared_ptr<RemoteResolver> resolver;
    {
      std::lock_guard<std::mutex> lock(fResolverMutex);
      resolver = fResolver;
    }
    if (resolver)
      module = (*resolver)(name);
  }
  if (!module) {
    throw KRError("KRBroker", "getProxy", "no module named \"" + name + "\" in broker " + fName);
  }
  return std::make_shared<KRProxy>(weak_from_this(), std::move(module));
}

void KRBroker::setRemoteResolver(RemoteResolver resolver) {
  std::lock_guard<std::mutex> lock(fResolverMutex);
  fResolver = resolver ? std::make_shared<RemoteResolver>(std::move(resolver)) : nullptr;
}

void KRBroker::setCallObserver(Observer observer) {
  std::lock_guard<std::mutex> lock(fObserverMutex);
  fObserver = observer ? std::make_shared<Observer>(std::move(observer)) : nullptr;
  fHasObserver.store(fObserver != nullptr, std::memory_order_release);
}

void KRBroker::notifyCall(const std::string& module, const std::string& method,
                          const std::vector<KRValue>& args, bool posted) {
  std::shared_ptr<Observer> observer;
  {
    std::lock_guard<std::mutex> lock(fObserverMutex);
    observer = fObserver;
  }
  if (observer)
    (*observer)(KRCallRecord{module, method, args, posted});
}

void KRBroker::post(std::shared_ptr<KRModule> module, std::string method,
                    std::vector<KRValue> args) {
  {
    std::lock_guard<std::mutex> lock(fQueueMutex);
    if (fStopping)
      throw KRError("KRBroker", "post", "the broker is shutting down");
    fQueue.push_back(Posted{std::move(module), std::move(method), std::move(args)});
    if (!fWorker.joinable())
      fWorker = std::thread([this] { workerLoop(); });
  }
  fQueueCv.notify_one();
}

void KRBroker::workerLoop() {
  std::unique_lock<std::mutex> lock(fQueueMutex);
  for (;;) {
    fQueueCv.wait(lock, [this] { return fStopping || !fQueue.empty(); });
    if (fQueue.empty())
      return;  // stopping, and everything posted has run
    Posted p = std::move(fQueue.front());
    fQueue.pop_front();
    ++fRunning;
    lock.unlock();
    try {
      p.module->invoke(p.method, p.args);
    } catch (const std::exception& e) {
      ko::log::error("KRBroker", "pCall", p.module->getName() + "." + p.method + ": " + e.what());
    } catch (...) {
      ko::log::error("KRBroker", "pCall", p.module->getName() + "." + p.method + ": unknown error");
    }
    p = Posted{};  // release the module before taking the lock again
    lock.lock();
    --fRunning;
    if (fQueue.empty() && fRunning == 0)
      fIdleCv.notify_all();
  }
}

void KRBroker::waitForPostedCalls() {
  std::unique_lock<std::mutex> lock(fQueueMutex);
  fIdleCv.wait(lock, [this] { return fQueue.empty() && fRunning == 0; });
}

void KRBroker::shutdown() {
  {
    std::lock_guard<std::mutex> lock(fQueueMutex);
    fStopping = true;
  }
  fQueueCv.notify_all();
  if (fWorker.joinable() && fWorker.get_id() != std::this_thread::get_id())
    fWorker.join();
  std::unordered_map<std::string, std::shared_ptr<KRModule>> modules;
  {
    std::unique_lock<std::shared_mutex> lock(fModulesMutex);
    modules.swap(fModules);
  }
  // Modules are released here, outside the lock.
}

}  // namespace KR
