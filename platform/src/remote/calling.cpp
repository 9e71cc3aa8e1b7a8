// Calling: a call to another process's module written as a request and waited for until its
// reply arrives, the transport closes or the timeout passes.

#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include <kr/value/encoding.h>

#include "transport.h"

namespace KR {

using namespace remote;

KRValue KRRemote::Impl::call(const std::string& target, const std::string& method,
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

void KRRemote::Impl::onReplies(dds_entity_t reader, void* arg) {
  auto* self = static_cast<Impl*>(arg);
  takeAll<krremote_Reply>(
      reader,
      [self](const krremote_Reply& r, const dds_sample_info_t& info) {
        if (info.valid_data && self->fClientId == r.client)
          self->deliver(r);
      },
      [] {});
}

void KRRemote::Impl::deliver(const krremote_Reply& r) {
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

}  // namespace KR
