#pragma once
// Internal to the DDS transport of remote modules: KRRemote::Impl, its wire helpers and the
// status codes of a reply. transport.cpp opens and closes it, hosting.cpp serves the calls
// made to this process's modules, calling.cpp makes calls to other processes' modules and
// discovery.cpp follows which modules are announced.

#include <kr/broker/remote.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include <dds/dds.h>

#include "remote.h"  // generated from remote.idl

namespace KR {
namespace remote {

constexpr int kStatusResult = 0;
constexpr int kStatusKRError = 1;
constexpr int kStatusException = 2;

/// An octet sequence that borrows a byte vector for one write (DDS copies on write).
inline dds_sequence_octet borrow(std::vector<std::uint8_t>& bytes) {
  dds_sequence_octet seq{};
  seq._maximum = static_cast<std::uint32_t>(bytes.size());
  seq._length = static_cast<std::uint32_t>(bytes.size());
  seq._buffer = bytes.data();
  seq._release = false;
  return seq;
}

inline char* text(const std::string& s) {
  return const_cast<char*>(s.c_str());
}

}  // namespace remote

/// The transport: one DDS participant, writers and readers of the three topics, the calls
/// waiting for replies and the threads serving incoming calls.
class KRRemote::Impl : public std::enable_shared_from_this<KRRemote::Impl> {
 public:
  Impl(std::weak_ptr<KRBroker> broker, KRRemoteOptions options);
  ~Impl() { close(); }

  void open();
  void close();

  // ---- hosting (hosting.cpp) ------------------------------------------------------------

  void publish(const std::string& name);
  void unpublish(const std::string& name);
  void forget(const std::string& name);
  bool hosts(const std::string& name) const;

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

  static void onRequests(dds_entity_t reader, void* arg);
  void serveLoop();
  void serve(const Incoming& in);

  // ---- calling (calling.cpp) ------------------------------------------------------------

  struct Pending {
    std::condition_variable cv;
    bool done = false;
    bool closed = false;
    int status = 0;
    std::string errModule, errMethod, message;
    std::vector<std::uint8_t> result;
  };

  KRValue call(const std::string& target, const std::string& method,
               const std::vector<KRValue>& args, bool posted);
  static void onReplies(dds_entity_t reader, void* arg);
  void deliver(const krremote_Reply& r);

  // ---- discovery (discovery.cpp) --------------------------------------------------------

  static void onAnnounces(dds_entity_t reader, void* arg);
  bool waitForModule(const std::string& name, std::chrono::milliseconds timeout) const;
  KRRemoteModuleState state(const std::string& name) const;
  std::vector<std::string> announcedNames() const;
  bool callPathsMatched(dds_instance_handle_t announcer) const;

  std::chrono::milliseconds timeout() const { return std::chrono::milliseconds(fTimeoutMs.load()); }
  void setTimeout(std::chrono::milliseconds t) { fTimeoutMs.store(t.count()); }
  std::uint64_t droppedReplies() const { return fDroppedReplies.load(); }

 private:
  /// Wraps the argument list as one array value for the encoder without copying it twice.
  struct VectorArgs {
    explicit VectorArgs(const std::vector<KRValue>& args) : value(KRValue::Array(args)) {}
    KRValue value;
  };

  struct Topics {
    dds_entity_t request, reply, announce;
  };
  void joinDomain();
  Topics createTopics();
  void createWriters(const Topics& topics, const dds_qos_t* calls, const dds_qos_t* announces,
                     const dds_qos_t* announcer);
  void createReaders(const Topics& topics, const dds_qos_t* calls, const dds_qos_t* announces);
  dds_qos_t* announcerQos(const dds_qos_t* announces) const;
  dds_entity_t check(dds_entity_t e, const char* what);

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
  std::map<std::string, dds_instance_handle_t> fAnnouncer;  // the announcing writer, per module
  std::map<std::string, KRRemoteModuleState> fGone;         // no longer announced, and why
};

}  // namespace KR
