// The binary encoding of KRValue: every kind survives a round trip exactly, and malformed or
// hostile buffers are refused with a KRError rather than crashing or allocating without bound.

#include <climits>
#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include <kr/error.h>
#include <kr/value/encoding.h>

#include "support/error_of.h"

namespace {

using KR::KRValue;

TEST(KRValueEncoding, EveryKindRoundTripsExactly) {
  KRValue deep = KRValue{1};
  for (int i = 0; i < 60; ++i)
    deep = KRValue{deep, i};
  // Every kind and its edges: whole floats and negative zero stay floats, strings keep zero
  // bytes, arrays nest 60 levels deep.
  const float inf = std::numeric_limits<float>::infinity();
  const float denormal = std::numeric_limits<float>::denorm_min();
  const std::string zeroByte("a\0b", 3), utf8 = "t\xC3\xAAte \"x\"\n", longText(70000, 'z');
  const KRValue empty = KRValue::makeArray(0), invalids = KRValue::makeArray(3);
  const KRValue mixed{1, 2.5f, "x", true, KRValue()}, nested{KRValue{1, KRValue{"a", empty}}, -3};
  const std::vector<float> six{0.1f, -0.2f, 0.3f, 1e-7f, 3e8f, -0.0f};
  const KRValue cases[] = {KRValue(), true,  false,       0,        -17,      INT_MAX,
                           INT_MIN,   0.1f,  -12345.678f, denormal, inf,      2.0f,
                           -0.0f,     "",    utf8,        zeroByte, longText, empty,
                           invalids,  mixed, nested,      six,      deep};
  for (const KRValue& value : cases) {
    SCOPED_TRACE(value.toString().substr(0, 60));
    const KRValue back = KR::decodeKRValue(KR::encodeKRValue(value));
    EXPECT_EQ(back.type(), value.type());
    EXPECT_EQ(back, value);
    if (value.isFloat()) {
      EXPECT_EQ(std::signbit(back.asFloat()), std::signbit(value.asFloat()));
    }
  }
}

TEST(KRValueEncoding, NotANumberKeepsItsKind) {
  const KRValue back =
      KR::decodeKRValue(KR::encodeKRValue(KRValue(std::numeric_limits<float>::quiet_NaN())));
  ASSERT_TRUE(back.isFloat());
  EXPECT_TRUE(std::isnan(back.asFloat()));
}

TEST(KRValueEncoding, AppendsToAnExistingBuffer) {
  std::vector<std::uint8_t> out{0xAA};
  KR::encodeKRValue(KRValue{1, "b"}, out);
  ASSERT_GT(out.size(), 1u);
  EXPECT_EQ(out[0], 0xAA);
  EXPECT_EQ(KR::decodeKRValue(out.data() + 1, out.size() - 1), (KRValue{1, "b"}));
}

TEST(KRValueEncoding, MalformedBuffersAreRefused) {
  std::vector<std::uint8_t> truncated = KR::encodeKRValue(KRValue{"hello", 1});
  truncated.pop_back();
  std::vector<std::uint8_t> trailing = KR::encodeKRValue(KRValue(5));
  trailing.push_back(0x01);
  std::vector<std::uint8_t> tooDeep(70, 0x91);  // 70 nested one-element arrays
  tooDeep.push_back(0xC0);
  const struct {
    const char* name;
    std::vector<std::uint8_t> bytes;
    const char* expected;  // part of the error text
  } cases[] = {
      {"empty", {}, "empty buffer"},
      {"truncated", truncated, "malformed"},
      {"trailing byte", trailing, "1 trailing byte"},
      {"map", {0x81, 0x01, 0x02}, "map"},
      {"binary", {0xC4, 0x01, 0x00}, "bin"},
      {"uint64 too large", {0xCF, 0, 0, 0, 1, 0, 0, 0, 0}, "out of range"},
      {"int64 too small", {0xD3, 0xFF, 0xFF, 0xFF, 0xFE, 0, 0, 0, 0}, "out of range"},
      {"array claiming 4 billion items", {0xDD, 0xFF, 0xFF, 0xFF, 0xFF}, "malformed"},
      {"nesting too deep", tooDeep, ""},
      {"reserved byte", {0xC1}, "malformed"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const KR::KRError e =
        krtest::krErrorOf([&] { KR::decodeKRValue(c.bytes.data(), c.bytes.size()); });
    EXPECT_EQ(e.module(), "KRValue");
    EXPECT_EQ(e.method(), "decode");
    EXPECT_NE(e.message().find(c.expected), std::string::npos) << e.message();
  }
}

}  // namespace
