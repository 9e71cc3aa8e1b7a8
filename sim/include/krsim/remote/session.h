#pragma once
// One side of a run over DDS (the robot side, or the tracking service) and what it knows of the
// other. Each side publishes a small module of its own first ("_KRSimRobot", "_KRSimTracker"):
// it claims the topic prefix (a second side of the same kind is refused), carries a
// description of the run, and takes the other side's last word ("finish", why the run
// ended). The other side's death or stall is noticed through the liveliness of its
// announcements (KRRemoteOptions::liveliness, 0.5 s by default).

#include <chrono>
#include <iosfwd>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include <kr/broker/broker.h>
#include <kr/broker/remote.h>

namespace KR {
namespace Sim {

enum class Side { Robot, Tracker };

/// Exit codes of a side, besides 0, 1 (failure), 2 (refused) and 128 + a signal's number.
inline constexpr int kExitPeerLost = 3;  // the other side was lost, or left before the end
inline constexpr int kExitNoPeer = 4;    // the other side did not appear within the wait

/// How long a side waits [s].
struct SessionTimes {
  /// Before it claims the prefix: long enough to discover a side already there on loopback.
  double discoveryS = 1.0;
  /// For the other side to appear, then it gives up (--wait).
  double waitS = 60.0;
};

/// Why a side ends before (or instead of) its run: the one line for the user, the exit code.
struct SessionEnd : std::runtime_error {
  SessionEnd(int code, const std::string& what) : std::runtime_error(what), code(code) {}
  int code;
};

/// The module each side publishes first.
class SideModule : public KRModule {
 public:
  SideModule(Side side, KRValue description);
  static std::string nameOf(Side side);
  /// What the other side said when the run ended; empty while it has said nothing.
  std::string finished() const;

 private:
  mutable std::mutex fMutex;
  std::string fFinished;
};

class RemoteSession {
 public:
  /// Joins the DDS domain of `options` with `broker`; progress lines go to `out`.
  RemoteSession(Side side, std::shared_ptr<KRBroker> broker, KRRemoteOptions options,
                std::ostream& out);
  ~RemoteSession();
  RemoteSession(const RemoteSession&) = delete;
  RemoteSession& operator=(const RemoteSession&) = delete;

  /// Looks for a side of this kind on the prefix for `discoveryS`, then publishes this side's
  /// module, answering `description` to "describe". SessionEnd(2, "... prefix 'P' ...") when
  /// another side of this kind is there (for a robot side, also when the tracking service
  /// already serves one).
  void claim(const KRValue& description, double discoveryS);
  /// Waits for the other side's modules `names` (its own module too), saying what it waits
  /// for. SessionEnd: kExitNoPeer after `waitS`, 128 + the signal on SIGINT or SIGTERM, 2
  /// when a side of this kind is found on the prefix meanwhile (this side then stops serving
  /// without withdrawing the names both serve).
  void waitForPeer(const std::vector<std::string>& names, double waitS);
  /// Why the run cannot go on, empty while the other side is there: its last word, or that
  /// it left without one, or that it was lost.
  std::string peerGone() const;
  /// What the other side said when the run ended, empty while it has said nothing.
  std::string peerLastWord() const;
  /// The other side's description ("describe"); invalid when it cannot be had.
  KRValue peerDescription() const;
  /// Tells the other side why the run ended, waiting at most a short while for it.
  void tellPeer(const std::string& status);
  /// Stops serving, then leaves the domain; the other side sees this side withdrawn.
  void close();

  KRRemote& remote() { return *fRemote; }
  const std::string& prefix() const { return fPrefix; }
  /// "robot side" or "tracking service".
  static std::string title(Side side);

 private:
  bool xSameKindPresent() const;
  [[noreturn]] void xRefusePrefix() const;

  const Side fSide;
  const std::string fPrefix;
  const std::chrono::milliseconds fLiveliness;
  std::shared_ptr<KRBroker> fBroker;
  std::shared_ptr<KRRemote> fRemote;
  std::shared_ptr<SideModule> fModule;
  std::ostream& fOut;
};

}  // namespace Sim
}  // namespace KR
