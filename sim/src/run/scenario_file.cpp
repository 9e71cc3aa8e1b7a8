// Scenarios read from YAML files (scenarios/*.yaml, or any file given to --scenario). The
// README's "Scenario files" section describes the format.

#include <krsim/run/scenario.h>

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <optional>
#include <sstream>

#include <yaml-cpp/yaml.h>
#include <boost/algorithm/string/join.hpp>

#include <kr/error.h>

#include <krsim/run/run_config.h>
#include <krsim/tracking/target_manager.h>

#include "scenario_reader.h"

namespace KR {
namespace Sim {

namespace {

/// Samples the paths of one file may hold in all, counted before any is made: a week of
/// `pursuit` (one sample every 0.2 s) fits, 24 bytes each.
constexpr std::size_t kMaxPathSamples = 4000000;

struct Key {
  double t;
  double a, b, z;
};

/// Takes `count` samples from what is left of the file's `budget`; refuses past it.
void spend(const ScenarioReader& r, const YAML::Node& node, const std::string& field, double count,
           std::size_t& budget) {
  if (count > static_cast<double>(budget)) {
    std::ostringstream os;
    os << "needs " << std::fixed << std::setprecision(0) << count
       << " samples, more than the paths of a file may hold (" << kMaxPathSamples << " in all)";
    r.fail(node, field, os.str());
  }
  budget -= static_cast<std::size_t>(count);
}

std::vector<Key> readKeys(const ScenarioReader& r, const YAML::Node& keys,
                          const std::string& field) {
  if (!keys.IsSequence() || keys.size() == 0)
    r.fail(keys, field, "expects a list of keyframes");
  std::vector<Key> list;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    const auto k = r.numbers(keys[i], field + "[" + std::to_string(i) + "]", 4, 1e6);
    if (!list.empty() && k[0] < list.back().t)
      r.fail(keys[i], field + "[" + std::to_string(i) + "]", "keyframes go back in time");
    list.push_back({k[0], k[1], k[2], k[3]});
  }
  return list;
}

/// "repeat_every" P: the keyframes from time "repeat_from" on come back every P seconds until
/// `duration` [s].
void repeatKeys(const ScenarioReader& r, const YAML::Node& t, const std::string& where,
                double duration, std::size_t& budget, std::vector<Key>& list) {
  const YAML::Node every = t["repeat_every"];
  if (!every)
    return;
  const double period = r.number(every, where + "repeat_every", 0.01, 1e6);
  const double from = r.number(t, "repeat_from", where, 0.0, 1e6, list.front().t);
  std::vector<Key> cycle;
  for (const Key& k : list) {
    if (k.t >= from)
      cycle.push_back(k);
  }
  if (cycle.empty() || cycle.back().t - cycle.front().t >= period)
    r.fail(every, where + "repeat_every", "the repeated keyframes must span less than one period");
  const double cycles = std::max(0.0, std::ceil((duration - list.back().t) / period));
  spend(r, every, where + "repeat_every", cycles * static_cast<double>(cycle.size()), budget);
  for (int n = 1; list.back().t < duration; ++n) {
    for (Key k : cycle) {
      k.t += n * period;
      list.push_back(k);
    }
  }
}

/// Samples between keyframes: one per span, or one every `step` [s] (polar keyframes).
long samplesOf(double span, double step) {
  return step > 0.0 && span > 0.0 ? static_cast<long>(std::ceil(span / step - 1e-9)) : 1;
}

Path samplePath(const std::vector<Key>& list, bool polar, double step) {
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
  Path path;
  path.add(list[0].t, at(list[0], list[0], 0.0));
  for (std::size_t i = 1; i < list.size(); ++i) {
    const Key& a = list[i - 1];
    const Key& b = list[i];
    const double span = b.t - a.t;
    const long n = samplesOf(span, step);
    for (long k = 1; k <= n; ++k) {
      const double u = static_cast<double>(k) / static_cast<double>(n);
      path.add(a.t + span * u, at(a, b, u));
    }
  }
  return path;
}

/// Keyframes: "points" [[t, x, y, z], ...] in metres, or "polar" [[t, bearing, distance, z],
/// ...] about the origin (bearing in degrees), sampled every 0.05 s; "repeat_every" S repeats
/// the keyframes after the first with that period up to the end of the run. Every sample is
/// counted against the file's `budget` before it is made.
Path readPath(const ScenarioReader& r, const YAML::Node& t, const std::string& where,
              double duration, std::size_t& budget) {
  const bool polar = static_cast<bool>(t["polar"]);
  if (t["fixed"]) {
    const auto p = r.numbers(t["fixed"], where + "fixed", 3, 1000.0);
    return Path::fixed(
        {static_cast<float>(p[0]), static_cast<float>(p[1]), static_cast<float>(p[2])});
  }
  const YAML::Node keys = polar ? t["polar"] : t["points"];
  const std::string field = where + (polar ? "polar" : "points");
  if (!keys)
    r.fail(t, where + "points", "missing (or polar, or fixed)");
  std::vector<Key> list = readKeys(r, keys, field);
  repeatKeys(r, t, where, duration, budget, list);
  const double step = polar ? r.number(t, "sample_s", where, 0.01, 10.0, 0.05) : 0.0;
  double samples = 1.0;
  for (std::size_t i = 1; i < list.size(); ++i)
    samples += static_cast<double>(samplesOf(list[i].t - list[i - 1].t, step));
  spend(r, keys, field, samples, budget);
  return samplePath(list, polar, step);
}

std::vector<std::string> armsOf(const std::string& effector) {
  if (effector == "Arms")
    return {"LArm", "RArm"};
  if (effector == "LArm" || effector == "RArm")
    return {effector};
  return {};
}

/// The file's one YAML document, read as every input is (a regular file of at most 1 MiB).
YAML::Node parseFile(const ScenarioReader& r) {
  const std::optional<std::string> text = readInputFile("scenario", r.file());
  if (!text)
    throw KRError("krsim", "scenario", r.file() + ": cannot read the file");
  return r.parse(*text);
}

/// The robot the options give, or the file's own, loaded once for the whole run and checked
/// as --robot is.
std::shared_ptr<const RobotDescription> readRobot(const ScenarioReader& r, const YAML::Node& root,
                                                  const ScenarioOptions& options) {
  if (options.robot)
    return options.robot;
  const YAML::Node field = r.need(root, "robot", "");
  try {
    return RobotDescription::load(r.string(field, "robot"));
  } catch (const InputError& e) {
    r.fail(field, "robot", e.what());
  }
}

/// The name becomes the name of the output files: a plain file name, nothing that could
/// climb out of the output folder or hide there.
void checkPlainName(const ScenarioReader& r, const YAML::Node& node, const std::string& name) {
  if (name.empty() || name.front() == '.' || name.find_first_of("/\\") != std::string::npos)
    r.fail(node, "name",
           "expects a plain file name (no '/' or '\\', not starting with '.'), not '" + name + "'");
}

/// The fields of the top level other than the lists: name, robot, duration, start pose, drift.
/// Returns the duration the file scripts [s] (the run's may be longer when it is open-ended).
double readHeader(const ScenarioReader& r, const YAML::Node& root, const ScenarioOptions& options,
                  Scenario& s) {
  s.name = r.string(r.need(root, "name", ""), "name");
  checkPlainName(r, root["name"], s.name);
  s.description = root["description"] ? r.string(root["description"], "description") : "";
  s.robot = readRobot(r, root, options);
  s.openEnded = r.boolean(root, "open_ended", "", false);
  const double scripted =
      r.number(r.need(root, "duration", ""), "duration", 0.01, RunConfig::kMaxDurationS);
  s.duration = s.openEnded && options.duration > 0.0 ? options.duration : scripted;
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
  return scripted;
}

void expectIn(const ScenarioReader& r, const YAML::Node& node, const std::string& field,
              const std::string& value, const std::vector<std::string>& accepted) {
  if (std::find(accepted.begin(), accepted.end(), value) != accepted.end())
    return;
  r.fail(node, field,
         "expects one of " + boost::algorithm::join(accepted, ", ") + ", not '" + value + "'");
}

/// [from, to] intervals [s], each in time order.
std::vector<TimeInterval> readHidden(const ScenarioReader& r, const YAML::Node& hidden,
                                     const std::string& field) {
  if (!hidden.IsSequence())
    r.fail(hidden, field, "expects a list of [from, to] intervals");
  std::vector<TimeInterval> intervals;
  for (std::size_t k = 0; k < hidden.size(); ++k) {
    const std::string where = field + "[" + std::to_string(k) + "]";
    const auto v = r.numbers(hidden[k], where, 2);
    if (v[1] < v[0]) {
      std::ostringstream os;
      os << "the interval ends before it begins (" << v[0] << " s to " << v[1] << " s)";
      r.fail(hidden[k], where, os.str());
    }
    intervals.push_back({v[0], v[1]});
  }
  return intervals;
}

TargetScript readTarget(const ScenarioReader& r, const YAML::Node& t, const std::string& where,
                        double duration, std::size_t& budget) {
  r.onlyFields(t, where,
               {"name", "kind", "layout", "max_range", "points", "polar", "fixed", "sample_s",
                "repeat_every", "repeat_from", "hidden"});
  TargetScript script;
  script.name = r.string(r.need(t, "name", where), where + "name");
  script.kind = r.string(r.need(t, "kind", where), where + "kind");
  expectIn(r, t["kind"], where + "kind", script.kind, TargetManager::supportedKinds());
  const std::string layout = t["layout"] ? r.string(t["layout"], where + "layout") : "torso";
  if (layout != "torso" && layout != "world")
    r.fail(t["layout"], where + "layout", "expects torso or world, not '" + layout + "'");
  script.layout = layout == "world" ? Layout::World : Layout::Torso;
  script.maxRange = static_cast<float>(r.number(t, "max_range", where, 0.0, 100.0, 0.0));
  script.path = readPath(r, t, where, duration, budget);
  if (const YAML::Node hidden = t["hidden"])
    script.hidden = readHidden(r, hidden, where + "hidden");
  return script;
}

void readTargets(const ScenarioReader& r, const YAML::Node& root, Scenario& s) {
  const YAML::Node targets = r.need(root, "targets", "");
  if (!targets.IsSequence() || targets.size() == 0)
    r.fail(targets, "targets", "expects a list of targets");
  std::size_t budget = kMaxPathSamples;
  for (std::size_t i = 0; i < targets.size(); ++i)
    s.targets.push_back(
        readTarget(r, targets[i], "targets[" + std::to_string(i) + "].", s.duration, budget));
}

Phase readPhase(const ScenarioReader& r, const YAML::Node& p, const std::string& where,
                const Scenario& s, double scripted, const std::string& effector) {
  r.onlyFields(p, where,
               {"name", "begin", "end", "target", "on_target_deg", "line_of_sight", "settle_s",
                "one_shot", "step", "localisation", "effector", "relative_position"});
  Phase phase;
  phase.name = r.string(r.need(p, "name", where), where + "name");
  phase.begin = r.number(r.need(p, "begin", where), where + "begin", 0.0, 1e7);
  if (phase.begin > scripted) {
    std::ostringstream os;
    os << "begins at " << phase.begin << " s, after the end of the script (duration " << scripted
       << " s)";
    r.fail(p["begin"], where + "begin", os.str());
  }
  phase.end = p["end"] ? r.number(p["end"], where + "end", phase.begin, 1e7) : s.duration;
  phase.target = r.string(r.need(p, "target", where), where + "target");
  if (std::none_of(s.targets.begin(), s.targets.end(),
                   [&](const TargetScript& t) { return t.name == phase.target; }))
    r.fail(p["target"], where + "target", "no target is called '" + phase.target + "'");
  phase.acquireDegrees = r.number(p, "on_target_deg", where, 0.01, 180.0, 3.0);
  phase.lineOfSight = r.boolean(p, "line_of_sight", where, true);
  phase.settleSeconds = r.number(p, "settle_s", where, 0.0, 1e6, 0.0);
  phase.oneShot = r.boolean(p, "one_shot", where, false);
  phase.step = r.boolean(p, "step", where, false);
  phase.measureLocalisation = r.boolean(p, "localisation", where, false);
  if (const YAML::Node e = p["effector"]) {
    // The command line's effector replaces the file's.
    const std::string own = r.string(e, where + "effector");
    expectIn(r, e, where + "effector", own, runEffectors());
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

void readPhases(const ScenarioReader& r, const YAML::Node& root, const ScenarioOptions& options,
                double scripted, Scenario& s) {
  const YAML::Node phases = r.need(root, "phases", "");
  if (!phases.IsSequence() || phases.size() == 0)
    r.fail(phases, "phases", "expects a list of phases");
  for (std::size_t i = 0; i < phases.size(); ++i)
    s.phases.push_back(readPhase(r, phases[i], "phases[" + std::to_string(i) + "].", s, scripted,
                                 options.effector));
}

}  // namespace

Scenario loadScenarioFile(const std::string& path, const ScenarioOptions& options) {
  const ScenarioReader r(path);
  const YAML::Node root = parseFile(r);
  r.onlyFields(root, "",
               {"name", "description", "robot", "duration", "open_ended", "start_pose", "targets",
                "actions", "phases", "odometry_drift"});
  Scenario s;
  s.file = path;
  const double scripted = readHeader(r, root, options, s);
  readTargets(r, root, s);
  readActions(r, root, options, scripted, s);
  readPhases(r, root, options, scripted, s);
  return s;
}

}  // namespace Sim
}  // namespace KR
