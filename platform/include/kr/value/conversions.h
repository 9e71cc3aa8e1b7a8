#pragma once
// Conversions between C++ types and KRValue, used by the broker to cross the KRValue boundary
// of every remote call. Specialise KR::KRValueTraits<T> to send another type.

#include <chrono>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <kr/error.h>
#include <kr/value/krvalue.h>

namespace KR {

template <class T, class Enable = void>
struct KRValueTraits;  // toValue(const T&) -> KRValue; fromValue(const KRValue&, what) -> T

namespace detail {
[[noreturn]] void throwConversionError(const char* wanted, const KRValue& v, const char* what);
}  // namespace detail

template <>
struct KRValueTraits<KRValue> {
  static const KRValue& toValue(const KRValue& v) { return v; }
  /// A temporary (a method's result, an argument built in place) is moved, not copied.
  static KRValue toValue(KRValue&& v) { return std::move(v); }
  static KRValue fromValue(const KRValue& v, const char*) { return v; }
};

template <>
struct KRValueTraits<bool> {
  static KRValue toValue(bool b) { return KRValue(b); }
  static bool fromValue(const KRValue& v, const char* what) {
    if (const bool* b = v.getIf<bool>())
      return *b;
    detail::throwConversionError("bool", v, what);
  }
};

template <>
struct KRValueTraits<int> {
  static KRValue toValue(int i) { return KRValue(i); }
  static int fromValue(const KRValue& v, const char* what) {
    if (const int* i = v.getIf<int>())
      return *i;
    detail::throwConversionError("int", v, what);
  }
};

template <>
struct KRValueTraits<float> {
  static KRValue toValue(float f) { return KRValue(f); }
  static float fromValue(const KRValue& v, const char* what) {
    float f = 0.0f;
    if (v.toFloat(f))
      return f;
    detail::throwConversionError(kFloatKinds, v, what);
  }
};

template <>
struct KRValueTraits<double> {
  static KRValue toValue(double d) { return KRValue(static_cast<float>(d)); }
  static double fromValue(const KRValue& v, const char* what) {
    return KRValueTraits<float>::fromValue(v, what);
  }
};

template <>
struct KRValueTraits<std::string> {
  static KRValue toValue(const std::string& s) { return KRValue(s); }
  static std::string fromValue(const KRValue& v, const char* what) {
    if (const std::string* s = v.getIf<std::string>())
      return *s;
    detail::throwConversionError("string", v, what);
  }
};

template <>
struct KRValueTraits<const char*> {
  static KRValue toValue(const char* s) { return KRValue(s); }
};

/// Vectors of any convertible type travel as arrays.
template <class T>
struct KRValueTraits<std::vector<T>> {
  static KRValue toValue(const std::vector<T>& v) {
    KRValue::Array a;
    a.reserve(v.size());
    for (const auto& e : v)
      a.emplace_back(KRValueTraits<T>::toValue(e));
    return KRValue(std::move(a));
  }
  static std::vector<T> fromValue(const KRValue& v, const char* what) {
    const KRValue::Array* a = v.getIf<KRValue::Array>();
    if (a == nullptr)
      detail::throwConversionError("array", v, what);
    std::vector<T> out;
    out.reserve(a->size());
    for (const KRValue& e : *a)
      out.push_back(KRValueTraits<T>::fromValue(e, what));
    return out;
  }
};

/// Enumerations travel as their integer.
template <class E>
struct KRValueTraits<E, std::enable_if_t<std::is_enum<E>::value>> {
  static KRValue toValue(E e) { return KRValue(static_cast<int>(e)); }
  static E fromValue(const KRValue& v, const char* what) {
    return static_cast<E>(KRValueTraits<int>::fromValue(v, what));
  }
};

/// Durations travel as [seconds, microseconds] ints (whole seconds, remaining microseconds).
template <>
struct KRValueTraits<std::chrono::nanoseconds> {
  static KRValue toValue(std::chrono::nanoseconds d);
  static std::chrono::nanoseconds fromValue(const KRValue& v, const char* what);
};

/// A time point of the platform clock, nanosecond resolution; travels as its duration since
/// the clock's epoch.
using KRClock = std::chrono::steady_clock;
using KRTimePoint = std::chrono::time_point<KRClock, std::chrono::nanoseconds>;
template <>
struct KRValueTraits<KRTimePoint> {
  static KRValue toValue(KRTimePoint t) {
    return KRValueTraits<std::chrono::nanoseconds>::toValue(t.time_since_epoch());
  }
  static KRTimePoint fromValue(const KRValue& v, const char* what) {
    return KRTimePoint(KRValueTraits<std::chrono::nanoseconds>::fromValue(v, what));
  }
};

template <class T>
KRValue toKRValue(T&& t) {
  return KRValueTraits<std::decay_t<T>>::toValue(std::forward<T>(t));
}

template <class T>
T fromKRValue(const KRValue& v, const char* what = "value") {
  return KRValueTraits<std::decay_t<T>>::fromValue(v, what);
}

}  // namespace KR
