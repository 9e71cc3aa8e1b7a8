#include "support/fault_injection.h"

#include <stdexcept>
#include <thread>

#include <kr/error.h>

#include "support/fake_module.h"

namespace krtest {

const std::vector<Fault>& allFaults() {
  static const std::vector<Fault> kFaults = {Fault::RuntimeError, Fault::KRError, Fault::WrongType,
                                             Fault::EmptyAnswer, Fault::Slow};
  return kFaults;
}

const char* faultName(Fault fault) {
  static const char* const kNames[] = {"runtime_error", "KRError", "wrong type", "empty answer",
                                       "slow"};
  return kNames[static_cast<int>(fault)];
}

// ---- FaultPlan ------------------------------------------------------------------------------

FaultPlan::FaultPlan(const std::shared_ptr<KR::KRBroker>& broker) : fBroker(broker) {
  broker->setCallObserver([this](const KR::KRCallRecord& r) { observe(r); });
}

FaultPlan::~FaultPlan() {
  if (std::shared_ptr<KR::KRBroker> broker = fBroker.lock())
    broker->setCallObserver(nullptr);
}

void FaultPlan::arm(std::size_t k, Fault fault) {
  std::lock_guard<std::mutex> lock(fMutex);
  fCalls.clear();
  fArmedAt = k;
  fFault = fault;
  fTarget.clear();
  fPending = false;
  fDelivered = false;
}

void FaultPlan::observe(const KR::KRCallRecord& record) {
  std::lock_guard<std::mutex> lock(fMutex);
  fCalls.push_back(formatCall(record));
  if (fArmedAt != 0 && fCalls.size() == fArmedAt) {
    // The module consumes the fault when it runs this call: at once for a synchronous call,
    // on the broker's worker for a posted one.
    fTarget = record.module + "." + record.method;
    fPending = true;
  }
}

bool FaultPlan::take(const std::string& module, const std::string& method, Fault& fault) {
  std::lock_guard<std::mutex> lock(fMutex);
  if (!fPending || fTarget != module + "." + method)
    return false;
  fPending = false;
  fDelivered = true;
  fault = fFault;
  return true;
}

void FaultPlan::noteAnswer(const std::string& module, const std::string& method,
                           const KR::KRValue& result) {
  if (!result.isValid())
    return;
  std::lock_guard<std::mutex> lock(fMutex);
  fTypedMethods.insert(module + "." + method);
}

// ---- FaultyModule ---------------------------------------------------------------------------

FaultyModule::FaultyModule(std::shared_ptr<KR::KRModule> inner, std::shared_ptr<FaultPlan> plan)
    : KR::KRModule(inner->getName()), fInner(std::move(inner)), fPlan(std::move(plan)) {}

KR::KRValue FaultyModule::invoke(const std::string& method, const std::vector<KR::KRValue>& args) {
  Fault fault = Fault::RuntimeError;
  if (fPlan->take(getName(), method, fault)) {
    switch (fault) {
      case Fault::RuntimeError:
        throw std::runtime_error(std::string(kInjectedText) + " in " + getName() + "." + method);
      case Fault::KRError:
        throw KR::KRError(getName(), method, kInjectedText);
      case Fault::WrongType:
        // No typed result of the platform converts from this: not a bool, an int, a float, a
        // string, nor a list of any one of them.
        return KR::KRValue{KR::KRValue("wrong"), KR::KRValue(0.5f)};
      case Fault::EmptyAnswer:
        return KR::KRValue(KR::KRValue::Array{});
      case Fault::Slow:
        std::this_thread::sleep_for(FaultPlan::kSlowDelay);
        break;
    }
  }
  KR::KRValue result = fInner->invoke(method, args);
  fPlan->noteAnswer(getName(), method, result);
  return result;
}

}  // namespace krtest
