// KRRemote: the transport attached to a broker, which resolves the modules that other processes
// announce, and the options read from the environment.

#include <kr/broker/remote.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "transport.h"

namespace KR {

namespace {

/// Stands for a module of another process: every method runs over the transport.
class RemoteModule : public KRModule {
 public:
  RemoteModule(const std::string& name, std::shared_ptr<KRRemote::Impl> impl)
      : KRModule(name), fImpl(std::move(impl)) {}

  KRValue invoke(const std::string& method, const std::vector<KRValue>& args) override {
    return fImpl->call(getName(), method, args, false);
  }

 private:
  std::shared_ptr<KRRemote::Impl> fImpl;
};

}  // namespace

// ---- KRRemote ------------------------------------------------------------------------------

KRRemote::KRRemote(std::shared_ptr<Impl> impl) : fImpl(std::move(impl)) {}

std::shared_ptr<KRRemote> KRRemote::attach(const std::shared_ptr<KRBroker>& broker,
                                           KRRemoteOptions options) {
  if (!broker)
    throw KRError("KRRemote", "attach", "null broker");
  auto impl = std::make_shared<Impl>(broker, std::move(options));
  impl->open();
  std::weak_ptr<Impl> weak = impl;
  broker->setRemoteResolver([weak](const std::string& name) -> std::shared_ptr<KRModule> {
    std::shared_ptr<Impl> impl = weak.lock();
    if (!impl || !impl->waitForModule(name, impl->timeout()))
      return nullptr;
    return std::make_shared<RemoteModule>(name, impl);
  });
  auto remote = std::shared_ptr<KRRemote>(new KRRemote(impl));
  remote->fBroker = broker;
  return remote;
}

KRRemote::~KRRemote() {
  close();
}

void KRRemote::publish(const std::string& module) {
  fImpl->publish(module);
}

void KRRemote::publishAll() {
  if (std::shared_ptr<KRBroker> broker = fBroker.lock()) {
    for (const std::string& name : broker->getModuleNames())
      fImpl->publish(name);
  }
}

void KRRemote::unpublish(const std::string& module) {
  fImpl->unpublish(module);
}

void KRRemote::forget(const std::string& module) {
  fImpl->forget(module);
}

void KRRemote::setTimeout(std::chrono::milliseconds timeout) {
  fImpl->setTimeout(timeout);
}
std::chrono::milliseconds KRRemote::getTimeout() const {
  return fImpl->timeout();
}

bool KRRemote::waitForModule(const std::string& module, std::chrono::milliseconds timeout) const {
  return fImpl->waitForModule(module, timeout);
}

std::vector<std::string> KRRemote::getRemoteModuleNames() const {
  return fImpl->announcedNames();
}

KRRemoteModuleState KRRemote::getModuleState(const std::string& module) const {
  return fImpl->state(module);
}

std::uint64_t KRRemote::getDroppedReplyCount() const {
  return fImpl->droppedReplies();
}

void KRRemote::close() {
  if (std::shared_ptr<KRBroker> broker = fBroker.lock())
    broker->setRemoteResolver(nullptr);
  fImpl->close();
}

KRRemoteOptions remoteOptionsFromEnvironment() {
  KRRemoteOptions options;
  if (const char* config = std::getenv("KRTRACKER_DDS_CONFIG"); config && *config) {
    const std::string name(config);
    options.ddsConfig = name == "engine"     ? std::string()
                        : name == "loopback" ? std::string(kLoopbackDdsConfig)
                                             : name;
  }
  if (const char* prefix = std::getenv("KRTRACKER_REMOTE_PREFIX"); prefix && *prefix)
    options.topicPrefix = prefix;
  if (const char* ms = std::getenv("KRTRACKER_REMOTE_TIMEOUT_MS"); ms && *ms)
    options.timeout = std::chrono::milliseconds(std::atol(ms));
  if (const char* domain = std::getenv("KRTRACKER_REMOTE_DOMAIN"); domain && *domain)
    options.domainId = std::atoi(domain);
  return options;
}

}  // namespace KR
