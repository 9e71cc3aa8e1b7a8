// Namer::releaseId on any string, compared with a reference reading of the name: the base
// must occur in it, the text after the base's length must be a strict decimal int32, and the id
// must be taken. Every refusal is a KRError and leaves the taken ids as they were; a release
// frees exactly that id.

#include <cstdint>
#include <limits>
#include <set>
#include <string>

#include <kr/error.h>
#include <krtracker/tools/namer/namer.h>

#include "fuzz_support.h"
#include "krvalue_gen.h"

using KR::Tracker::Namer;

namespace {

const std::string kBase = "KRTracker/ObjectConverter";
const std::set<std::int32_t> kTaken = {0,
                                       7,
                                       -5,
                                       42,
                                       std::numeric_limits<std::int32_t>::max(),
                                       std::numeric_limits<std::int32_t>::min()};

// An optional sign, then one or more decimal digits, within int32; nothing else.
bool strictId(const std::string& text, std::int32_t& id) {
  std::size_t i = 0;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
    negative = text[i] == '-';
    ++i;
  }
  if (i == text.size()) {
    return false;
  }
  std::int64_t v = 0;
  for (; i < text.size(); ++i) {
    if (text[i] < '0' || text[i] > '9') {
      return false;
    }
    v = v * 10 + (text[i] - '0');
    if (v > static_cast<std::int64_t>(std::numeric_limits<std::int32_t>::max()) + 1) {
      return false;
    }
  }
  v = negative ? -v : v;
  if (v < std::numeric_limits<std::int32_t>::min() ||
      v > std::numeric_limits<std::int32_t>::max()) {
    return false;
  }
  id = static_cast<std::int32_t>(v);
  return true;
}

std::string name(const std::string& text) {
  std::string shown;
  for (unsigned char c : text) {
    shown += (c >= 32 && c < 127) ? std::string(1, static_cast<char>(c))
                                  : "\\x" + std::to_string(static_cast<int>(c));
  }
  return "\"" + shown + "\"";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  krfuzz::FuzzInput in(data, size);
  Namer& namer = Namer::getInstance();
  namer.destroy();
  for (std::int32_t id : kTaken) {
    namer.getId(id);
  }

  // Most inputs start with the base, so that the number's parsing is reached.
  const std::uint8_t how = in.byte();
  std::string text = in.rest();
  if (how % 4 != 0) {
    text = kBase + text;
  }

  // The reference outcome.
  std::string expected;
  std::int32_t id = 0;
  if (text.size() < kBase.size() || text.find(kBase) == std::string::npos) {
    expected = "String passed does not contain the right base.";
  } else if (!strictId(text.substr(kBase.size()), id)) {
    expected = "String passed contains garbage: " + text + " + ";
  } else if (kTaken.count(id) == 0) {
    expected = "Id to release does not exist. Id is: " + std::to_string(id);
  }

  try {
    namer.releaseId(text);
  } catch (const KR::KRError& e) {
    FUZZ_CHECK(!expected.empty(), name(text) + " refused: " + e.message());
    FUZZ_CHECK(e.module() == "KRTracker" && e.method() == "Namer.releaseId", e.what());
    FUZZ_CHECK(e.message().compare(0, expected.size(), expected) == 0,
               name(text) + ": " + e.message() + ", expected " + expected);
    // Nothing was released.
    for (std::int32_t taken : kTaken) {
      namer.releaseId(taken);
    }
    return 0;
  }
  FUZZ_CHECK(expected.empty(), name(text) + " released, expected " + expected);
  // Exactly that id is free again; the others are still taken.
  FUZZ_CHECK(namer.getId(id) == namer.getName(id), name(text));
  for (std::int32_t taken : kTaken) {
    namer.releaseId(taken);
  }
  return 0;
}
