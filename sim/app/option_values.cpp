#include "app/option_values.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <limits>

#include <kr/error.h>

namespace KR {
namespace Sim {

double parseNumber(const std::string& option, const std::string& text) {
  char* end = nullptr;
  errno = 0;
  const double v = std::strtod(text.c_str(), &end);
  // The numbers end up in floats: one beyond their range would not convert.
  if (text.empty() || *end != '\0' || errno != 0 || !std::isfinite(v) ||
      std::fabs(v) > std::numeric_limits<float>::max()) {
    throw UsageError(option + " expects a number, not '" + text + "'");
  }
  return v;
}

std::uint32_t parseSeed(const std::string& text) {
  char* end = nullptr;
  errno = 0;
  const unsigned long long v = std::strtoull(text.c_str(), &end, 10);
  if (text.empty() || text[0] == '-' || *end != '\0' || errno != 0 || v > 0xffffffffULL) {
    throw UsageError("--seed expects an integer from 0 to 4294967295, not '" + text + "'");
  }
  return static_cast<std::uint32_t>(v);
}

SeedRange parseSeeds(const std::string& text) {
  const std::string refusal =
      "--seeds expects a range A-B of integers with A <= B and at most 10000 seeds, not '" + text +
      "'";
  const auto dash = text.find('-');
  if (dash == std::string::npos || dash == 0)
    throw UsageError("--seeds expects a range A-B, not '" + text + "'");
  SeedRange range;
  try {
    range = {parseSeed(text.substr(0, dash)), parseSeed(text.substr(dash + 1))};
  } catch (const UsageError&) {
    throw UsageError(refusal);
  }
  if (range.last < range.first || range.last - range.first >= RunConfig::kMaxSeeds)
    throw UsageError(refusal);
  return range;
}

bool parseSwitch(const std::string& option, const std::string& text) {
  try {
    expectOneOf(option, text, {"on", "off"});
  } catch (const KRError& e) {
    throw UsageError(e.message());
  }
  return text == "on";
}

Math::Position3D parsePoint(const std::string& option, const std::vector<std::string>& values,
                            std::size_t from) {
  const double x = parseNumber(option, values[from]);
  const double y = parseNumber(option, values[from + 1]);
  const double z = parseNumber(option, values[from + 2]);
  return {static_cast<float>(x), static_cast<float>(y), static_cast<float>(z)};
}

}  // namespace Sim
}  // namespace KR
