// The DDS entities of the transport: the domain joined, the three topics, their writers and
// readers with the qualities each needs, and the serving threads; all of it closed again.

#include <algorithm>
#include <mutex>
#include <random>
#include <set>
#include <string>

#include <unistd.h>

#include "transport.h"

namespace KR {

using remote::text;

namespace {

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

/// Calls and replies: reliable, nothing dropped from the history, nothing kept for readers that
/// join later (a restarted module must not run calls made before it came back).
dds_qos_t* callQos() {
  dds_qos_t* calls = dds_create_qos();
  dds_qset_reliability(calls, DDS_RELIABILITY_RELIABLE, DDS_SECS(1));
  dds_qset_history(calls, DDS_HISTORY_KEEP_ALL, 0);
  return calls;
}

/// Announces: the latest per module, delivered to readers that join later.
dds_qos_t* announceQos() {
  dds_qos_t* announces = dds_create_qos();
  dds_qset_reliability(announces, DDS_RELIABILITY_RELIABLE, DDS_SECS(1));
  dds_qset_durability(announces, DDS_DURABILITY_TRANSIENT_LOCAL);
  dds_qset_history(announces, DDS_HISTORY_KEEP_LAST, 1);
  return announces;
}

}  // namespace

KRRemote::Impl::Impl(std::weak_ptr<KRBroker> broker, KRRemoteOptions options)
    : fBroker(std::move(broker)),
      fOptions(std::move(options)),
      fClientId(makeClientId()),
      fTimeoutMs(fOptions.timeout.count()) {}

void KRRemote::Impl::open() {
  joinDomain();
  const Topics topics = createTopics();
  dds_qos_t* calls = callQos();
  dds_qos_t* announces = announceQos();
  dds_qos_t* announcer = announcerQos(announces);
  createWriters(topics, calls, announces, announcer);
  createReaders(topics, calls, announces);
  dds_delete_qos(calls);
  dds_delete_qos(announces);
  dds_delete_qos(announcer);

  for (unsigned i = 0; i < std::max(1u, fOptions.servingThreads); ++i)
    fServers.emplace_back([this] { serveLoop(); });
}

void KRRemote::Impl::joinDomain() {
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
}

KRRemote::Impl::Topics KRRemote::Impl::createTopics() {
  const std::string& p = fOptions.topicPrefix;
  Topics t;
  t.request = check(dds_create_topic(fParticipant, &krremote_Request_desc, (p + "_request").c_str(),
                                     nullptr, nullptr),
                    "request topic");
  t.reply = check(dds_create_topic(fParticipant, &krremote_Reply_desc, (p + "_reply").c_str(),
                                   nullptr, nullptr),
                  "reply topic");
  t.announce = check(dds_create_topic(fParticipant, &krremote_Announce_desc,
                                      (p + "_announce").c_str(), nullptr, nullptr),
                     "announce topic");
  return t;
}

// The announcer's liveliness lease tells a host that died or stopped (its instances lose their
// writer) from one that withdrew its modules (disposed, in unpublish and close); the reader
// accepts any lease.
dds_qos_t* KRRemote::Impl::announcerQos(const dds_qos_t* announces) const {
  dds_qos_t* announcer = dds_create_qos();
  dds_copy_qos(announcer, announces);
  dds_qset_liveliness(announcer, DDS_LIVELINESS_AUTOMATIC,
                      DDS_MSECS(std::max<std::int64_t>(1, fOptions.liveliness.count())));
  // Instances are disposed only on purpose (unpublish, close): a writer that goes away
  // without that, with its process, leaves them without a writer.
  dds_qset_writer_data_lifecycle(announcer, false);
  return announcer;
}

void KRRemote::Impl::createWriters(const Topics& topics, const dds_qos_t* calls,
                                   const dds_qos_t* announces, const dds_qos_t* announcer) {
  fRequestWriter = check(dds_create_writer(fParticipant, topics.request, calls, nullptr), "writer");
  fReplyWriter = check(dds_create_writer(fParticipant, topics.reply, calls, nullptr), "writer");
  fAnnounceWriter =
      check(dds_create_writer(fParticipant, topics.announce, announcer, nullptr), "writer");
  // The engine asserts a participant's automatic liveliness at 80% of its writers' shortest
  // lease, which leaves the announcements 0.1 s of a 0.5 s lease: a busy machine lapses it
  // and a live host reads as lost. A writer that never writes, with a quarter of the lease,
  // has it asserted five times per lease.
  dds_qos_t* pulse = dds_create_qos();
  dds_copy_qos(pulse, announces);
  dds_qset_liveliness(pulse, DDS_LIVELINESS_AUTOMATIC,
                      DDS_MSECS(std::max<std::int64_t>(1, fOptions.liveliness.count() / 4)));
  check(dds_create_writer(fParticipant, topics.announce, pulse, nullptr), "writer");
  dds_delete_qos(pulse);
}

void KRRemote::Impl::createReaders(const Topics& topics, const dds_qos_t* calls,
                                   const dds_qos_t* announces) {
  dds_listener_t* listener = dds_create_listener(this);
  dds_lset_data_available(listener, &Impl::onRequests);
  fRequestReader =
      check(dds_create_reader(fParticipant, topics.request, calls, listener), "request reader");
  dds_lset_data_available(listener, &Impl::onReplies);
  fReplyReader =
      check(dds_create_reader(fParticipant, topics.reply, calls, listener), "reply reader");
  dds_lset_data_available(listener, &Impl::onAnnounces);
  fAnnounceReader = check(dds_create_reader(fParticipant, topics.announce, announces, listener),
                          "announce reader");
  dds_delete_listener(listener);
}

void KRRemote::Impl::close() {
  {
    std::lock_guard<std::mutex> lock(fCloseMutex);
    if (fClosed)
      return;
    fClosed = true;
  }
  // The modules leave on purpose: disposed, so that other processes tell this from a death.
  // Deleting the participant then unregisters the announces and waits for running listeners,
  // so it runs without the hosted-module lock: a request listener takes that lock.
  if (fParticipant > 0) {
    std::set<std::string> hosted;
    {
      std::lock_guard<std::mutex> lock(fHostedMutex);
      hosted = fHosted;
    }
    for (const std::string& name : hosted) {
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

dds_entity_t KRRemote::Impl::check(dds_entity_t e, const char* what) {
  if (e < 0) {
    throw KRError("KRRemote", "attach",
                  std::string("cannot create the ") + what + ": " + dds_strretcode(e));
  }
  return e;
}

}  // namespace KR
