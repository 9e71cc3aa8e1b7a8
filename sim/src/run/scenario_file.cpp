// Scenarios read from YAML files (scenarios/*.yaml, or any file given to --scenario). The
// README's "Scenario files" section describes the format.

#include <krsim/run/scenario.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <sstream>

#include <yaml-cpp/yaml.h>

#include <kr/error.h>
#include <krsim/run/simulation.h>

namespace KR {
namespace Sim {

namespace {

/// The loader's one error: file, line and field.
[[noreturn]] void fail(const std::string& file, const YAML::Node& node, const std::string& field,
                       const std::string& what) {
  std::ostringstream os;
  os << file << ":" << node.Mark().line + 1 << ": " << field << ": " << what;
  throw KRError("krsim", "scenario", os.str());
}

class Reader {
 public:
  explicit Reader(std::string file) : fFile(std::move(file)) {}

  const std::string& file() const { return fFile; }

  YAML::Node need(const YAML::Node& map, const std::string& key, const std::string& where) const {
    const YAML::Node n = map[key];
    if (!n)
      fail(fFile, map, where + key, "missing");
    return n;
  }

  double number(const YAML::Node& n, const std::string& field, double min, double max) const {
    double v = 0.0;
    if (!n.IsScalar() || !YAML::convert<double>::decode(n, v) || !std::isfinite(v))
      fail(fFile, n, field, "expects a number, not '" + text(n) + "'");
    if (v < min || v > max) {
      std::ostringstream os;
      os << "expects a number from " << min << " to " << max << ", not " << v;
      fail(fFile, n, field, os.str());
    }
    return v;
  }

  double number(const YAML::Node& map, const std::string& key, const std::string& where, double min,
                double max, double fallback) const {
    const YAML::Node n = map[key];
    return n ? number(n, where + key, min, max) : fallback;
  }

  std::string string(const YAML::Node& n, const std::string& field) const {
    if (!n.IsScalar())
      fail(fFile, n, field, "expects a text");
    return n.as<std::string>();
  }

  bool boolean(const YAML::Node& map, const std::string& key, const std::string& where,
               bool fallback) const {
    const YAML::Node n = map[key];
    if (!n)
      return fallback;
    bool v = false;
    if (!n.IsScalar() || !YAML::convert<bool>::decode(n, v))
      fail(fFile, n, where + key, "expects true or false, not '" + text(n) + "'");
    return v;
  }

  std::vector<double> numbers(const YAML::Node& n, const std::string& field, std::size_t count,
                              double limit = 1e6) const {
    if (!n.IsSequence() || n.size() != count)
      fail(fFile, n, field, "expects a list of " + std::to_string(count) + " numbers");
    std::vector<double> v;
    for (std::size_t i = 0; i < count; ++i)
      v.push_back(number(n[i], field + "[" + std::to_string(i) + "]", -limit, limit));
    return v;
  }

  /// A YAML value as the tracker receives it: true/false, integers, other numbers as floats,
  /// texts, lists of these.
  KRValue value(const YAML::Node& n, const std::string& field) const {
    if (n.IsSequence()) {
      std::vector<KRValue> items;
      for (std::size_t i = 0; i < n.size(); ++i)
        items.push_back(value(n[i], field + "[" + std::to_string(i) + "]"));
      return KRValue(items);
    }
    if (!n.IsScalar())
      fail(fFile, n, field, "expects a value or a list of values");
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
          fail(fFile, n, field, "expects a finite number of reasonable size, not '" + s + "'");
        return KRValue(static_cast<float>(d));
      }
    }
    return KRValue(s);
  }

  /// A misspelt field is refused rather than silently left at its default.
  void onlyFields(const YAML::Node& map, const std::string& where,
                  const std::vector<std::string>& known) const {
    if (!map.IsMap())
      fail(fFile, map, where.empty() ? "(top)" : where.substr(0, where.size() - 1),
           "expects a map of fields");
    for (const auto& kv : map) {
      const std::string key = kv.first.as<std::string>();
      if (std::find(known.begin(), known.end(), key) == known.end())
        fail(fFile, kv.first, where + key, "unknown field");
    }
  }

  static std::string text(const YAML::Node& n) { return n.IsScalar() ? n.Scalar() : "(a list)"; }

