#pragma once
// In-process module framework. A KRBroker holds modules by name; a KRProxy calls a module's
// methods by name. Every call crosses the KRValue boundary (arguments and result are
// converted to and from KRValue), exactly as a remote transport would, so a network transport
// can later plug in behind KRProxy without touching its users.

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <thread>
#include <tuple>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#include <kr/error.h>
#include <kr/value/conversions.h>
#include <kr/value/krvalue.h>

namespace KR {

class KRBroker;

/// One call as the broker saw it, handed to the call observer before the method runs.
struct KRCallRecord {
  std::string module;
  std::string method;
  std::vector<KRValue> args;
  bool posted = false;  // pCall rather than call
};

namespace detail {
template <class F>
struct CallableTraits : CallableTraits<decltype(&F::operator())> {};
template <class C, class R, class... A>
struct CallableTraits<R (C::*)(A...) const> {
  using Result = R;
  using Args = std::tuple<std::decay_t<A>...>;
};
template <class C, class R, class... A>
struct CallableTraits<R (C::*)(A...)> {
  using Result = R;
  using Args = std::tuple<std::decay_t<A>...>;
};
template <class R, class... A>
struct CallableTraits<R (*)(A...)> {
  using Result = R;
  using Args = std::tuple<std::decay_t<A>...>;
};

[[noreturn]] void throwArgumentCount(const std::string& module, const std::string& method,
                                     std::size_t expected, std::size_t given);

/// An argument as a bound callable receives it: a KRValue parameter gets the caller's value
/// itself rather than a copy; any other type is converted.
template <class T>
decltype(auto) argumentAs(const KRValue& v) {
  if constexpr (std::is_same<T, KRValue>::value) {
    return (v);
  } else {
    return fromKRValue<T>(v, "argument");
  }
}

/// Converts argument `index` (from 0) as a call would, naming it from 1 in the error.
template <class T>
void checkArgument(const KRValue& v, std::size_t index) {
  if constexpr (!std::is_same<T, KRValue>::value) {
    const std::string what = "argument " + std::to_string(index + 1);
    (void)fromKRValue<T>(v, what.c_str());
  }
}
}  // namespace detail

/// A module: a name and a table of named methods taking and returning KRValues.
/// Bind methods before the module is shared; binding later is safe but serialised.
class KRModule {
 public:
  using Method = std::function<KRValue(const std::vector<KRValue>&)>;
  /// Checks an argument list as the method would convert it, without running anything.
  using Checker = std::function<void(const std::vector<KRValue>&)>;

  explicit KRModule(std::string name) : fName(std::move(name)) {}
  virtual ~KRModule() = default;
  KRModule(const KRModule&) = delete;
  KRModule& operator=(const KRModule&) = delete;

  const std::string& getName() const noexcept { return fName; }

  /// Binds a C++ callable; its argument and result conversions are derived from its
  /// signature. A void result becomes an invalid KRValue.
  template <class F>
  void bind(const std::string& method, F f) {
    using Traits = detail::CallableTraits<std::decay_t<F>>;
    using Indices = std::make_index_sequence<std::tuple_size<typename Traits::Args>::value>;
    bindRaw(
        method,
        makeMethod<typename Traits::Result, typename Traits::Args>(method, std::move(f), Indices{}),
        makeChecker<typename Traits::Args>(method, Indices{}));
  }

  /// Binds a member function of a module derived from KRModule (or any object).
  template <class Obj, class R, class... A>
  void bind(const std::string& method, R (Obj::*fn)(A...), Obj* self) {
    bind(method, [self, fn](A... a) -> R { return (self->*fn)(std::forward<A>(a)...); });
  }
  template <class Obj, class R, class... A>
  void bind(const std::string& method, R (Obj::*fn)(A...) const, const Obj* self) {
    bind(method, [self, fn](A... a) -> R { return (self->*fn)(std::forward<A>(a)...); });
  }

  /// Binds a method that takes the raw argument list; `check`, if given, tells the argument
  /// lists it accepts (see checkArguments).
  void bindRaw(const std::string& method, Method m, Checker check = {});
  bool hasMethod(const std::string& method) const;
  std::vector<std::string> getMethodList() const;

  /// Checks a call before it is made, without running anything: KRError for an unknown
  /// method, a wrong number of arguments or an argument that does not convert to the type
  /// the method takes ("argument N must be ..."). A raw method bound without a checker
  /// accepts any list.
  void checkArguments(const std::string& method, const std::vector<KRValue>& args) const;

  /// Runs a method. Throws KRError when the method is unknown or the arguments do not convert;
  /// the method's own exceptions pass through unchanged. Virtual so that a module may answer
  /// methods it has not bound (a test double answering any name, a remote stub).
  virtual KRValue invoke(const std::string& method, const std::vector<KRValue>& args);

 private:
  template <class R, class Args, class F, std::size_t... I>
  Method makeMethod(const std::string& method, F f, std::index_sequence<I...>) {
    return [this, method, f = std::move(f)](const std::vector<KRValue>& args) mutable -> KRValue {
      if (args.size() != sizeof...(I)) {
        detail::throwArgumentCount(fName, method, sizeof...(I), args.size());
      }
      if constexpr (std::is_void<R>::value) {
        f(detail::argumentAs<std::tuple_element_t<I, Args>>(args[I])...);
        return KRValue();
      } else {
        return toKRValue(f(detail::argumentAs<std::tuple_element_t<I, Args>>(args[I])...));
      }
    };
  }

