// Discovery: which modules other processes announce, and why one is no longer announced
// (withdrawn on purpose, or its host lost).

#include <mutex>
#include <string>
#include <thread>
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
          self->fAnnouncer[a.target] = info.publication_handle;
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
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  dds_instance_handle_t announcer = 0;
  {
    std::unique_lock<std::mutex> lock(fAnnounceMutex);
    if (!fAnnounceCv.wait_until(lock, deadline, [&] { return fAnnounced.count(name) != 0; }))
      return false;
    announcer = fAnnouncer.at(name);
  }
  // The announcement can arrive before this process's request writer and reply reader are
  // matched with the host's: a call written then reaches nobody and times out. Wait for both.
  while (!callPathsMatched(announcer)) {
    if (std::chrono::steady_clock::now() >= deadline)
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

namespace {

/// The participant that owns a matched remote endpoint, 0 if it is not matched (any more).
dds_instance_handle_t ownerOf(dds_builtintopic_endpoint_t* endpoint) {
  if (endpoint == nullptr)
    return 0;
  const dds_instance_handle_t owner = endpoint->participant_instance_handle;
  dds_builtintopic_free_endpoint(endpoint);
  return owner;
}

/// Whether one of the endpoints matched with `entity` belongs to `participant`.
template <typename List, typename Data>
bool matchedWith(dds_entity_t entity, dds_instance_handle_t participant, List list, Data data) {
  std::vector<dds_instance_handle_t> handles(16);
  dds_return_t n = list(entity, handles.data(), handles.size());
  if (n > static_cast<dds_return_t>(handles.size())) {
    handles.resize(static_cast<std::size_t>(n));
    n = list(entity, handles.data(), handles.size());
  }
  for (dds_return_t i = 0; i < n && i < static_cast<dds_return_t>(handles.size()); ++i) {
    if (ownerOf(data(entity, handles[static_cast<std::size_t>(i)])) == participant)
      return true;
  }
  return false;
}

}  // namespace

bool KRRemote::Impl::callPathsMatched(dds_instance_handle_t announcer) const {
  const dds_instance_handle_t host =
      ownerOf(dds_get_matched_publication_data(fAnnounceReader, announcer));
  if (host == 0)
    return true;  // the announcer is gone again; the call reports that itself
  return matchedWith(fRequestWriter, host, dds_get_matched_subscriptions,
                     dds_get_matched_subscription_data) &&
         matchedWith(fReplyReader, host, dds_get_matched_publications,
                     dds_get_matched_publication_data);
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