 private:
  std::string fFile;
};

/// Keyframes: "points" [[t, x, y, z], ...] in metres, or "polar" [[t, bearing, distance, z],
/// ...] about the origin (bearing in degrees), sampled every 0.05 s; "repeat_every" S repeats
/// the keyframes after the first with that period up to the end of the run.
Path readPath(const Reader& r, const YAML::Node& t, const std::string& where, double duration) {
  const bool polar = static_cast<bool>(t["polar"]);
  if (t["fixed"]) {
    const auto p = r.numbers(t["fixed"], where + "fixed", 3, 1000.0);
    return Path::fixed(
        {static_cast<float>(p[0]), static_cast<float>(p[1]), static_cast<float>(p[2])});
  }
  const YAML::Node keys = polar ? t["polar"] : t["points"];
  const std::string field = where + (polar ? "polar" : "points");
  if (!keys)
    fail(r.file(), t, where + "points", "missing (or polar, or fixed)");
  if (!keys.IsSequence() || keys.size() == 0)
    fail(r.file(), keys, field, "expects a list of keyframes");
  struct Key {
    double t;
    double a, b, z;
  };
  std::vector<Key> list;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    const auto k = r.numbers(keys[i], field + "[" + std::to_string(i) + "]", 4, 1e6);
    if (!list.empty() && k[0] < list.back().t)
      fail(r.file(), keys[i], field + "[" + std::to_string(i) + "]", "keyframes go back in time");
    list.push_back({k[0], k[1], k[2], k[3]});
  }
  // "repeat_every" P: the keyframes from time "repeat_from" on come back every P seconds
  // until the end of the run.
  if (const YAML::Node every = t["repeat_every"]) {
    const double period = r.number(every, where + "repeat_every", 0.01, 1e6);
    const double from = r.number(t, "repeat_from", where, 0.0, 1e6, list.front().t);
    std::vector<Key> cycle;
    for (const Key& k : list) {
      if (k.t >= from)
        cycle.push_back(k);
    }
    if (cycle.empty() || cycle.back().t - cycle.front().t >= period)
      fail(r.file(), every, where + "repeat_every",
           "the repeated keyframes must span less than one period");
    for (int n = 1; list.back().t < duration; ++n) {
      for (Key k : cycle) {
        k.t += n * period;
        list.push_back(k);
      }
    }
  }
  Path path;
  const double step = polar ? r.number(t, "sample_s", where, 0.01, 10.0, 0.05) : 0.0;
  auto at = [&](const Key& a, const Key& b, double u) -> Math::Position3D {
    if (!polar)
      return {static_cast<float>(a.a + (b.a - a.a) * u), static_cast<float>(a.b + (b.b - a.b) * u),
              static_cast<float>(a.z + (b.z - a.z) * u)};
    const double bearing = (a.a + (b.a - a.a) * u) * M_PI / 180.0;
    const double distance = a.b + (b.b - a.b) * u;
    return {static_cast<float>(distance * std::cos(bearing)),
            static_cast<float>(distance * std::sin(bearing)),
            static_cast<float>(a.z + (b.z - a.z) * u)};
  };
  path.add(list[0].t, at(list[0], list[0], 0.0));
  for (std::size_t i = 1; i < list.size(); ++i) {
    const Key& a = list[i - 1];
    const Key& b = list[i];
    const double span = b.t - a.t;
    const long n = step > 0.0 && span > 0.0 ? static_cast<long>(std::ceil(span / step - 1e-9)) : 1;
    for (long k = 1; k <= n; ++k) {
      const double u = static_cast<double>(k) / static_cast<double>(n);
      path.add(a.t + span * u, at(a, b, u));
    }
  }
  return path;
}

std::vector<std::string> armsOf(const std::string& effector) {
  if (effector == "Arms")
    return {"LArm", "RArm"};
  if (effector == "LArm" || effector == "RArm")
    return {effector};
  return {};
}

YAML::Node parseFile(const std::string& path) {
  try {
    return YAML::LoadFile(path);
  } catch (const YAML::BadFile&) {
    throw KRError("krsim", "scenario", path + ": cannot read the file");
  } catch (const YAML::ParserException& e) {
    std::ostringstream os;
    os << path << ":" << e.mark.line + 1 << ": bad YAML: " << e.msg;
    throw KRError("krsim", "scenario", os.str());
  }
}

/// The robot description's path: the command line's robot, else the file's "robot" field.
/// The robot the options give, or the file's own, loaded once for the whole run.
std::shared_ptr<const RobotDescription> readRobot(const Reader& r, const YAML::Node& root,
                                                  const ScenarioOptions& options) {
  if (options.robot)
    return options.robot;
  return RobotDescription::load(resolveRobotFile(r.string(r.need(root, "robot", ""), "robot")));
}

