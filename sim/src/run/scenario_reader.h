#pragma once
// The typed reading of a scenario file's YAML (scenario_file.cpp, scenario_actions.cpp): every
// field read through ScenarioReader is checked, and a mistake is one KRError naming the file,
// the line and the field. Kept beside the loader: the YAML library stays out of the headers
// of include/krsim.

#include <cstddef>
#include <string>
#include <vector>

#include <yaml-cpp/yaml.h>

#include <kr/value/krvalue.h>

#include <krsim/run/scenario.h>

namespace KR {
namespace Sim {

/// The text with its control characters written as \xNN, safe to print on a terminal.
std::string printable(const std::string& text);

/// KRError("krsim", "scenario", "FILE:LINE: FIELD: WHAT"), the loader's one error.
[[noreturn]] void failAt(const std::string& file, const YAML::Node& node, const std::string& field,
                         const std::string& what);

class ScenarioReader {
 public:
  /// Values an action's arguments may hold in all, nested lists included: YAML aliases let a
  /// file of a few hundred bytes stand for billions of them.
  static constexpr std::size_t kMaxArgumentValues = 10000;
  /// How deep lists may nest in an action's arguments.
  static constexpr int kMaxArgumentDepth = 8;

  explicit ScenarioReader(std::string file) : fFile(std::move(file)) {}

  /// The one YAML document of `text`; KRError for bad YAML or a second document.
  YAML::Node parse(const std::string& text) const;

  const std::string& file() const { return fFile; }
  [[noreturn]] void fail(const YAML::Node& node, const std::string& field,
                         const std::string& what) const {
    failAt(fFile, node, field, what);
  }

  YAML::Node need(const YAML::Node& map, const std::string& key, const std::string& where) const;
  double number(const YAML::Node& n, const std::string& field, double min, double max) const;
  double number(const YAML::Node& map, const std::string& key, const std::string& where, double min,
                double max, double fallback) const;
  /// A text without control characters.
  std::string string(const YAML::Node& n, const std::string& field) const;
  bool boolean(const YAML::Node& map, const std::string& key, const std::string& where,
               bool fallback) const;
  std::vector<double> numbers(const YAML::Node& n, const std::string& field, std::size_t count,
                              double limit = 1e6) const;
  /// A YAML value as the tracker receives it: true/false, integers, other numbers as floats,
  /// texts, lists of these; at most kMaxArgumentValues values counted in `budget`.
  KRValue value(const YAML::Node& n, const std::string& field, std::size_t& budget,
                int depth = 0) const;
  /// A map whose keys are all in `known`, each once: a misspelt field is refused rather than
  /// silently left at its default, a repeated one rather than one of them ignored.
  void onlyFields(const YAML::Node& map, const std::string& where,
                  const std::vector<std::string>& known) const;

  static std::string text(const YAML::Node& n) {
    return n.IsScalar() ? printable(n.Scalar()) : "(a list)";
  }

 private:
  std::string fFile;
};

/// The "actions" of the file, each call checked against the method table of the service it
/// names (the tracking service's, or "service: KRMotion") and timed within the script's
/// `scripted` duration [s]; fills s.actions and s.modeText.
void readActions(const ScenarioReader& r, const YAML::Node& root, const ScenarioOptions& options,
                 double scripted, Scenario& s);

}  // namespace Sim
}  // namespace KR
