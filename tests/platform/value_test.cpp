// KRValue: kinds, text forms, the checked reads of valueutils, and the binary encoding.

#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <cmath>
#include <functional>
#include <limits>
#include <sstream>

#include <kr/error.h>
#include <kr/value/conversions.h>
#include <kr/value/encoding.h>
#include <kr/value/krvalue.h>
#include <kr/value/valueutils.h>

#include "support/error_of.h"

using KR::KRError;
using KR::KRValue;

namespace {

std::string withConfigFlags(const KRValue& v) {
  std::ostringstream os;
  os.setf(std::ios::showpos | std::ios::showpoint | std::ios::left);
  os.unsetf(std::ios::fixed | std::ios::scientific);
  os.precision(4);
  os << v;
  return os.str();
}

// The names a refusal must quote.
constexpr const char* kCaller = "Caller";
constexpr const char* kValue = "Value";

// The text of the KRError f throws.
template <class F>
std::string errorText(F f) {
  return krtest::krErrorOf(f).what();
}

}  // namespace

TEST(KRValue, KindsEqualityAndNesting) {
  const KRValue nested{1, 2.5f, "a", true, KRValue{KRValue(), 3}};
  EXPECT_EQ(nested.type(), KRValue::Type::Array);
  ASSERT_EQ(nested.size(), 5u);
  EXPECT_TRUE(nested[0].isInt());
  EXPECT_TRUE(nested[1].isFloat());
  EXPECT_TRUE(nested[2].isString());
  EXPECT_TRUE(nested[3].isBool());
  EXPECT_FALSE(nested[4][0].isValid());
  EXPECT_EQ(nested[4][1].asInt(), 3);

  KRValue copy = nested;
  EXPECT_EQ(copy, nested);
  copy[4][1] = 4;  // a deep change makes them differ; the original is untouched
  EXPECT_NE(copy, nested);
  EXPECT_EQ(nested[4][1].asInt(), 3);

  // Same number, different kind: not equal.
  EXPECT_NE(KRValue(1), KRValue(1.0f));
  EXPECT_EQ(KRValue(std::vector<float>{1.0f, 2.0f}), (KRValue{1.0f, 2.0f}));
  EXPECT_EQ(KRValue(), KRValue());
}

TEST(KRValue, CheckedAccessorsNameTheStoredKind) {
  EXPECT_NE(errorText([] { KRValue("x").asInt(); }).find("it is string"), std::string::npos);
  EXPECT_NE(errorText([] { KRValue(1.0f).asBool(); }).find("it is float"), std::string::npos);
  EXPECT_NE(errorText([] { KRValue{1, 2}[2]; }).find("out of range"), std::string::npos);
  EXPECT_NE(errorText([] { KRValue(true)[0]; }).find("it is bool"), std::string::npos);
  EXPECT_EQ(KRValue(7).size(), 0u);
}

TEST(KRValue, TextFormHonoursStreamFlags) {
  struct Case {
    KRValue value;
    std::string plain;
    std::string configFlags;  // showpos, showpoint, precision 4
  };
  const Case cases[] = {
      {KRValue(0.05235988f), "0.0523599", "+0.05236"},
      {KRValue(6.2831855f), "6.28319", "+6.283"},
      {KRValue(false), "false", "false"},
      {KRValue(3), "3", "+3"},
      {KRValue(std::vector<float>{1.1f, 0.0f, 0.0f}), "[1.1, 0, 0]", "[+1.100, +0.000, +0.000]"},
      {KRValue("name"), "\"name\"", "\"name\""},
      {KRValue(), "invalid", "invalid"},
      {KRValue{KRValue{1, "a"}, KRValue::makeArray(0)}, "[[1, \"a\"], []]", "[[+1, \"a\"], []]"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.value.toString(), c.plain);
    EXPECT_EQ(withConfigFlags(c.value), c.configFlags);
  }
}

TEST(ValueUtils, ExtractAcceptsTheRightKinds) {
  EXPECT_EQ(KR::extractFloatAndClip(KRValue(9.0f), 0.0f, 3.0f, "c", "v"), 3.0f);
  EXPECT_EQ(KR::extractFloatAndClip(KRValue(-1), 0.0f, 3.0f, "c", "v"), 0.0f);
  EXPECT_EQ(KR::extractIntFromKRValue(KRValue(-4), "c", "v"), -4);
  EXPECT_EQ(KR::extractVectorFloatsFromKRValue(KRValue{1, 2.5f}, "c", "v"),
            (std::vector<float>{1.0f, 2.5f}));
  EXPECT_EQ(KR::extractPosition6DFromKRValue(KRValue{1, 2, 3, 0.1f, 0.2f, 0.3f}, "c", "v"),
            KR::Math::Position6D(1, 2, 3, 0.1f, 0.2f, 0.3f));
  EXPECT_EQ(KR::extractDuration(KRValue{10, 500}, "c", "v"),
            std::chrono::seconds(10) + std::chrono::microseconds(500));

  const auto map = KR::extractKeyValueMapFromKRValue(
      KRValue{KRValue{"B", 1}, KRValue{"A", 2.0f}, KRValue{"B", true}}, "c");
  ASSERT_EQ(map.size(), 2u);
  EXPECT_EQ(map.at("A"), KRValue(2.0f));
  EXPECT_EQ(map.at("B"), KRValue(true));  // the later duplicate wins
}