/// The fields of the top level other than the lists: name, robot, duration, start pose, drift.
void readHeader(const Reader& r, const YAML::Node& root, const ScenarioOptions& options,
                Scenario& s) {
  s.name = r.string(r.need(root, "name", ""), "name");
  s.description = root["description"] ? r.string(root["description"], "description") : "";
  s.robot = readRobot(r, root, options);
  s.openEnded = r.boolean(root, "open_ended", "", false);
  s.duration = r.number(r.need(root, "duration", ""), "duration", 0.01, 7.0 * 24 * 3600);
  if (s.openEnded && options.duration > 0.0)
    s.duration = options.duration;
  if (const YAML::Node p = root["start_pose"]) {
    // [x, y] in metres, then the heading in degrees, map frame.
    const auto v = r.numbers(p, "start_pose", 3, 1000.0);
    s.startPose = {static_cast<float>(v[0]), static_cast<float>(v[1]),
                   static_cast<float>(v[2] * M_PI / 180.0)};
  }
  if (const YAML::Node d = root["odometry_drift"]) {
    const auto v = r.numbers(d, "odometry_drift", 2, 1.0);
    s.odometryDriftLinear = static_cast<float>(v[0]);
    s.odometryDriftAngular = static_cast<float>(v[1]);
  }
}

TargetScript readTarget(const Reader& r, const YAML::Node& t, const std::string& where,
                        double duration) {
  r.onlyFields(t, where,
               {"name", "kind", "layout", "max_range", "points", "polar", "fixed", "sample_s",
                "repeat_every", "repeat_from", "hidden"});
  TargetScript script;
  script.name = r.string(r.need(t, "name", where), where + "name");
  script.kind = r.string(r.need(t, "kind", where), where + "kind");
  const std::string layout = t["layout"] ? r.string(t["layout"], where + "layout") : "torso";
  if (layout != "torso" && layout != "world")
    fail(r.file(), t["layout"], where + "layout", "expects torso or world, not '" + layout + "'");
  script.layout = layout == "world" ? Layout::World : Layout::Torso;
  script.maxRange = static_cast<float>(r.number(t, "max_range", where, 0.0, 100.0, 0.0));
  script.path = readPath(r, t, where, duration);
  if (const YAML::Node hidden = t["hidden"]) {
    if (!hidden.IsSequence())
      fail(r.file(), hidden, where + "hidden", "expects a list of [from, to] intervals");
    for (std::size_t k = 0; k < hidden.size(); ++k) {
      const auto v = r.numbers(hidden[k], where + "hidden[" + std::to_string(k) + "]", 2);
      script.hidden.push_back({v[0], v[1]});
    }
  }
  return script;
}

void readTargets(const Reader& r, const YAML::Node& root, Scenario& s) {
  const YAML::Node targets = r.need(root, "targets", "");
  if (!targets.IsSequence() || targets.size() == 0)
    fail(r.file(), targets, "targets", "expects a list of targets");
  for (std::size_t i = 0; i < targets.size(); ++i)
    s.targets.push_back(
        readTarget(r, targets[i], "targets[" + std::to_string(i) + "].", s.duration));
}

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

/// One call of "actions", at or after `previous` [s].
Action readAction(const Reader& r, const YAML::Node& a, const std::string& where, double previous,
                  const ScenarioOptions& options, Modes& modes) {
  r.onlyFields(a, where, {"time", "call", "args", "service"});
  const double time = r.number(r.need(a, "time", where), where + "time", 0.0, 1e7);
  if (time < previous)
    fail(r.file(), a["time"], where + "time", "calls go back in time");
  const std::string method = r.string(r.need(a, "call", where), where + "call");
  std::vector<KRValue> args;
  if (const YAML::Node list = a["args"]) {
    if (!list.IsSequence())
      fail(r.file(), list, where + "args", "expects a list");
    for (std::size_t k = 0; k < list.size(); ++k)
      args.push_back(r.value(list[k], where + "args[" + std::to_string(k) + "]"));
  }
  // The command line's mode and effector replace the file's.
  if (method == "setMode" && !args.empty()) {
    if (!options.mode.empty())
      args[0] = KRValue(options.mode);
    modes.add(args[0]);
  }
  if (method == "setEffector" && !args.empty() && !options.effector.empty())
    args[0] = KRValue(options.effector);
  std::string description = method + "(";
  for (std::size_t k = 0; k < args.size(); ++k)
    description += (k ? ", " : "") + args[k].toString();
  description += ")";
  // "service" names another module than the tracker (e.g. KRMotion.moveTo).
  const std::string service = a["service"] ? r.string(a["service"], where + "service") : "";
  if (!service.empty())
    description = service + "." + description;
  return {
      time, description, [service, method, args](Simulation& sim) {
        sim.broker().getProxy(service.empty() ? "KRTracker" : service, 0)->callValues(method, args);
        sim.broker().waitForPostedCalls();
      }};
}

