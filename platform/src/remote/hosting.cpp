// Hosting: this process's modules announced to the others, and the calls made to them served
// by the serving threads, each answered with its result or its error.

#include <mutex>
#include <string>
#include <vector>

#include <ko/log.h>
#include <kr/value/encoding.h>

#include "transport.h"

namespace KR {

using namespace remote;

void KRRemote::Impl::publish(const std::string& name) {
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

void KRRemote::Impl::unpublish(const std::string& name) {
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

void KRRemote::Impl::forget(const std::string& name) {
  std::lock_guard<std::mutex> lock(fHostedMutex);
  fHosted.erase(name);
}

bool KRRemote::Impl::hosts(const std::string& name) const {
  std::lock_guard<std::mutex> lock(fHostedMutex);
  return fHosted.count(name) != 0;
}

void KRRemote::Impl::onRequests(dds_entity_t reader, void* arg) {
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

void KRRemote::Impl::serveLoop() {
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

void KRRemote::Impl::serve(const Incoming& in) {
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

}  // namespace KR
