#include <kr/broker/remote.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <thread>
#include <unordered_map>

#include <dds/dds.h>
#include <unistd.h>

#include <ko/log.h>
#include <kr/value/encoding.h>

#include "remote.h"  // generated from remote.idl

namespace KR {

namespace {

constexpr int kStatusResult = 0;
constexpr int kStatusKRError = 1;
constexpr int kStatusException = 2;

/// An octet sequence that borrows a byte vector for one write (DDS copies on write).
dds_sequence_octet borrow(std::vector<std::uint8_t>& bytes) {
  dds_sequence_octet seq{};
  seq._maximum = static_cast<std::uint32_t>(bytes.size());
  seq._length = static_cast<std::uint32_t>(bytes.size());
  seq._buffer = bytes.data();
  seq._release = false;
  return seq;
}

char* text(const std::string& s) {
  return const_cast<char*>(s.c_str());
}

std::string makeClientId() {
  std::random_device rd;
  return std::to_string(::getpid()) + "-" + std::to_string(rd());
}

/// Creates the DDS domain with the given network configuration before the first participant
/// joins it. The domain then lives as long as the process, shared by every KRRemote of it;
/// once it exists (created by an earlier KRRemote), the configuration it has stays.
void configureDomain(dds_domainid_t domain, const std::string& config) {
  static std::mutex mutex;
  std::lock_guard<std::mutex> lock(mutex);
  const dds_entity_t created = dds_create_domain(domain, config.c_str());
  if (created < 0 && created != DDS_RETCODE_PRECONDITION_NOT_MET) {
    throw KRError("KRRemote", "attach",
                  std::string("cannot configure the DDS domain: ") + dds_strretcode(created));
  }
}

}  // namespace

/// The transport: one DDS participant, writers and readers of the three topics, the calls
/// waiting for replies and the threads serving incoming calls.
class KRRemote::Impl : public std::enable_shared_from_this<KRRemote::Impl> {
 public:
  Impl(std::weak_ptr<KRBroker> broker, KRRemoteOptions options)
      : fBroker(std::move(broker)),
        fOptions(std::move(options)),
        fClientId(makeClientId()),
        fTimeoutMs(fOptions.timeout.count()) {}

  ~Impl() { close(); }