void readActions(const Reader& r, const YAML::Node& root, const ScenarioOptions& options,
                 Scenario& s) {
  Modes modes;
  if (const YAML::Node actions = root["actions"]) {
    if (!actions.IsSequence())
      fail(r.file(), actions, "actions", "expects a list of calls");
    double previous = 0.0;
    for (std::size_t i = 0; i < actions.size(); ++i) {
      s.actions.push_back(readAction(r, actions[i], "actions[" + std::to_string(i) + "].", previous,
                                     options, modes));
      previous = s.actions.back().time;
    }
  }
  s.modeText = modes.text();
}

Phase readPhase(const Reader& r, const YAML::Node& p, const std::string& where, const Scenario& s,
                const std::string& effector) {
  r.onlyFields(p, where,
               {"name", "begin", "end", "target", "on_target_deg", "line_of_sight", "settle_s",
                "one_shot", "step", "localisation", "effector", "relative_position"});
  Phase phase;
  phase.name = r.string(r.need(p, "name", where), where + "name");
  phase.begin = r.number(r.need(p, "begin", where), where + "begin", 0.0, 1e7);
  phase.end = p["end"] ? r.number(p["end"], where + "end", phase.begin, 1e7) : s.duration;
  phase.target = r.string(r.need(p, "target", where), where + "target");
  if (std::none_of(s.targets.begin(), s.targets.end(),
                   [&](const TargetScript& t) { return t.name == phase.target; }))
    fail(r.file(), p["target"], where + "target", "no target is called '" + phase.target + "'");
  phase.acquireDegrees = r.number(p, "on_target_deg", where, 0.01, 180.0, 3.0);
  phase.lineOfSight = r.boolean(p, "line_of_sight", where, true);
  phase.settleSeconds = r.number(p, "settle_s", where, 0.0, 1e6, 0.0);
  phase.oneShot = r.boolean(p, "one_shot", where, false);
  phase.step = r.boolean(p, "step", where, false);
  phase.measureLocalisation = r.boolean(p, "localisation", where, false);
  if (const YAML::Node e = p["effector"]) {
    // The command line's effector replaces the file's.
    const std::string own = r.string(e, where + "effector");
    phase.arms = armsOf(effector.empty() ? own : effector);
  }
  if (const YAML::Node rp = p["relative_position"]) {
    const auto v = r.numbers(rp, where + "relative_position", 6, 100.0);
    std::array<float, 6> a{};
    for (std::size_t k = 0; k < 6; ++k)
      a[k] = static_cast<float>(v[k]);
    phase.relativePosition = a;
  }
  return phase;
}

void readPhases(const Reader& r, const YAML::Node& root, const ScenarioOptions& options,
                Scenario& s) {
  const YAML::Node phases = r.need(root, "phases", "");
  if (!phases.IsSequence() || phases.size() == 0)
    fail(r.file(), phases, "phases", "expects a list of phases");
  for (std::size_t i = 0; i < phases.size(); ++i)
    s.phases.push_back(
        readPhase(r, phases[i], "phases[" + std::to_string(i) + "].", s, options.effector));
}

}  // namespace

Scenario loadScenarioFile(const std::string& path, const ScenarioOptions& options) {
  const YAML::Node root = parseFile(path);
  const Reader r(path);
  r.onlyFields(root, "",
               {"name", "description", "robot", "duration", "open_ended", "start_pose", "targets",
                "actions", "phases", "odometry_drift"});
  Scenario s;
  s.file = path;
  readHeader(r, root, options, s);
  readTargets(r, root, s);
  readActions(r, root, options, s);
  readPhases(r, root, options, s);
  return s;
}

}  // namespace Sim
}  // namespace KR
