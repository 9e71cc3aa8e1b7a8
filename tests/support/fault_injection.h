#pragma once
// Fault injection on the broker. Every module of a broker is put behind a FaultyModule that
// shares one FaultPlan; the plan counts the remote calls in the order their callers make them
// (posted calls included, counted when posted) and makes the k-th one fail in a chosen way.

#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <kr/broker/broker.h>
#include <kr/value/krvalue.h>

namespace krtest {

enum class Fault {
  RuntimeError,  // the module throws std::runtime_error
  KRError,       // the module throws KR::KRError
  WrongType,     // the module answers a value of the wrong kind for any typed result
  EmptyAnswer,   // the module answers an empty array: the right kind for lists, no content
  Slow,          // the module answers correctly, late
};

/// Every fault, in the order above.
const std::vector<Fault>& allFaults();
const char* faultName(Fault fault);

/// What the injected exceptions say, so that a test can tell them from other errors.
inline constexpr const char* kInjectedText = "injected fault";

class FaultPlan {
 public:
  /// Installs itself as the broker's call observer (replacing any other).
  explicit FaultPlan(const std::shared_ptr<KR::KRBroker>& broker);
  ~FaultPlan();
  FaultPlan(const FaultPlan&) = delete;
  FaultPlan& operator=(const FaultPlan&) = delete;

  /// Counts afresh from now: the k-th remote call (1-based) gets `fault`.
  void arm(std::size_t k, Fault fault);
  /// Counts afresh from now, injecting nothing.
  void disarm() { arm(0, Fault::RuntimeError); }

  /// Calls seen since the last arm or disarm, as "Module.method(args)" ("post " in front of a
  /// posted call).
  std::vector<std::string> calls() const { return locked(fCalls); }
  /// "Module.method" of the armed call once it has been made; empty before.
  std::string target() const { return locked(fTarget); }
  /// True once the module of the armed call has applied the fault.
  bool delivered() const { return locked(fDelivered); }
  /// "Module.method" of every method that has answered a valid (non-void) result so far.
  std::set<std::string> typedMethods() const { return locked(fTypedMethods); }

  /// How long a slow answer waits.
  static constexpr std::chrono::milliseconds kSlowDelay{2};

  // For FaultyModule.
  bool take(const std::string& module, const std::string& method, Fault& fault);
  void noteAnswer(const std::string& module, const std::string& method, const KR::KRValue& result);

 private:
  void observe(const KR::KRCallRecord& record);
  template <class T>
  T locked(const T& member) const {
    std::lock_guard<std::mutex> lock(fMutex);
    return member;
  }

  std::weak_ptr<KR::KRBroker> fBroker;
  mutable std::mutex fMutex;
  std::vector<std::string> fCalls;
  std::size_t fArmedAt = 0;  // 0: nothing armed
  Fault fFault = Fault::RuntimeError;
  std::string fTarget;  // set when the armed call is made
  bool fPending = false;
  bool fDelivered = false;
  std::set<std::string> fTypedMethods;
};

/// A module that forwards to `inner` unless the plan says that this call fails.
class FaultyModule : public KR::KRModule {
 public:
  FaultyModule(std::shared_ptr<KR::KRModule> inner, std::shared_ptr<FaultPlan> plan);

  KR::KRValue invoke(const std::string& method, const std::vector<KR::KRValue>& args) override;

 private:
  std::shared_ptr<KR::KRModule> fInner;
  std::shared_ptr<FaultPlan> fPlan;
};

}  // namespace krtest
