#include "scenario_reader.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sstream>

#include <kr/error.h>

namespace KR {
namespace Sim {

namespace {

/// C0 controls, DEL, and the C1 controls as UTF-8 encodes them (0xC2 0x80 to 0xC2 0x9F).
std::size_t controlLength(const std::string& text, std::size_t i) {
  const auto c = static_cast<unsigned char>(text[i]);
  if (c < 0x20 || c == 0x7f)
    return 1;
  if (c == 0xc2 && i + 1 < text.size()) {
    const auto next = static_cast<unsigned char>(text[i + 1]);
    if (next >= 0x80 && next <= 0x9f)
      return 2;
  }
  return 0;
}

bool hasControl(const std::string& text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (controlLength(text, i) != 0)
      return true;
  }
  return false;
}

}  // namespace

std::string printable(const std::string& text) {
  std::string out;
  for (std::size_t i = 0; i < text.size();) {
    const std::size_t n = controlLength(text, i);
    if (n == 0) {
      out += text[i++];
      continue;
    }
    for (std::size_t k = 0; k < n; ++k, ++i) {
      char hex[8];
      std::snprintf(hex, sizeof hex, "\\x%02x", static_cast<unsigned char>(text[i]));
      out += hex;
    }
  }
  return out;
}

void failAt(const std::string& file, const YAML::Node& node, const std::string& field,
            const std::string& what) {
  std::ostringstream os;
  os << file << ":" << node.Mark().line + 1 << ": " << printable(field) << ": " << printable(what);
  throw KRError("krsim", "scenario", os.str());
}

YAML::Node ScenarioReader::parse(const std::string& text) const {
  std::vector<YAML::Node> documents;
  try {
    documents = YAML::LoadAll(text);
  } catch (const YAML::ParserException& e) {
    std::ostringstream os;
    os << fFile << ":" << e.mark.line + 1 << ": bad YAML: " << e.msg;
    throw KRError("krsim", "scenario", os.str());
  }
  if (documents.empty())
    throw KRError("krsim", "scenario", fFile + ": the file holds no scenario");
  if (documents.size() > 1)
    fail(documents[1], "---", "a second YAML document: a file holds one scenario");
  return documents.front();
}

YAML::Node ScenarioReader::need(const YAML::Node& map, const std::string& key,
                                const std::string& where) const {
  const YAML::Node n = map[key];
  if (!n)
    fail(map, where + key, "missing");
  return n;
}

double ScenarioReader::number(const YAML::Node& n, const std::string& field, double min,
                              double max) const {
  double v = 0.0;
  if (!n.IsScalar() || !YAML::convert<double>::decode(n, v) || !std::isfinite(v))
    fail(n, field, "expects a number, not '" + text(n) + "'");
  if (v < min || v > max) {
    std::ostringstream os;
    os << "expects a number from " << min << " to " << max << ", not " << v;
    fail(n, field, os.str());
  }
  return v;
}

double ScenarioReader::number(const YAML::Node& map, const std::string& key,
                              const std::string& where, double min, double max,
                              double fallback) const {
  const YAML::Node n = map[key];
  return n ? number(n, where + key, min, max) : fallback;
}

std::string ScenarioReader::string(const YAML::Node& n, const std::string& field) const {
  if (!n.IsScalar())
    fail(n, field, "expects a text");
  if (hasControl(n.Scalar()))
    fail(n, field, "expects a text without control characters, not '" + text(n) + "'");
  return n.Scalar();
}

bool ScenarioReader::boolean(const YAML::Node& map, const std::string& key,
                             const std::string& where, bool fallback) const {
  const YAML::Node n = map[key];
  if (!n)
    return fallback;
  bool v = false;
  if (!n.IsScalar() || !YAML::convert<bool>::decode(n, v))
    fail(n, where + key, "expects true or false, not '" + text(n) + "'");
  return v;
}

std::vector<double> ScenarioReader::numbers(const YAML::Node& n, const std::string& field,
                                            std::size_t count, double limit) const {
  if (!n.IsSequence() || n.size() != count)
    fail(n, field, "expects a list of " + std::to_string(count) + " numbers");
  std::vector<double> v;
  for (std::size_t i = 0; i < count; ++i)
    v.push_back(number(n[i], field + "[" + std::to_string(i) + "]", -limit, limit));
  return v;
}

KRValue ScenarioReader::value(const YAML::Node& n, const std::string& field, std::size_t& budget,
                              int depth) const {
  if (budget == 0) {
    fail(n, field,
         "more than " + std::to_string(kMaxArgumentValues) +
             " values in the arguments (aliases included)");
  }
  --budget;
  if (n.IsSequence()) {
    if (depth >= kMaxArgumentDepth)
      fail(n, field, "lists nested more than " + std::to_string(kMaxArgumentDepth) + " deep");
    std::vector<KRValue> items;
    for (std::size_t i = 0; i < n.size(); ++i)
      items.push_back(value(n[i], field + "[" + std::to_string(i) + "]", budget, depth + 1));
    return KRValue(items);
  }
  if (!n.IsScalar())
    fail(n, field, "expects a value or a list of values");
  const std::string s = n.Scalar();
  bool b = false;
  if (n.Tag() != "!" && (s == "true" || s == "false") && YAML::convert<bool>::decode(n, b))
    return KRValue(b);
  if (n.Tag() != "!") {
    long i = 0;
    if (s.find_first_of(".eE") == std::string::npos && YAML::convert<long>::decode(n, i) &&
        std::labs(i) < (1L << 31))
      return KRValue(static_cast<int>(i));
    double d = 0.0;
    if (YAML::convert<double>::decode(n, d)) {
      if (!std::isfinite(d) || std::fabs(d) > 1e6)
        fail(n, field, "expects a finite number of reasonable size, not '" + text(n) + "'");
      return KRValue(static_cast<float>(d));
    }
  }
  return KRValue(string(n, field));
}

void ScenarioReader::onlyFields(const YAML::Node& map, const std::string& where,
                                const std::vector<std::string>& known) const {
  if (!map.IsMap())
    fail(map, where.empty() ? "(top)" : where.substr(0, where.size() - 1),
         "expects a map of fields");
  std::vector<std::string> seen;
  for (const auto& kv : map) {
    if (!kv.first.IsScalar())
      fail(kv.first, where.empty() ? "(top)" : where, "expects field names as keys");
    const std::string key = kv.first.Scalar();
    if (std::find(known.begin(), known.end(), key) == known.end())
      fail(kv.first, where + key, "unknown field");
    if (std::find(seen.begin(), seen.end(), key) != seen.end())
      fail(kv.first, where + key, "given twice");
    seen.push_back(key);
  }
}

}  // namespace Sim
}  // namespace KR
