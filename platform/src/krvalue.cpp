#include <kr/value/krvalue.h>

#include <ostream>
#include <sstream>

#include <kr/error.h>

namespace KR {

namespace {
template <class T>
KRValue::Array toArray(const std::vector<T>& v) {
  KRValue::Array a;
  a.reserve(v.size());
  for (const T& e : v)
    a.emplace_back(e);
  return a;
}

[[noreturn]] void throwKind(const char* accessor, const char* wanted, const KRValue& v) {
  throw KRError(
      "KRValue", accessor,
      std::string("value is not ") + wanted + ", it is " + v.typeName() + ": " + v.toString());
}
}  // namespace

KRValue::KRValue(const std::vector<float>& v) : fData(toArray(v)) {}
KRValue::KRValue(const std::vector<int>& v) : fData(toArray(v)) {}
KRValue::KRValue(const std::vector<std::string>& v) : fData(toArray(v)) {}

const char* KRValue::typeName() const noexcept {
  switch (type()) {
    case Type::Invalid:
      return "invalid";
    case Type::Bool:
      return "bool";
    case Type::Int:
      return "int";
    case Type::Float:
      return "float";
    case Type::String:
      return "string";
    case Type::Array:
      return "array";
  }
  return "invalid";
}

std::size_t KRValue::size() const noexcept {
  const Array* a = std::get_if<Array>(&fData);
  return a != nullptr ? a->size() : 0;
}

const KRValue& KRValue::operator[](std::size_t i) const {
  const Array& a = asArray();
  if (i >= a.size()) {
    throw KRError(
        "KRValue", "operator[]",
        "index " + std::to_string(i) + " out of range for an array of " + std::to_string(a.size()));
  }
  return a[i];
}

KRValue& KRValue::operator[](std::size_t i) {
  Array& a = asArray();
  if (i >= a.size()) {
    throw KRError(
        "KRValue", "operator[]",
        "index " + std::to_string(i) + " out of range for an array of " + std::to_string(a.size()));
  }
  return a[i];
}

bool KRValue::asBool() const {
  if (const bool* b = std::get_if<bool>(&fData))
    return *b;
  throwKind("asBool", "a bool", *this);
}

int KRValue::asInt() const {
  if (const int* i = std::get_if<int>(&fData))
    return *i;
  throwKind("asInt", "an int", *this);
}

float KRValue::asFloat() const {
  float f = 0.0f;
  if (toFloat(f))
    return f;
  throwKind("asFloat", kFloatKinds, *this);
}

const std::string& KRValue::asString() const {
  if (const std::string* s = std::get_if<std::string>(&fData))
    return *s;
  throwKind("asString", "a string", *this);
}

const KRValue::Array& KRValue::asArray() const {
  if (const Array* a = std::get_if<Array>(&fData))
    return *a;
  throwKind("asArray", "an array", *this);
}

KRValue::Array& KRValue::asArray() {
  if (Array* a = std::get_if<Array>(&fData))
    return *a;
  throwKind("asArray", "an array", *this);
}

std::ostream& operator<<(std::ostream& os, const KRValue& v) {
  switch (v.type()) {
    case KRValue::Type::Invalid:
      return os << "invalid";
    case KRValue::Type::Bool:
      return os << (std::get<bool>(v.fData) ? "true" : "false");
    case KRValue::Type::Int:
      return os << std::get<int>(v.fData);
    case KRValue::Type::Float:
      return os << std::get<float>(v.fData);
    case KRValue::Type::String:
      return os << '"' << std::get<std::string>(v.fData) << '"';
    case KRValue::Type::Array: {
      os << '[';
      bool first = true;
      for (const KRValue& e : std::get<KRValue::Array>(v.fData)) {
        if (!first)
          os << ", ";
        first = false;
        os << e;
      }
      return os << ']';
    }
  }
  return os;
}

std::string KRValue::toString() const {
  std::ostringstream os;
  os << *this;
  return os.str();
}

}  // namespace KR