  void open() {
    dds_domainid_t domain = static_cast<dds_domainid_t>(fOptions.domainId);
    if (fOptions.domainId < 0)
      domain = fOptions.ddsConfig.empty() ? DDS_DOMAIN_DEFAULT : 0;
    if (!fOptions.ddsConfig.empty())
      configureDomain(domain, fOptions.ddsConfig);
    fParticipant = dds_create_participant(domain, nullptr, nullptr);
    if (fParticipant < 0) {
      throw KRError("KRRemote", "attach",
                    std::string("cannot join the DDS domain: ") + dds_strretcode(fParticipant));
    }
    const std::string& p = fOptions.topicPrefix;
    dds_entity_t requestTopic = check(dds_create_topic(fParticipant, &krremote_Request_desc,
                                                       (p + "_request").c_str(), nullptr, nullptr),
                                      "request topic");
    dds_entity_t replyTopic = check(dds_create_topic(fParticipant, &krremote_Reply_desc,
                                                     (p + "_reply").c_str(), nullptr, nullptr),
                                    "reply topic");
    dds_entity_t announceTopic =
        check(dds_create_topic(fParticipant, &krremote_Announce_desc, (p + "_announce").c_str(),
                               nullptr, nullptr),
              "announce topic");

    // Calls and replies: reliable, nothing dropped from the history, nothing kept for readers
    // that join later (a restarted module must not run calls made before it came back).
    dds_qos_t* calls = dds_create_qos();
    dds_qset_reliability(calls, DDS_RELIABILITY_RELIABLE, DDS_SECS(1));
    dds_qset_history(calls, DDS_HISTORY_KEEP_ALL, 0);
    // Announces: the latest per module, delivered to readers that join later. The writer's
    // liveliness lease tells a host that died or stopped (its instances lose their writer)
    // from one that withdrew its modules (disposed, in unpublish and close); the reader
    // accepts any lease.
    dds_qos_t* announces = dds_create_qos();
    dds_qset_reliability(announces, DDS_RELIABILITY_RELIABLE, DDS_SECS(1));
    dds_qset_durability(announces, DDS_DURABILITY_TRANSIENT_LOCAL);
    dds_qset_history(announces, DDS_HISTORY_KEEP_LAST, 1);
    dds_qos_t* announcer = dds_create_qos();
    dds_copy_qos(announcer, announces);
    dds_qset_liveliness(announcer, DDS_LIVELINESS_AUTOMATIC,
                        DDS_MSECS(std::max<std::int64_t>(1, fOptions.liveliness.count())));
    // Instances are disposed only on purpose (unpublish, close): a writer that goes away
    // without that, with its process, leaves them without a writer.
    dds_qset_writer_data_lifecycle(announcer, false);

    fRequestWriter = check(dds_create_writer(fParticipant, requestTopic, calls, nullptr), "writer");
    fReplyWriter = check(dds_create_writer(fParticipant, replyTopic, calls, nullptr), "writer");
    fAnnounceWriter =
        check(dds_create_writer(fParticipant, announceTopic, announcer, nullptr), "writer");
    // The engine asserts a participant's automatic liveliness at 80% of its writers' shortest
    // lease, which leaves the announcements 0.1 s of a 0.5 s lease: a busy machine lapses it
    // and a live host reads as lost. A writer that never writes, with a quarter of the lease,
    // has it asserted five times per lease.
    dds_qos_t* pulse = dds_create_qos();
    dds_copy_qos(pulse, announces);
    dds_qset_liveliness(pulse, DDS_LIVELINESS_AUTOMATIC,
                        DDS_MSECS(std::max<std::int64_t>(1, fOptions.liveliness.count() / 4)));
    check(dds_create_writer(fParticipant, announceTopic, pulse, nullptr), "writer");
    dds_delete_qos(pulse);

    dds_listener_t* listener = dds_create_listener(this);
    dds_lset_data_available(listener, &Impl::onRequests);
    fRequestReader =
        check(dds_create_reader(fParticipant, requestTopic, calls, listener), "request reader");
    dds_lset_data_available(listener, &Impl::onReplies);
    fReplyReader =
        check(dds_create_reader(fParticipant, replyTopic, calls, listener), "reply reader");
    dds_lset_data_available(listener, &Impl::onAnnounces);
    fAnnounceReader = check(dds_create_reader(fParticipant, announceTopic, announces, listener),
                            "announce reader");
    dds_delete_listener(listener);
    dds_delete_qos(calls);
    dds_delete_qos(announces);
    dds_delete_qos(announcer);

    for (unsigned i = 0; i < std::max(1u, fOptions.servingThreads); ++i)
      fServers.emplace_back([this] { serveLoop(); });
  }

  void close() {
    {
      std::lock_guard<std::mutex> lock(fCloseMutex);
      if (fClosed)
        return;
      fClosed = true;
    }
    // The modules leave on purpose: disposed, so that other processes tell this from a death.
    // Deleting the participant then unregisters the announces and waits for running listeners.
    if (fParticipant > 0) {
      std::lock_guard<std::mutex> lock(fHostedMutex);
      for (const std::string& name : fHosted) {
        krremote_Announce a{};
        a.target = text(name);
        a.host = text(fClientId);
        dds_writedispose(fAnnounceWriter, &a);
      }
      dds_delete(fParticipant);
    }
    {
      std::lock_guard<std::mutex> lock(fQueueMutex);
      fStopping = true;
    }
    fQueueCv.notify_all();
    for (std::thread& t : fServers) {
      if (t.get_id() == std::this_thread::get_id()) {
        t.detach();
      } else if (t.joinable()) {
        t.join();
      }
    }
    std::lock_guard<std::mutex> lock(fPendingMutex);
    for (auto& entry : fPending) {
      entry.second->closed = true;
      entry.second->cv.notify_all();
    }
  }

  // ---- hosting --------------------------------------------------------------------------

