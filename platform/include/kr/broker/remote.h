#pragma once
// Remote modules over DDS. Attached to a broker, a KRRemote publishes the broker's modules to
// every process of the same DDS domain (and topic prefix) and lets the broker's getProxy reach
// modules hosted by those processes when no local module has the name. Calls ride a request
// and a reply topic with correlation ids; a call that gets no reply within the timeout fails
// with a KRError; replies that arrive after their call gave up are dropped.
//
// The DDS network settings come from the engine's configuration (CYCLONEDDS_URI); the
// project's config/cyclonedds-loopback.xml keeps every packet on the loopback interface.

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <kr/broker/broker.h>

namespace KR {

struct KRRemoteOptions {
  /// Prefix of the topic names: only processes with the same prefix see each other.
  std::string topicPrefix = "kr";
  /// How long a call waits for its reply, and getProxy for a module to be discovered.
  std::chrono::milliseconds timeout{1000};
  /// The DDS domain; negative for the configuration's default.
  int domainId = -1;
  /// Threads running incoming calls, so that calls nested across processes do not wait on
  /// one another.
  unsigned servingThreads = 4;
};

class KRRemote {
 public:
  /// Joins the DDS domain and hooks into the broker's getProxy. Throws KRError when DDS cannot
  /// be started. The broker keeps working in-process if this is never called.
  static std::shared_ptr<KRRemote> attach(const std::shared_ptr<KRBroker>& broker,
                                          KRRemoteOptions options = {});
  ~KRRemote();
  KRRemote(const KRRemote&) = delete;
  KRRemote& operator=(const KRRemote&) = delete;

  /// Serves a module of the broker to other processes. Throws KRError when the broker has no
  /// such module.
  void publish(const std::string& module);
  /// Serves every module the broker holds now.
  void publishAll();
  /// Stops serving a module; its callers time out.
  void unpublish(const std::string& module);

  void setTimeout(std::chrono::milliseconds timeout);
  std::chrono::milliseconds getTimeout() const;

  /// Waits until a module hosted elsewhere is announced; false on timeout.
  bool waitForModule(const std::string& module, std::chrono::milliseconds timeout) const;
  /// Names of the modules other processes announce now, sorted.
  std::vector<std::string> getRemoteModuleNames() const;
  /// Replies received for calls that had already given up, and dropped.
  std::uint64_t getDroppedReplyCount() const;

  /// Detaches from the broker and leaves the domain; pending calls fail at once.
  void close();

  class Impl;

 private:
  explicit KRRemote(std::shared_ptr<Impl> impl);
  std::shared_ptr<Impl> fImpl;
  std::weak_ptr<KRBroker> fBroker;
};

/// Options from the environment, for programs started by hand: KRTRACKER_REMOTE_PREFIX (topic
/// prefix), KRTRACKER_REMOTE_TIMEOUT_MS (timeout), KRTRACKER_REMOTE_DOMAIN (domain id).
KRRemoteOptions remoteOptionsFromEnvironment();

}  // namespace KR
