#include <kr/value/valueutils.h>

#include <kr/error.h>
#include <kr/value/conversions.h>

namespace KR {

namespace {
// "<function>: "<name>" must be <wanted>, got <kind> <text>", raised under the caller's name.
[[noreturn]] void throwWrongKind(const std::string& caller, const char* function,
                                 const std::string& name, const char* wanted, const KRValue& v) {
  throw KRError(
      caller, function,
      "\"" + name + "\" must be " + wanted + ", got " + v.typeName() + " " + v.toString());
}

float numberAt(const KRValue& v, std::size_t i, const std::string& caller, const char* function,
               const std::string& name) {
  const KRValue& e = v[i];
  float f = 0.0f;
  if (e.toFloat(f))
    return f;
  throwWrongKind(caller, function, name + "[" + std::to_string(i) + "]", kFloatKinds, e);
}
}  // namespace

namespace detail {
void throwConversionError(const char* wanted, const KRValue& v, const char* what) {
  throw KRError(
      "KRValue", "convert",
      std::string(what) + " must be " + wanted + ", got " + v.typeName() + " " + v.toString());
}
}  // namespace detail

void checkArrayFromKRValue(const KRValue& v, const std::string& caller, const std::string& name) {
  if (!v.isArray())
    throwWrongKind(caller, "checkArrayFromKRValue", name, "an array", v);
}

float extractFloat(const KRValue& v, const std::string& caller, const std::string& name) {
  float f = 0.0f;
  if (v.toFloat(f))
    return f;
  throwWrongKind(caller, "extractFloat", name, kFloatKinds, v);
}

float extractFloatAndClip(const KRValue& v, float min, float max, const std::string& caller,
                          const std::string& name) {
  float f = extractFloat(v, caller, name);
  if (f < min)
    return min;
  if (f > max)
    return max;
  return f;
}

int extractIntFromKRValue(const KRValue& v, const std::string& caller, const std::string& name) {
  if (const int* n = v.getIf<int>())
    return *n;
  throwWrongKind(caller, "extractIntFromKRValue", name, "an int", v);
}

void extractVectorFloatsFromKRValue(const KRValue& v, std::vector<float>& out,
                                    const std::string& caller, const std::string& name) {
  if (!v.isArray()) {
    throwWrongKind(caller, "extractVectorFloatsFromKRValue", name, "an array of floats", v);
  }
  const std::size_t n = v.size();
  out.resize(n);
  for (std::size_t i = 0; i < n; ++i) {
    out[i] = numberAt(v, i, caller, "extractVectorFloatsFromKRValue", name);
  }
}

std::vector<float> extractVectorFloatsFromKRValue(const KRValue& v, const std::string& caller,
                                                  const std::string& name) {
  std::vector<float> out;
  extractVectorFloatsFromKRValue(v, out, caller, name);
  return out;
}

Math::Position6D extractPosition6DFromKRValue(const KRValue& v, const std::string& caller,
                                              const std::string& name) {
  if (!v.isArray() || v.size() != 6) {
    throwWrongKind(caller, "extractPosition6DFromKRValue", name, "an array of six floats", v);
  }
  const char* fn = "extractPosition6DFromKRValue";
  return Math::Position6D(numberAt(v, 0, caller, fn, name), numberAt(v, 1, caller, fn, name),
                          numberAt(v, 2, caller, fn, name), numberAt(v, 3, caller, fn, name),
                          numberAt(v, 4, caller, fn, name), numberAt(v, 5, caller, fn, name));
}

std::chrono::nanoseconds extractDuration(const KRValue& seconds, const KRValue& microseconds,
                                         const std::string& caller, const std::string& name) {
  const int* s = seconds.getIf<int>();
  if (s == nullptr)
    throwWrongKind(caller, "extractDuration", name + " seconds", "an int", seconds);
  const int* us = microseconds.getIf<int>();
  if (us == nullptr) {
    throwWrongKind(caller, "extractDuration", name + " microseconds", "an int", microseconds);
  }
  return std::chrono::seconds(*s) + std::chrono::microseconds(*us);
}

std::chrono::nanoseconds extractDuration(const KRValue& v, const std::string& caller,
                                         const std::string& name) {
  if (!v.isArray() || v.size() != 2) {
    throwWrongKind(caller, "extractDuration", name, "an array [seconds, microseconds]", v);
  }
  return extractDuration(v[0], v[1], caller, name);
}

KRValue convertDurationToKRValue(std::chrono::nanoseconds d) {
  const auto us = std::chrono::duration_cast<std::chrono::microseconds>(d).count();
  return KRValue{static_cast<int>(us / 1000000), static_cast<int>(us % 1000000)};
}

KRValue KRValueTraits<std::chrono::nanoseconds>::toValue(std::chrono::nanoseconds d) {
  return convertDurationToKRValue(d);
}

std::chrono::nanoseconds KRValueTraits<std::chrono::nanoseconds>::fromValue(const KRValue& v,
                                                                            const char* what) {
  return extractDuration(v, "KRValue", what);
}

std::map<std::string, KRValue> extractKeyValueMapFromKRValue(const KRValue& v,
                                                             const std::string& caller) {
  if (!v.isArray()) {
    throwWrongKind(caller, "extractKeyValueMapFromKRValue", "key/value pairs",
                   "an array of [name, value] pairs", v);
  }
  std::map<std::string, KRValue> out;
  for (std::size_t i = 0; i < v.size(); ++i) {
    const KRValue& pair = v[i];
    if (!pair.isArray() || pair.size() != 2 || !pair[0].isString()) {
      throwWrongKind(caller, "extractKeyValueMapFromKRValue", "pair[" + std::to_string(i) + "]",
                     "a [name, value] pair", pair);
    }
    out[pair[0].asString()] = pair[1];
  }
  return out;
}

}  // namespace KR