  template <class Args, std::size_t... I>
  Checker makeChecker(const std::string& method, std::index_sequence<I...>) {
    return [this, method](const std::vector<KRValue>& args) {
      if (args.size() != sizeof...(I)) {
        detail::throwArgumentCount(fName, method, sizeof...(I), args.size());
      }
      (detail::checkArgument<std::tuple_element_t<I, Args>>(args[I], I), ...);
    };
  }

  const std::string fName;
  mutable std::shared_mutex fMethodsMutex;
  std::unordered_map<std::string, std::shared_ptr<Method>> fMethods;
  std::unordered_map<std::string, Checker> fCheckers;
};

/// A handle on one module of a broker.
class KRProxy {
 public:
  /// The proxy keeps the module alive but not the broker, so that modules holding proxies
  /// to one another through the broker do not keep it alive.
  KRProxy(std::weak_ptr<KRBroker> broker, std::shared_ptr<KRModule> module);

  const std::string& getModuleName() const noexcept { return fModule->getName(); }

  /// Synchronous call: converts the arguments to KRValue, runs the method, converts the
  /// result to R. Throws KRError for an unknown method or a result of the wrong kind; the
  /// method's own exceptions reach the caller unchanged.
  template <class R = void, class... A>
  R call(const std::string& method, A&&... args) {
    std::vector<KRValue> values;
    if constexpr (sizeof...(A) > 0) {
      values.reserve(sizeof...(A));
      (values.emplace_back(toKRValue(std::forward<A>(args))), ...);
    }
    KRValue result = callValues(method, values);
    if constexpr (std::is_same<std::decay_t<R>, KRValue>::value) {
      return result;  // moved out, not copied
    } else if constexpr (!std::is_void<R>::value) {
      return fromKRValue<R>(result, "result");
    }
  }

  /// Posted call: queued to a worker of the broker and run later; returns at once. The
  /// method's result is dropped; its exception is logged under the "KRBroker" category.
  template <class... A>
  void pCall(const std::string& method, A&&... args) {
    std::vector<KRValue> values;
    if constexpr (sizeof...(A) > 0) {
      values.reserve(sizeof...(A));
      (values.emplace_back(toKRValue(std::forward<A>(args))), ...);
    }
    postValues(method, std::move(values));
  }

  KRValue callValues(const std::string& method, const std::vector<KRValue>& args);
  void postValues(const std::string& method, std::vector<KRValue> args);

 private:
  std::weak_ptr<KRBroker> fBroker;
  std::shared_ptr<KRModule> fModule;
};

/// Holds modules by name, hands out proxies, runs posted calls on one worker thread of its own
/// (started on the first pCall) and reports every call to an optional observer.
class KRBroker : public std::enable_shared_from_this<KRBroker> {
 public:
  using Observer = std::function<void(const KRCallRecord&)>;

  static std::shared_ptr<KRBroker> create(std::string name = "KRBroker");
  ~KRBroker();
  KRBroker(const KRBroker&) = delete;
  KRBroker& operator=(const KRBroker&) = delete;

  const std::string& getName() const noexcept { return fName; }

  /// Adds a module under its name. Throws KRError when the name is taken.
  void addModule(std::shared_ptr<KRModule> module);
  /// Removes a module; existing proxies keep it alive. Returns false when absent.
  bool removeModule(const std::string& name);
  bool hasModule(const std::string& name) const;
  std::vector<std::string> getModuleNames() const;
  std::shared_ptr<KRModule> getModule(const std::string& name) const;

  /// A proxy to a module. Throws KRError("KRBroker", "getProxy", ...) when it is absent.
  /// Falls back on the remote resolver, if one is installed, for names held by no local module.
  /// The flags are reserved and must be 0.
  std::shared_ptr<KRProxy> getProxy(const std::string& name, int flags = 0);

  /// Finds modules that no local module's name matches (a remote transport installs one);
  /// returns nullptr when it has none by that name.
  using RemoteResolver = std::function<std::shared_ptr<KRModule>(const std::string& name)>;
  void setRemoteResolver(RemoteResolver resolver);

  /// Installs (or with an empty function removes) the observer of every call.
  void setCallObserver(Observer observer);

  /// Blocks until every call posted so far has run.
  void waitForPostedCalls();

  /// Runs the posted calls still queued, stops the worker and drops every module, which
  /// breaks reference cycles between modules that hold proxies to one another.
  void shutdown();

  // Used by KRProxy.
  void notifyCall(const std::string& module, const std::string& method,
                  const std::vector<KRValue>& args, bool posted);
  void post(std::shared_ptr<KRModule> module, std::string method, std::vector<KRValue> args);
  bool hasObserver() const noexcept { return fHasObserver.load(std::memory_order_acquire); }

 private:
  explicit KRBroker(std::string name);
  void workerLoop();

  struct Posted {
    std::shared_ptr<KRModule> module;
    std::string method;
    std::vector<KRValue> args;
  };

  const std::string fName;
  mutable std::shared_mutex fModulesMutex;
  std::unordered_map<std::string, std::shared_ptr<KRModule>> fModules;

  std::mutex fResolverMutex;
  std::shared_ptr<RemoteResolver> fResolver;

  std::mutex fObserverMutex;
  std::shared_ptr<Observer> fObserver;
  std::atomic<bool> fHasObserver{false};

  std::mutex fQueueMutex;
  std::condition_variable fQueueCv;
  std::condition_variable fIdleCv;
  std::deque<Posted> fQueue;
  std::size_t fRunning = 0;
  bool fStopping = false;
  std::thread fWorker;
};

}  // namespace KR