  void publish(const std::string& name) {
    std::shared_ptr<KRBroker> broker = fBroker.lock();
    if (!broker || !broker->getModule(name))
      throw KRError("KRRemote", "publish", "no module named \"" + name + "\" in the broker");
    {
      std::lock_guard<std::mutex> lock(fHostedMutex);
      fHosted.insert(name);
    }
    krremote_Announce a{};
    a.target = text(name);
    a.host = text(fClientId);
    check(dds_write(fAnnounceWriter, &a), "announce");
  }

  void unpublish(const std::string& name) {
    {
      std::lock_guard<std::mutex> lock(fHostedMutex);
      if (fHosted.erase(name) == 0)
        return;
    }
    krremote_Announce a{};
    a.target = text(name);
    a.host = text(fClientId);
    dds_writedispose(fAnnounceWriter, &a);
    dds_unregister_instance(fAnnounceWriter, &a);
  }

  void forget(const std::string& name) {
    std::lock_guard<std::mutex> lock(fHostedMutex);
    fHosted.erase(name);
  }

  bool hosts(const std::string& name) const {
    std::lock_guard<std::mutex> lock(fHostedMutex);
    return fHosted.count(name) != 0;
  }

  struct Incoming {
    std::string client;
    std::uint64_t id = 0;
    std::string target;
    std::string method;
    bool posted = false;
    std::vector<std::uint8_t> args;
  };

  // Takes the reader's samples, in loans of up to 16, until none is left: handle(sample, info)
  // sees each one, and done() runs after each loan is returned.
  template <typename Sample, typename Handle, typename Done>
  static void takeAll(dds_entity_t reader, Handle&& handle, Done&& done) {
    void* samples[16] = {nullptr};
    dds_sample_info_t infos[16];
    for (;;) {
      const int n = dds_take(reader, samples, infos, 16, 16);
      if (n <= 0)
        return;
      for (int i = 0; i < n; ++i)
        handle(*static_cast<const Sample*>(samples[i]), infos[i]);
      dds_return_loan(reader, samples, n);
      done();
    }
  }

  static void onRequests(dds_entity_t reader, void* arg) {
    auto* self = static_cast<Impl*>(arg);
    std::vector<Incoming> batch;
    const auto take = [&](const krremote_Request& r, const dds_sample_info_t& info) {
      if (info.valid_data && self->hosts(r.target))  // else another process hosts it
        batch.push_back(
            Incoming{r.client, r.id, r.target, r.method, r.posted,
                     std::vector<std::uint8_t>(r.args._buffer, r.args._buffer + r.args._length)});
    };
    const auto queue = [&] {
      if (batch.empty())
        return;
      {
        std::lock_guard<std::mutex> lock(self->fQueueMutex);
        for (Incoming& in : batch)
          self->fQueue.push_back(std::move(in));
      }
      if (batch.size() == 1) {
        self->fQueueCv.notify_one();
      } else {
        self->fQueueCv.notify_all();
      }
      batch.clear();
    };
    takeAll<krremote_Request>(reader, take, queue);
  }

  void serveLoop() {
    std::unique_lock<std::mutex> lock(fQueueMutex);
    for (;;) {
      fQueueCv.wait(lock, [this] { return fStopping || !fQueue.empty(); });
      if (fStopping)
        return;
      Incoming in = std::move(fQueue.front());
      fQueue.pop_front();
      lock.unlock();
      serve(in);
      lock.lock();
    }
  }

