// The "actions" of a scenario file: calls to the tracking service (or to the motion service),
// each checked against the method table of its service before anything runs, so that a
// misspelt name or an argument of the wrong kind is refused with the file's line rather than
// found mid-run.

#include <algorithm>
#include <sstream>

#include <kr/error.h>

#include <krsim/robot/motion.h>
#include <krsim/run/simulation.h>
#include <krsim/tracking/tracker_service.h>

#include "scenario_reader.h"

namespace KR {
namespace Sim {

namespace {

/// The modes the actions set, for the scenario's title: the first and the last.
struct Modes {
  std::string first;
  std::string last;

  void add(const KRValue& mode) {
    const std::string text = mode.toString();
    last = text.size() > 1 && text.front() == '"' ? text.substr(1, text.size() - 2) : text;
    if (first.empty())
      first = last;
  }
  std::string text() const { return first == last ? first : first + " then " + last; }
};

/// Edits (insertions, deletions, substitutions) that turn `a` into `b`.
std::size_t editDistance(const std::string& a, const std::string& b) {
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j)
    row[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t up = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] != b[j - 1] ? 1 : 0)});
      diagonal = up;
    }
  }
  return row[b.size()];
}

/// "SERVICE has no method 'NAME'", with the nearest method's name when it is a near miss.
std::string unknownMethod(const KRModule& table, const std::string& method) {
  std::string nearest;
  std::size_t best = 3;  // at most two edits away
  for (const std::string& name : table.getMethodList()) {
    const std::size_t d = editDistance(method, name);
    if (d < best) {
      best = d;
      nearest = name;
    }
  }
  std::string text = table.getName() + " has no method '" + method + "'";
  return nearest.empty() ? text : text + " (did you mean '" + nearest + "'?)";
}

/// The method table of the service an action names: the tracking service by default.
const KRModule& serviceTable(const ScenarioReader& r, const YAML::Node& a,
                             const std::string& where) {
  const YAML::Node service = a["service"];
  if (!service)
    return trackerMethodTable();
  const std::string name = r.string(service, where + "service");
  if (name == trackerMethodTable().getName())
    return trackerMethodTable();
  if (name == motionMethodTable().getName())
    return motionMethodTable();
  r.fail(service, where + "service",
         "expects " + trackerMethodTable().getName() + " or " + motionMethodTable().getName() +
             ", not '" + name + "'");
}

std::vector<KRValue> readArguments(const ScenarioReader& r, const YAML::Node& a,
                                   const std::string& where) {
  std::vector<KRValue> args;
  const YAML::Node list = a["args"];
  if (!list)
    return args;
  if (!list.IsSequence())
    r.fail(list, where + "args", "expects a list");
  std::size_t budget = ScenarioReader::kMaxArgumentValues;
  for (std::size_t k = 0; k < list.size(); ++k)
    args.push_back(r.value(list[k], where + "args[" + std::to_string(k) + "]", budget));
  return args;
}

/// One call of "actions", at or after `previous` and not after `scripted` [s].
Action readAction(const ScenarioReader& r, const YAML::Node& a, const std::string& where,
                  double previous, double scripted, const ScenarioOptions& options, Modes& modes) {
  r.onlyFields(a, where, {"time", "call", "args", "service"});
  const double time = r.number(r.need(a, "time", where), where + "time", 0.0, 1e7);
  if (time < previous)
    r.fail(a["time"], where + "time", "calls go back in time");
  if (time > scripted) {
    std::ostringstream os;
    os << "at " << time << " s, after the end of the script (duration " << scripted << " s)";
    r.fail(a["time"], where + "time", os.str());
  }
  const KRModule& table = serviceTable(r, a, where);
  const std::string method = r.string(r.need(a, "call", where), where + "call");
  if (!table.hasMethod(method))
    r.fail(a["call"], where + "call", unknownMethod(table, method));
  std::vector<KRValue> args = readArguments(r, a, where);
  // The command line's mode and effector replace the file's.
  const bool tracker = &table == &trackerMethodTable();
  if (tracker && method == "setMode" && !args.empty()) {
    if (!options.mode.empty())
      args[0] = KRValue(options.mode);
    modes.add(args[0]);
  }
  if (tracker && method == "setEffector" && !args.empty() && !options.effector.empty())
    args[0] = KRValue(options.effector);
  try {
    table.checkArguments(method, args);
  } catch (const KRError& e) {
    r.fail(a["args"] ? a["args"] : a["call"], where + "args",
           table.getName() + "." + method + " " + e.message());
  }
  std::string description = method + "(";
  for (std::size_t k = 0; k < args.size(); ++k)
    description += (k ? ", " : "") + args[k].toString();
  description += ")";
  // Calls to another service than the tracker are shown with its name (KRMotion.moveTo).
  if (a["service"])
    description = table.getName() + "." + description;
  return {time, description, [service = table.getName(), method, args](Simulation& sim) {
            sim.broker().getProxy(service, 0)->callValues(method, args);
            sim.broker().waitForPostedCalls();
          }};
}

}  // namespace

void readActions(const ScenarioReader& r, const YAML::Node& root, const ScenarioOptions& options,
                 double scripted, Scenario& s) {
  Modes modes;
  if (const YAML::Node actions = root["actions"]) {
    if (!actions.IsSequence())
      r.fail(actions, "actions", "expects a list of calls");
    double previous = 0.0;
    for (std::size_t i = 0; i < actions.size(); ++i) {
      s.actions.push_back(readAction(r, actions[i], "actions[" + std::to_string(i) + "].", previous,
                                     scripted, options, modes));
      previous = s.actions.back().time;
    }
  }
  s.modeText = modes.text();
}

}  // namespace Sim
}  // namespace KR
