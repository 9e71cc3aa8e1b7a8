#pragma once
// Structured KRValues from a fuzzer's bytes, and the inverse encoding used to write seeds.
//
// Decoding reads one kind byte per value. Scalars and strings come either from small tables of
// telling values (selector byte below 128) or raw from the following bytes; arrays take their
// size from a table biased towards the sizes the parsers look for (2, 3, 6, 7) or raw. So a few
// bytes reach the deep layouts of the tracker's records and events, and mutations of a seed
// stay structured. An exhausted input reads as zero bytes: invalid values.

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include <kr/value/krvalue.h>

namespace krfuzz {

class FuzzInput {
 public:
  FuzzInput(const std::uint8_t* data, std::size_t size) : fData(data), fSize(size) {}

  bool empty() const { return fPos >= fSize; }
  std::uint8_t byte() { return fPos < fSize ? fData[fPos++] : 0; }
  std::uint32_t u32() {
    std::uint32_t v = 0;
    for (int i = 0; i < 4; ++i) {
      v |= static_cast<std::uint32_t>(byte()) << (8 * i);
    }
    return v;
  }
  float f32() {
    const std::uint32_t bits = u32();
    float f;
    std::memcpy(&f, &bits, sizeof f);
    return f;
  }
  std::string bytes(std::size_t n) {
    const std::size_t take = std::min(n, fSize - std::min(fPos, fSize));
    std::string s(reinterpret_cast<const char*>(fData + fPos), take);
    fPos += take;
    return s;
  }
  std::string rest() { return bytes(fSize); }

 private:
  const std::uint8_t* fData;
  std::size_t fSize;
  std::size_t fPos = 0;
};

inline const std::vector<int>& interestingInts() {
  static const std::vector<int> kInts = {0,
                                         1,
                                         -1,
                                         2,
                                         3,
                                         4,
                                         6,
                                         7,
                                         500,
                                         999999,
                                         1000000,
                                         -1000000,
                                         3600,
                                         std::numeric_limits<int>::max(),
                                         std::numeric_limits<int>::min(),
                                         18};
  return kInts;
}

inline const std::vector<float>& interestingFloats() {
  static const std::vector<float> kFloats = {0.0f,
                                             -0.0f,
                                             0.5f,
                                             -0.1f,
                                             1.0f,
                                             4.0f,
                                             3.1415927f,
                                             0.0011f,
                                             1e-40f,
                                             1e30f,
                                             std::numeric_limits<float>::max(),
                                             -std::numeric_limits<float>::max(),
                                             std::numeric_limits<float>::infinity(),
                                             -std::numeric_limits<float>::infinity(),
                                             std::numeric_limits<float>::quiet_NaN(),
                                             6.2831855f};
  return kFloats;
}

inline const std::vector<std::string>& interestingStrings() {
  static const std::vector<std::string> kStrings = {"",
                                                    "HEAD_THRESHOLD",
                                                    "FACE_HEAD_THRESHOLD",
                                                    "ARMS_THRESHOLD",
                                                    "LOG_HEAD_COMMAND",
                                                    "LOG_INPUT_DATA",
                                                    "HEAD_WZ_LIMIT",
                                                    "MOVE_X_GAINS",
                                                    "MOVE_THETA_GAINS",
                                                    "MOVE_LOW_PRIORITY",
                                                    "head_threshold",
                                                    "FOO",
                                                    "Torso",
                                                    "KRTracker/ObjectConverter",
                                                    "true",
                                                    "1"};
  return kStrings;
}

inline const std::vector<std::size_t>& interestingSizes() {
  static const std::vector<std::size_t> kSizes = {0, 1, 2, 3, 4, 5, 6, 7, 2, 6, 2, 7, 3, 6, 2, 8};
  return kSizes;
}

enum Kind : std::uint8_t { kInvalid = 0, kBool = 1, kInt = 2, kFloat = 3, kString = 4, kArray = 5 };
inline constexpr int kMaxDepth = 6;
inline constexpr std::size_t kMaxNodes = 512;
inline constexpr std::uint8_t kRaw = 0xFF;  // selector of a raw scalar

/// The next value of the input.
inline KR::KRValue makeValue(FuzzInput& in, std::size_t& nodes, int depth = 0) {
  ++nodes;
  const std::uint8_t kind = in.byte() % 8;
  switch (kind) {
    case kInvalid:
      return KR::KRValue();
    case kBool:
      return KR::KRValue((in.byte() & 1) != 0);
    case kInt: {
      const std::uint8_t s = in.byte();
      if (s < 128) {
        return KR::KRValue(interestingInts()[s % interestingInts().size()]);
      }
      return KR::KRValue(static_cast<int>(in.u32()));
    }
    case kFloat: {
      const std::uint8_t s = in.byte();
      if (s < 128) {
        return KR::KRValue(interestingFloats()[s % interestingFloats().size()]);
      }
      return KR::KRValue(in.f32());
    }
    case kString: {
      const std::uint8_t s = in.byte();
      if (s < 128) {
        return KR::KRValue(interestingStrings()[s % interestingStrings().size()]);
      }
      return KR::KRValue(in.bytes(s - 128u));
    }
    default: {  // kinds 5 to 7: arrays are the common case
      if (depth >= kMaxDepth) {
        return KR::KRValue();
      }
      const std::uint8_t s = in.byte();
      std::size_t n = s < 128 ? interestingSizes()[s % interestingSizes().size()] : s - 128u;
      KR::KRValue::Array items;
      for (std::size_t i = 0; i < n && nodes < kMaxNodes; ++i) {
        items.push_back(makeValue(in, nodes, depth + 1));
      }
      return KR::KRValue(std::move(items));
    }
  }
}

inline KR::KRValue makeValue(FuzzInput& in) {
  std::size_t nodes = 0;
  return makeValue(in, nodes);
}

/// Bytes that makeValue reads back as `v` (strings of up to 127 bytes, arrays of up to 127
/// elements, kMaxDepth levels and kMaxNodes values in all).
inline std::string encodeValue(const KR::KRValue& v) {
  std::string out;
  auto raw32 = [&out](std::uint32_t bits) {
    for (int i = 0; i < 4; ++i) {
      out.push_back(static_cast<char>((bits >> (8 * i)) & 0xFF));
    }
  };
  switch (v.type()) {
    case KR::KRValue::Type::Invalid:
      out.push_back(static_cast<char>(kInvalid));
      break;
    case KR::KRValue::Type::Bool:
      out.push_back(static_cast<char>(kBool));
      out.push_back(static_cast<char>(v.asBool() ? 1 : 0));
      break;
    case KR::KRValue::Type::Int:
      out.push_back(static_cast<char>(kInt));
      out.push_back(static_cast<char>(kRaw));
      raw32(static_cast<std::uint32_t>(v.asInt()));
      break;
    case KR::KRValue::Type::Float: {
      out.push_back(static_cast<char>(kFloat));
      out.push_back(static_cast<char>(kRaw));
      const float f = v.asFloat();
      std::uint32_t bits;
      std::memcpy(&bits, &f, sizeof bits);
      raw32(bits);
      break;
    }
    case KR::KRValue::Type::String:
      out.push_back(static_cast<char>(kString));
      out.push_back(static_cast<char>(128 + v.asString().size()));
      out += v.asString();
      break;
    case KR::KRValue::Type::Array:
      out.push_back(static_cast<char>(kArray));
      out.push_back(static_cast<char>(128 + v.size()));
      for (const KR::KRValue& e : v.asArray()) {
        out += encodeValue(e);
      }
      break;
  }
  return out;
}

}  // namespace krfuzz