  void serve(const Incoming& in) {
    krremote_Reply reply{};
    std::vector<std::uint8_t> result;
    std::string errModule, errMethod, message;
    try {
      std::shared_ptr<KRBroker> broker = fBroker.lock();
      std::shared_ptr<KRModule> module = broker ? broker->getModule(in.target) : nullptr;
      if (!module)
        throw KRError(in.target, in.method, "the module is no longer hosted here");
      KRValue args = decodeKRValue(in.args);
      if (!args.isArray())
        throw KRError(in.target, in.method, "malformed arguments");
      if (broker->hasObserver())
        broker->notifyCall(in.target, in.method, args.asArray(), in.posted);
      encodeKRValue(module->invoke(in.method, args.asArray()), result);
      reply.status = kStatusResult;
    } catch (const KRError& e) {
      reply.status = kStatusKRError;
      errModule = e.module();
      errMethod = e.method();
      message = e.message();
    } catch (const std::exception& e) {
      reply.status = kStatusException;
      message = e.what();
    } catch (...) {
      reply.status = kStatusException;
      message = "unknown exception";
    }
    reply.client = text(in.client);
    reply.id = in.id;
    reply.errModule = text(errModule);
    reply.errMethod = text(errMethod);
    reply.message = text(message);
    reply.result = borrow(result);
    const dds_return_t rc = dds_write(fReplyWriter, &reply);
    if (rc < 0) {
      ko::log::error(
          "KRRemote", "serve",
          "cannot send the reply of " + in.target + "." + in.method + ": " + dds_strretcode(rc));
    }
  }

  // ---- calling --------------------------------------------------------------------------

  struct Pending {
    std::condition_variable cv;
    bool done = false;
    bool closed = false;
    int status = 0;
    std::string errModule, errMethod, message;
    std::vector<std::uint8_t> result;
  };

  KRValue call(const std::string& target, const std::string& method,
               const std::vector<KRValue>& args, bool posted) {
    auto pending = std::make_shared<Pending>();
    const std::uint64_t id = fNextId.fetch_add(1, std::memory_order_relaxed) + 1;
    {
      std::lock_guard<std::mutex> lock(fPendingMutex);
      if (fClosed)
        throw KRError(target, method, "the remote transport is closed");
      fPending.emplace(id, pending);
    }
    std::vector<std::uint8_t> encoded;
    {
      VectorArgs view(args);
      encodeKRValue(view.value, encoded);
    }
    krremote_Request request{};
    request.client = text(fClientId);
    request.id = id;
    request.target = text(target);
    request.method = text(method);
    request.posted = posted;
    request.args = borrow(encoded);
    const auto timeout = std::chrono::milliseconds(fTimeoutMs.load());
    const dds_return_t rc = dds_write(fRequestWriter, &request);

    std::unique_lock<std::mutex> lock(fPendingMutex);
    const bool answered = rc >= 0 && pending->cv.wait_for(lock, timeout, [&] {
      return pending->done || pending->closed;
    });
    fPending.erase(id);  // a reply arriving from now on is dropped
    lock.unlock();
    if (rc < 0)
      throw KRError(target, method, std::string("cannot send the call: ") + dds_strretcode(rc));
    if (!answered) {
      throw KRError(target, method,
                    "no reply within " + std::to_string(timeout.count()) +
                        " ms: the call was not delivered or the module is not answering");
    }
    if (!pending->done)
      throw KRError(target, method, "the remote transport is closed");
    switch (pending->status) {
      case kStatusResult:
        return decodeKRValue(pending->result);
      case kStatusKRError:
        throw KRError(pending->errModule, pending->errMethod, pending->message);
      default:
        throw std::runtime_error(pending->message);
    }
  }

  static void onReplies(dds_entity_t reader, void* arg) {
    auto* self = static_cast<Impl*>(arg);
    takeAll<krremote_Reply>(
        reader,
        [self](const krremote_Reply& r, const dds_sample_info_t& info) {
          if (info.valid_data && self->fClientId == r.client)
            self->deliver(r);
        },
        [] {});
  }

  void deliver(const krremote_Reply& r) {
    std::lock_guard<std::mutex> lock(fPendingMutex);
    auto it = fPending.find(r.id);
    if (it == fPending.end()) {
      fDroppedReplies.fetch_add(1, std::memory_order_relaxed);
      return;  // the call gave up; its reply must not reach anyone else
    }
    Pending& p = *it->second;
    p.status = r.status;
    if (p.status == kStatusResult) {
      p.result.assign(r.result._buffer, r.result._buffer + r.result._length);
    } else {
      p.errModule = r.errModule;
      p.errMethod = r.errMethod;
      p.message = r.message;
    }
    p.done = true;
    p.cv.notify_all();
  }

  // ---- discovery ------------------------------------------------------------------------