TEST(ValueUtils, DurationsSplitIntoSecondsAndMicroseconds) {
  using namespace std::chrono;
  EXPECT_EQ(KR::convertDurationToKRValue(seconds(1) + microseconds(500000)), (KRValue{1, 500000}));
  EXPECT_EQ(KR::convertDurationToKRValue(nanoseconds(2999)), (KRValue{0, 2}));
  const auto t = seconds(12) + microseconds(34);
  EXPECT_EQ(KR::fromKRValue<nanoseconds>(KR::toKRValue(nanoseconds(t))), t);
}

TEST(ValueUtils, WrongKindNamesCallerAndValue) {
  struct Case {
    const char* what;
    std::function<void()> call;
  };
  const KRValue intAndText{1, "x"}, three{1, 2, 3}, textAtSix{1, 2, 3, 4, 5, "6"};
  const KRValue floatMicros{1, 2.0f}, pairNoKey{KRValue{1, 2}};
  const Case cases[] = {
      {"array", [] { KR::checkArrayFromKRValue(KRValue(1), kCaller, kValue); }},
      {"float", [] { KR::extractFloat(KRValue("1"), kCaller, kValue); }},
      {"clip", [] { KR::extractFloatAndClip(KRValue(true), 0, 1, kCaller, kValue); }},
      {"int", [] { KR::extractIntFromKRValue(KRValue(1.0f), kCaller, kValue); }},
      {"vector", [&] { KR::extractVectorFloatsFromKRValue(intAndText, kCaller, kValue); }},
      {"vector kind", [] { KR::extractVectorFloatsFromKRValue(KRValue(1), kCaller, kValue); }},
      {"pose size", [&] { KR::extractPosition6DFromKRValue(three, kCaller, kValue); }},
      {"pose kind", [&] { KR::extractPosition6DFromKRValue(textAtSix, kCaller, kValue); }},
      {"duration", [&] { KR::extractDuration(floatMicros, kCaller, kValue); }},
      {"duration size", [&] { KR::extractDuration(three, kCaller, kValue); }},
      {"map", [&] { KR::extractKeyValueMapFromKRValue(pairNoKey, kCaller); }},
      {"map kind", [] { KR::extractKeyValueMapFromKRValue(KRValue("x"), kCaller); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const KRError e = krtest::krErrorOf(c.call);
    EXPECT_EQ(e.module(), "Caller");
    if (std::string(c.what).rfind("map", 0) != 0) {
      EXPECT_NE(std::string(e.what()).find("\"Value"), std::string::npos) << e.what();
    }
  }
}

// An int is accepted as a float by every float read, and a refusal words the accepted kinds the
// same way everywhere.
TEST(KRValue, EveryFloatReadAcceptsAnIntAndWordsARefusalAlike) {
  struct Read {
    const char* what;
    std::function<float(const KRValue&)> read;
  };
  const Read reads[] = {
      {"asFloat", [](const KRValue& v) { return v.asFloat(); }},
      {"conversion", [](const KRValue& v) { return KR::fromKRValue<float>(v); }},
      {"extractFloat", [](const KRValue& v) { return KR::extractFloat(v, kCaller, kValue); }},
      {"vector element",
       [](const KRValue& v) {
         return KR::extractVectorFloatsFromKRValue(KRValue::Array{v}, kCaller, kValue).at(0);
       }},
  };
  for (const Read& r : reads) {
    SCOPED_TRACE(r.what);
    EXPECT_EQ(r.read(KRValue(-7)), -7.0f);
    EXPECT_EQ(r.read(KRValue(2.5f)), 2.5f);
    for (const KRValue& refused :
         {KRValue(), KRValue(true), KRValue("1"), KRValue(KRValue::Array{1.0f})}) {
      const std::string text = errorText([&] { r.read(refused); });
      EXPECT_NE(text.find("a float or an int"), std::string::npos) << text;
      EXPECT_NE(text.find(refused.typeName()), std::string::npos) << text;
    }
  }
  float untouched = 4.0f;
  EXPECT_FALSE(KRValue("4").toFloat(untouched));
  EXPECT_EQ(untouched, 4.0f);
}

// ---- binary encoding ---------------------------------------------------------------------
// Every kind survives a round trip exactly, and malformed or hostile buffers are refused with a
// KRError rather than crashing or allocating without bound.

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
    const KRError e = krtest::krErrorOf([&] { KR::decodeKRValue(c.bytes.data(), c.bytes.size()); });
    EXPECT_EQ(e.module(), "KRValue");
    EXPECT_EQ(e.method(), "decode");
    EXPECT_NE(e.message().find(c.expected), std::string::npos) << e.message();
  }
}
