#pragma once
// Binary encoding of KRValue (MessagePack), used wherever a value leaves the process.
// invalid -> nil, bool -> bool, int -> integer, float -> float32, string -> str, array -> array.

#include <cstddef>
#include <cstdint>
#include <vector>

#include <kr/value/krvalue.h>

namespace KR {

/// Appends the encoding of `value` to `out`.
void encodeKRValue(const KRValue& value, std::vector<std::uint8_t>& out);
std::vector<std::uint8_t> encodeKRValue(const KRValue& value);

/// Decodes exactly one value filling the whole buffer. Throws KRError("KRValue", "decode", ...)
/// on malformed input, trailing bytes, kinds KRValue has no place for, integers outside int's
/// range or nesting deeper than 64 levels.
KRValue decodeKRValue(const std::uint8_t* data, std::size_t size);
inline KRValue decodeKRValue(const std::vector<std::uint8_t>& bytes) {
  return decodeKRValue(bytes.data(), bytes.size());
}

}  // namespace KR
