#pragma once
// KRValue: the platform's dynamically typed value. Every remote call, event payload and
// configuration value is one. Value semantics; an array holds KRValues, so values nest.

#include <cstddef>
#include <initializer_list>
#include <iosfwd>
#include <string>
#include <variant>
#include <vector>

namespace KR {

/// The kinds a float read accepts, as every error of such a read words them.
inline constexpr const char* kFloatKinds = "a float or an int";

class KRValue {
 public:
  enum class Type { Invalid, Bool, Int, Float, String, Array };
  using Array = std::vector<KRValue>;

  /// An invalid (empty) value.
  KRValue() noexcept = default;
  KRValue(bool b) : fData(b) {}
  KRValue(int i) : fData(i) {}
  KRValue(float f) : fData(f) {}
  /// Doubles are stored in single precision, as everywhere on the platform.
  KRValue(double d) : fData(static_cast<float>(d)) {}
  KRValue(const char* s) : fData(std::string(s)) {}
  KRValue(std::string s) : fData(std::move(s)) {}
  KRValue(Array a) : fData(std::move(a)) {}
  /// An array of the listed values: KRValue{1.0f, "a", true}.
  KRValue(std::initializer_list<KRValue> items) : fData(Array(items)) {}
  KRValue(const std::vector<float>& v);
  KRValue(const std::vector<int>& v);
  KRValue(const std::vector<std::string>& v);
  /// An array of n invalid values.
  static KRValue makeArray(std::size_t n) { return KRValue(Array(n)); }

  Type type() const noexcept { return static_cast<Type>(fData.index()); }
  /// The kind's name, for error texts: "invalid", "bool", "int", "float", "string", "array".
  const char* typeName() const noexcept;

  bool isValid() const noexcept { return type() != Type::Invalid; }
  bool isBool() const noexcept { return type() == Type::Bool; }
  bool isInt() const noexcept { return type() == Type::Int; }
  bool isFloat() const noexcept { return type() == Type::Float; }
  /// An int or a float.
  bool isNumber() const noexcept { return isInt() || isFloat(); }
  bool isString() const noexcept { return type() == Type::String; }
  bool isArray() const noexcept { return type() == Type::Array; }

  /// Number of elements of an array; 0 for any other kind.
  std::size_t size() const noexcept;
  /// Element i of an array. Throws KRError when not an array or i is out of range.
  const KRValue& operator[](std::size_t i) const;
  KRValue& operator[](std::size_t i);

  /// Checked accessors: throw KRError naming the stored kind on a mismatch.
  bool asBool() const;
  int asInt() const;
  /// A float, or an int converted to float (see toFloat).
  float asFloat() const;
  const std::string& asString() const;
  const Array& asArray() const;
  Array& asArray();

  /// Unchecked pointers to the stored alternative, nullptr on mismatch.
  template <class T>
  const T* getIf() const noexcept {
    return std::get_if<T>(&fData);
  }

  /// The number rule of every float read on the platform: a float as stored, an int converted
  /// to float. False, with out untouched, for any other kind.
  bool toFloat(float& out) const noexcept {
    if (const float* f = std::get_if<float>(&fData)) {
      out = *f;
      return true;
    }
    if (const int* i = std::get_if<int>(&fData)) {
      out = static_cast<float>(*i);
      return true;
    }
    return false;
  }

  void clear() noexcept { fData = std::monostate{}; }

  friend bool operator==(const KRValue& a, const KRValue& b) { return a.fData == b.fData; }
  friend bool operator!=(const KRValue& a, const KRValue& b) { return !(a == b); }

  /// Text form: invalid, true/false, numbers with the stream's own flags (precision,
  /// showpos, showpoint...), strings in double quotes, arrays as [a, b, c].
  friend std::ostream& operator<<(std::ostream& os, const KRValue& v);
  std::string toString() const;

 private:
  std::variant<std::monostate, bool, int, float, std::string, Array> fData;
};

}  // namespace KR
