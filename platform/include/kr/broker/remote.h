#pragma once
// Remote modules over DDS. Attached to a broker, a KRRemote publishes the broker's modules to
// every process of the same DDS domain (and topic prefix) and lets the broker's getProxy reach
// modules hosted by those processes when no local module has the name. Calls ride a request
// and a reply topic with correlation ids; a call that gets no reply within the timeout fails
// with a KRError; replies that arrive after their call gave up are dropped.
//
// The DDS network is set by KRRemoteOptions::ddsConfig: by default the loopback interface
// only, with no multicast and 127.0.0.1 as the one discovery peer, so nothing leaves the
// machine unless a program asks for another network.

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <kr/broker/broker.h>

namespace KR {

/// Cyclone DDS configuration that keeps every packet on this machine: the loopback interface,
/// no multicast, 127.0.0.1 as the one discovery peer.
inline constexpr const char* kLoopbackDdsConfig =
    "<CycloneDDS><Domain id=\"any\"><General><Interfaces><NetworkInterface name=\"lo\"/>"
    "</Interfaces><AllowMulticast>false</AllowMulticast></General><Discovery>"
    "<ParticipantIndex>auto</ParticipantIndex><MaxAutoParticipantIndex>40"
    "</MaxAutoParticipantIndex><Peers><Peer address=\"127.0.0.1\"/></Peers></Discovery>"
    "</Domain></CycloneDDS>";

struct KRRemoteOptions {
  /// Prefix of the topic names: only processes with the same prefix see each other.
  std::string topicPrefix = "kr";
  /// How long a call waits for its reply, and getProxy for a module to be discovered.
  std::chrono::milliseconds timeout{1000};
  /// The DDS domain; negative for domain 0 (or, with an empty ddsConfig, the engine's default).
  int domainId = -1;
  /// The network: a Cyclone DDS configuration (XML text or a file:// URI) applied to the
  /// domain. Empty leaves it to the engine's own configuration (CYCLONEDDS_URI), e.g. to reach
  /// other machines.
  std::string ddsConfig = kLoopbackDdsConfig;
  /// Threads running incoming calls, so that calls nested across processes do not wait on
  /// one another.
  unsigned servingThreads = 4;
  /// How long a process may go without a sign of life before the modules it hosts count as
  /// lost (KRRemoteModuleState::Lost): the lease of the announcements' automatic liveliness,
  /// renewed by the DDS engine's own threads, so that a process killed or stopped (SIGSTOP) is
  /// noticed this long after it last ran.
  std::chrono::milliseconds liveliness{500};
};

/// What a process knows of a module hosted by another.
enum class KRRemoteModuleState {
  Unknown,    // never announced to this process
  Announced,  // its host serves it
  Withdrawn,  // its host stopped serving it (unpublish, close, or the end of the process)
  Lost,       // its host gave no sign of life for KRRemoteOptions::liveliness
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
  /// Stops serving a module without withdrawing its announcement, for a module that another
  /// process serves under the same name: that process's announcement stays in force.
  void forget(const std::string& module);

  void setTimeout(std::chrono::milliseconds timeout);
  std::chrono::milliseconds getTimeout() const;

  /// Waits until a module hosted elsewhere is announced and this process's calls and replies
  /// are matched with its host's; false on timeout.
  bool waitForModule(const std::string& module, std::chrono::milliseconds timeout) const;
  /// Names of the modules other processes announce now, sorted.
  std::vector<std::string> getRemoteModuleNames() const;
  /// Whether a module of another process is served, was withdrawn or was lost.
  KRRemoteModuleState getModuleState(const std::string& module) const;
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
/// prefix), KRTRACKER_REMOTE_TIMEOUT_MS (timeout), KRTRACKER_REMOTE_DOMAIN (domain id),
/// KRTRACKER_DDS_CONFIG (the network: a Cyclone DDS configuration, "loopback" for
/// kLoopbackDdsConfig, or "engine" to use CYCLONEDDS_URI); loopback only when it is not set.
KRRemoteOptions remoteOptionsFromEnvironment();

}  // namespace KR
