// The binary encoding of KRValue: every kind survives a round trip exactly, and malformed or
// hostile buffers are refused with a KRError rather than crashing or allocating without bound.

#include <climits>
#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include <kr/error.h>
#include <kr/value/encoding.h>

namespace {

using KR::KRValue;

struct RoundTripCase {
  const char* name;
  KRValue value;
};

TEST(KRValueEncoding, EveryKindRoundTripsExactly) {
  KRValue deep = KRValue{1};
  for (int i = 0; i < 60; ++i)
    deep = KRValue{deep, i};
  const RoundTripCase cases[] = {
      {"invalid", KRValue()},
      {"true", KRValue(true)},
      {"false", KRValue(false)},
      {"zero", KRValue(0)},
      {"small negative", KRValue(-17)},
      {"int max", KRValue(INT_MAX)},
      {"int min", KRValue(INT_MIN)},
      {"float", KRValue(0.1f)},
      {"negative float", KRValue(-12345.678f)},
      {"float denormal", KRValue(std::numeric_limits<float>::denorm_min())},
      {"float infinity", KRValue(std::numeric_limits<float>::infinity())},
      {"whole float stays float", KRValue(2.0f)},
      {"negative zero", KRValue(-0.0f)},
      {"empty string", KRValue("")},
      {"utf-8 string", KRValue("t\xC3\xAAte \"x\"\n")},
      {"string with zero byte", KRValue(std::string("a\0b", 3))},
      {"long string", KRValue(std::string(70000, 'z'))},
      {"empty array", KRValue::makeArray(0)},
      {"array of invalids", KRValue::makeArray(3)},
      {"mixed array", KRValue{1, 2.5f, "x", true, KRValue()}},
      {"nested", KRValue{KRValue{1, KRValue{"a", KRValue::makeArray(0)}}, -3}},
      {"six floats", KRValue(std::vector<float>{0.1f, -0.2f, 0.3f, 1e-7f, 3e8f, -0.0f})},
      {"60 levels", deep},
  };
  for (const RoundTripCase& c : cases) {
    SCOPED_TRACE(c.name);
    const std::vector<std::uint8_t> bytes = KR::encodeKRValue(c.value);
    const KRValue back = KR::decodeKRValue(bytes);
    EXPECT_EQ(back.type(), c.value.type());
    EXPECT_EQ(back, c.value);
    if (c.value.isFloat()) {
      EXPECT_EQ(std::signbit(back.asFloat()), std::signbit(c.value.asFloat()));
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

struct MalformedCase {
  const char* name;
  std::vector<std::uint8_t> bytes;
  const char* expected;  // part of the error text
};

TEST(KRValueEncoding, MalformedBuffersAreRefused) {
  std::vector<std::uint8_t> truncated = KR::encodeKRValue(KRValue{"hello", 1});
  truncated.pop_back();
  std::vector<std::uint8_t> trailing = KR::encodeKRValue(KRValue(5));
  trailing.push_back(0x01);
  std::vector<std::uint8_t> tooDeep(70, 0x91);  // 70 nested one-element arrays
  tooDeep.push_back(0xC0);
  const MalformedCase cases[] = {
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
  for (const MalformedCase& c : cases) {
    SCOPED_TRACE(c.name);
    try {
      KR::decodeKRValue(c.bytes.data(), c.bytes.size());
      ADD_FAILURE() << "accepted";
    } catch (const KR::KRError& e) {
      EXPECT_EQ(e.module(), "KRValue");
      EXPECT_EQ(e.method(), "decode");
      EXPECT_NE(e.message().find(c.expected), std::string::npos) << e.message();
    }
  }
}

}  // namespace
