#include <krsim/remote/session.h>

#include <ostream>
#include <sstream>
#include <thread>

#include <krsim/run/run_loop.h>
#include <krsim/tracking/tracker_service.h>

namespace KR {
namespace Sim {

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

/// How often a waiting side looks again.
constexpr auto kPoll = 20ms;
/// How long the other side's last word may take to arrive.
constexpr auto kLastWordTimeout = 500ms;

Side other(Side side) {
  return side == Side::Robot ? Side::Tracker : Side::Robot;
}

/// The modules by which a side of this kind is known.
std::vector<std::string> kindModules(Side side) {
  return side == Side::Robot
             ? std::vector<std::string>{SideModule::nameOf(side), "KRMotion"}
             : std::vector<std::string>{SideModule::nameOf(side), kTrackerServiceModule};
}

Clock::time_point after(double seconds) {
  return Clock::now() +
         std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

std::string seconds(double s) {
  std::ostringstream os;
  os << s;
  return os.str();
}

}  // namespace

SideModule::SideModule(Side side, KRValue description) : KRModule(nameOf(side)) {
  bind("describe", [description]() { return description; });
  bind("finish", [this](const std::string& status) {
    std::lock_guard<std::mutex> lock(fMutex);
    fFinished = status.empty() ? "(no reason given)" : status;
  });
}

std::string SideModule::nameOf(Side side) {
  return side == Side::Robot ? "_KRSimRobot" : "_KRSimTracker";
}

std::string SideModule::finished() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fFinished;
}

RemoteSession::RemoteSession(Side side, std::shared_ptr<KRBroker> broker, KRRemoteOptions options,
                             std::ostream& out)
    : fSide(side),
      fPrefix(options.topicPrefix),
      fLiveliness(options.liveliness),
      fBroker(std::move(broker)),
      fOut(out) {
  fRemote = KRRemote::attach(fBroker, std::move(options));
}

RemoteSession::~RemoteSession() {
  close();
}

std::string RemoteSession::title(Side side) {
  return side == Side::Robot ? "robot side" : "tracking service";
}

bool RemoteSession::xSameKindPresent() const {
  for (const std::string& name : kindModules(fSide)) {
    if (fRemote->getModuleState(name) == KRRemoteModuleState::Announced)
      return true;
  }
  return false;
}

void RemoteSession::xRefusePrefix() const {
  throw SessionEnd(2, "topic prefix '" + fPrefix + "' is in use: another " + title(fSide) +
                          " is on it; give each run a prefix of its own "
                          "(KRTRACKER_REMOTE_PREFIX)");
}

void RemoteSession::claim(const KRValue& description, double discoveryS) {
  const auto end = after(discoveryS);
  while (Clock::now() < end) {
    // The tracking service publishes "KRTracker" once it has found its robot side: found
    // before this robot side is on the prefix, it serves another.
    if (xSameKindPresent() ||
        (fSide == Side::Robot &&
         fRemote->getModuleState(kTrackerServiceModule) == KRRemoteModuleState::Announced))
      xRefusePrefix();
    if (const int signal = StopSignals::received())
      throw SessionEnd(128 + signal, title(fSide) + ": stopped by signal " +
                                         std::to_string(signal) + " before the run");
    std::this_thread::sleep_for(kPoll);
  }
  fModule = std::make_shared<SideModule>(fSide, description);
  fBroker->addModule(fModule);
  fRemote->publish(fModule->getName());
}

void RemoteSession::waitForPeer(const std::vector<std::string>& names, double waitS) {
  const std::string peer = title(other(fSide));
  fOut << title(fSide) << ": waiting for the " << peer << " on topic prefix '" << fPrefix
       << "' (krtracker-sim " << (fSide == Side::Robot ? "remote-tracker" : "remote-robot")
       << " with the same KRTRACKER_REMOTE_PREFIX), giving up after " << seconds(waitS) << " s\n"
       << std::flush;
  const auto end = after(waitS);
  for (;;) {
    bool all = true;
    for (const std::string& name : names)
      all = all && fRemote->getModuleState(name) == KRRemoteModuleState::Announced;
    if (all)
      return;
    if (xSameKindPresent()) {
      // Both on the prefix, this one found the other late (discovery slower than the claim's
      // look): it steps aside without withdrawing what the other serves under the same names.
      for (const std::string& name : fBroker->getModuleNames())
        fRemote->forget(name);
      xRefusePrefix();
    }
    if (const int signal = StopSignals::received()) {
      throw SessionEnd(128 + signal, title(fSide) + ": stopped by signal " +
                                         std::to_string(signal) + " while waiting for the " + peer);
    }
    if (Clock::now() >= end) {
      throw SessionEnd(kExitNoPeer, title(fSide) + ": no " + peer + " appeared on topic prefix '" +
                                        fPrefix + "' within " + seconds(waitS) + " s");
    }
    std::this_thread::sleep_for(kPoll);
  }
}

std::string RemoteSession::peerGone() const {
  if (!fRemote)
    return "";
  const std::string peer = title(other(fSide));
  const std::string said = peerLastWord();
  if (!said.empty())
    return "the " + peer + " ended: " + said;
  switch (fRemote->getModuleState(SideModule::nameOf(other(fSide)))) {
    case KRRemoteModuleState::Withdrawn:
      return "the " + peer + " left before the end";
    case KRRemoteModuleState::Lost:
      return "the " + peer + " was lost: no sign of life for " +
             std::to_string(fLiveliness.count()) + " ms (killed, stopped or cut off)";
    default:
      return "";
  }
}

std::string RemoteSession::peerLastWord() const {
  return fModule ? fModule->finished() : std::string();
}

KRValue RemoteSession::peerDescription() const {
  try {
    return fBroker->getProxy(SideModule::nameOf(other(fSide)))->call<KRValue>("describe");
  } catch (const std::exception&) {
    return KRValue();
  }
}

void RemoteSession::tellPeer(const std::string& status) {
  const std::string name = SideModule::nameOf(other(fSide));
  if (!fRemote || fRemote->getModuleState(name) != KRRemoteModuleState::Announced)
    return;
  const auto timeout = fRemote->getTimeout();
  fRemote->setTimeout(kLastWordTimeout);
  try {
    fBroker->getProxy(name)->call<void>("finish", status);
  } catch (const std::exception&) {
    // The other side may be gone already: its own watch says so.
  }
  fRemote->setTimeout(timeout);
}

void RemoteSession::close() {
  if (!fRemote)
    return;
  if (fModule)
    fRemote->unpublish(fModule->getName());  // nothing when it stepped aside
  fRemote->close();
  fRemote.reset();
}

}  // namespace Sim
}  // namespace KR
