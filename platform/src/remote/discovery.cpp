// Discovery: which modules other processes announce, and why one is no longer announced
// (withdrawn on purpose, or its host lost).

#include <mutex>
#include <string>
#include <vector>

#include "transport.h"

namespace KR {

void KRRemote::Impl::onAnnounces(dds_entity_t reader, void* arg) {
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

bool KRRemote::Impl::waitForModule(const std::string& name,
                                   std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(fAnnounceMutex);
  return fAnnounceCv.wait_for(lock, timeout, [&] { return fAnnounced.count(name) != 0; });
}

KRRemoteModuleState KRRemote::Impl::state(const std::string& name) const {
  std::lock_guard<std::mutex> lock(fAnnounceMutex);
  if (fAnnounced.count(name) != 0)
    return KRRemoteModuleState::Announced;
  const auto it = fGone.find(name);
  return it == fGone.end() ? KRRemoteModuleState::Unknown : it->second;
}

std::vector<std::string> KRRemote::Impl::announcedNames() const {
  std::vector<std::string> names;
  std::lock_guard<std::mutex> lock(fAnnounceMutex);
  for (const auto& entry : fAnnounced)
    names.push_back(entry.first);
  return names;
}

}  // namespace KR