  static void onAnnounces(dds_entity_t reader, void* arg) {
    auto* self = static_cast<Impl*>(arg);
    takeAll<krremote_Announce>(
        reader,
        [self](const krremote_Announce& a, const dds_sample_info_t& info) {
          if (info.valid_data && self->fClientId == a.host)
            return;  // our own module
          std::lock_guard<std::mutex> lock(self->fAnnounceMutex);
          // Invalid samples carry the key: the module's host stopped publishing it (disposed)
          // or gave no sign of life (no writer left).
          if (info.instance_state == DDS_IST_ALIVE && info.valid_data) {
            self->fAnnounced[a.target] = a.host;
            self->fGone.erase(a.target);
          } else {
            auto it = self->fAnnounced.find(a.target);
            if (it != self->fAnnounced.end() && (!info.valid_data || it->second == a.host)) {
              self->fAnnounced.erase(it);
              self->fGone[a.target] = info.instance_state == DDS_IST_NOT_ALIVE_DISPOSED
                                          ? KRRemoteModuleState::Withdrawn
                                          : KRRemoteModuleState::Lost;
            }
          }
        },
        [self] { self->fAnnounceCv.notify_all(); });
  }

  bool waitForModule(const std::string& name, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(fAnnounceMutex);
    return fAnnounceCv.wait_for(lock, timeout, [&] { return fAnnounced.count(name) != 0; });
  }

  KRRemoteModuleState state(const std::string& name) const {
    std::lock_guard<std::mutex> lock(fAnnounceMutex);
    if (fAnnounced.count(name) != 0)
      return KRRemoteModuleState::Announced;
    const auto it = fGone.find(name);
    return it == fGone.end() ? KRRemoteModuleState::Unknown : it->second;
  }

  std::vector<std::string> announcedNames() const {
    std::vector<std::string> names;
    std::lock_guard<std::mutex> lock(fAnnounceMutex);
    for (const auto& entry : fAnnounced)
      names.push_back(entry.first);
    return names;
  }

  std::chrono::milliseconds timeout() const { return std::chrono::milliseconds(fTimeoutMs.load()); }
  void setTimeout(std::chrono::milliseconds t) { fTimeoutMs.store(t.count()); }
  std::uint64_t droppedReplies() const { return fDroppedReplies.load(); }

 private:
  /// Wraps the argument list as one array value for the encoder without copying it twice.
  struct VectorArgs {
    explicit VectorArgs(const std::vector<KRValue>& args) : value(KRValue::Array(args)) {}
    KRValue value;
  };

  dds_entity_t check(dds_entity_t e, const char* what) {
    if (e < 0) {
      throw KRError("KRRemote", "attach",
                    std::string("cannot create the ") + what + ": " + dds_strretcode(e));
    }
    return e;
  }

  std::weak_ptr<KRBroker> fBroker;
  const KRRemoteOptions fOptions;
  const std::string fClientId;
  std::atomic<std::int64_t> fTimeoutMs;

  dds_entity_t fParticipant = 0;
  dds_entity_t fRequestWriter = 0, fReplyWriter = 0, fAnnounceWriter = 0;
  dds_entity_t fRequestReader = 0, fReplyReader = 0, fAnnounceReader = 0;

  std::mutex fCloseMutex;
  std::atomic<bool> fClosed{false};

  mutable std::mutex fHostedMutex;
  std::set<std::string> fHosted;

  std::mutex fQueueMutex;
  std::condition_variable fQueueCv;
  std::deque<Incoming> fQueue;
  bool fStopping = false;
  std::vector<std::thread> fServers;

  std::atomic<std::uint64_t> fNextId{0};
  std::mutex fPendingMutex;
  std::unordered_map<std::uint64_t, std::shared_ptr<Pending>> fPending;
  std::atomic<std::uint64_t> fDroppedReplies{0};

  mutable std::mutex fAnnounceMutex;
  mutable std::condition_variable fAnnounceCv;
  std::map<std::string, std::string> fAnnounced;
  std::map<std::string, KRRemoteModuleState> fGone;  // no longer announced, and why
};

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
