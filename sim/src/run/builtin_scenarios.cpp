#include <krsim/run/scenario.h>

#include <dirent.h>
#include <algorithm>

#include <cmath>
#include <fstream>
#include <sstream>

#include <kr/error.h>
#include <kr/math/math.h>
#include <kr/model/kinematics.h>
#include <kr/model/modelutils.h>
#include <kr/target/targets.h>
#include <krsim/run/search_scenario.h>
#include <krsim/run/simulation.h>
#include <krtracker/tools/tools.h>

namespace KR {
namespace Sim {

namespace {

using Math::Position3D;
namespace Target = KR::Tracker::Target;

constexpr float kPi = Math::kPi;

std::string quoted(const std::string& s) {
  return "\"" + s + "\"";
}

std::string listText(const std::vector<float>& v) {
  std::ostringstream os;
  os << "[";
  for (std::size_t i = 0; i < v.size(); ++i)
    os << (i ? ", " : "") << v[i];
  os << "]";
  return os.str();
}

Action call(double time, const std::string& method, const std::string& argument) {
  return {time, method + "(" + quoted(argument) + ")",
          [method, argument](Simulation& s) { s.callTracker(method, argument); }};
}

Action callWithNumber(double time, const std::string& method, float value) {
  std::ostringstream text;
  text << method << "(" << value << ")";
  return {time, text.str(), [method, value](Simulation& s) { s.callTracker(method, value); }};
}

Action registerTarget(double time, const std::string& name, const KRValue& params) {
  return {time, "registerTarget(" + quoted(name) + ", " + params.toString() + ")",
          [name, params](Simulation& s) { s.callTracker("registerTarget", name, params); }};
}

Phase phase(const std::string& name, double begin, double end, const std::string& targetName,
            double acquireDegrees = 3.0) {
  Phase p;
  p.name = name;
  p.begin = begin;
  p.end = end;
  p.target = targetName;
  p.acquireDegrees = acquireDegrees;
  return p;
}

std::string pick(const std::string& option, const std::string& fallback) {
  return option.empty() ? fallback : option;
}

TargetScript target(const std::string& name, const std::string& kind, Path path, Layout layout) {
  TargetScript script;
  script.name = name;
  script.kind = kind;
  script.path = std::move(path);
  script.layout = layout;
  return script;
}

// ---- the scenarios ---------------------------------------------------------------------

/// One-shot commands: look at a point behind (the robot turns), then point with each effector.
Scenario oneShotScenario(const ScenarioOptions& o) {
  Scenario s;
  s.name = "oneshot";
  s.robot = o.robot ? o.robot : RobotDescription::load("kibo");
  s.duration = 20.0;
  const auto& robot = s.robot->robot;
  const float h = robot->getTorsoHeight();
  // The look: a torso-frame point behind and to the left.
  Position3D behind(-1.0f, 0.6f, 0.2f);
  Position3D rotated = behind;
  float turn = 0.0f;
  const auto& head = robot->trackerModel().head;
  if (robot->canLookBehind()) {
    KR::Tracker::tools::computeAngleLookBehind(head.yaw.min, head.yaw.max, rotated, turn);
  }
  // Points for the arms, in front of the robot once it has turned, in the world frame.
  const auto ahead = [&](float x, float y, float z) {
    return Math::transformFromPose2D({0.0f, 0.0f, turn}) * Position3D(x, y, z + h);
  };
  const Position3D left = ahead(0.7f, 0.5f, 0.2f);
  const Position3D right = ahead(0.8f, -0.4f, -0.1f);
  const Position3D both = ahead(1.2f, 0.0f, 0.1f);
  s.targets = {target("point behind", "Point", Path::fixed({behind.x, behind.y, behind.z + h}),
                      Layout::World),
               target("left point", "Point", Path::fixed(left), Layout::World),
               target("right point", "Point", Path::fixed(right), Layout::World),
               target("both point", "Point", Path::fixed(both), Layout::World)};
  const auto pointAt = [](double time, const std::string& effector, const Position3D& p) {
    return Action{
        time, "pointAt(" + quoted(effector) + ", " + listText(p.toVector()) + ", FRAME_WORLD, 0.5)",
        [effector, p](Simulation& sim) {
          sim.callTracker("pointAt", effector, p.toVector(), 1, 0.5f);
        }};
  };
  s.actions = {{1.0, "lookAtAndMove(" + listText(behind.toVector()) + ", 0.5, false, true)",
                [behind](Simulation& sim) {
                  sim.callTracker("lookAtAndMove", behind.toVector(), 0.5f, false, true);
                }},
               pointAt(6.0, pick(o.effector, "LArm"), left),
               pointAt(10.0, pick(o.effector, "RArm"), right),
               pointAt(14.0, pick(o.effector, "Arms"), both)};
  s.description = "one-shot commands: look at a point behind, point with each effector";
  Phase look = phase("look behind", 1.0, 6.0, "point behind");
  look.oneShot = true;
  look.settleSeconds = 3.0;
  // Without the look-behind turn the head only goes as far as its yaw limit: the command still
  // runs, but the phase has no line of sight to measure.
  if (!robot->canLookBehind()) {
    look.lineOfSight = false;
    s.notes.push_back(robot->getName() + " cannot look behind: phase '" + look.name +
                      "' runs without the turn and measures no line of sight");
  }
  Phase pointLeft = phase("point LArm", 6.0, 10.0, "left point");
  pointLeft.arms = {"LArm"};
  Phase pointRight = phase("point RArm", 10.0, 14.0, "right point");
  pointRight.arms = {"RArm"};
  Phase pointBoth = phase("point Arms", 14.0, 20.0, "both point");
  pointBoth.arms = {"LArm", "RArm"};
  for (Phase* p : {&pointLeft, &pointRight, &pointBoth}) {
    p->oneShot = true;
    p->lineOfSight = false;
    p->settleSeconds = 1.5;
  }
  s.phases = {look, pointLeft, pointRight, pointBoth};
  return s;
}

/// Steps of 30 degrees as the camera sees them, on the wheeled robot: its camera's half field
/// of view (30.9 degrees) keeps a target 30 degrees off its axis in sight, where the small
/// humanoid's (29.2 degrees) would lose it at each jump. The jumps all go the same way: the
/// head stops a little past each target (the looker's dead band), which shortens the next
/// jump in that direction, where a jump back would be lengthened out of the field of view.
Scenario stepScenario(const ScenarioOptions& o) {
  Scenario s;
  s.name = "step";
  s.robot = RobotDescription::load("rover");
  const int steps = 4;
  const double period = 4.0;
  s.duration = (steps + 1) * period;
  const auto& robot = s.robot->robot;
  const auto& head = robot->trackerModel().head;
  // The camera sits ahead of the yaw axis: the jump about the axis that the camera, on the
  // target, sees as 30 degrees, for targets on a circle about the axis at the camera's height.
  const Position3D camera = Model::headEffectorPose(head, 0, 0.0f, 0.0f).translation();
  const float forward = camera.x - head.headPosition.x;
  const float radius = 4.0f;
  const float want = 30.0f * kPi / 180.0f;
  float jump = want;
  for (int i = 0; i < 50; ++i)
    jump -= std::atan2(radius * std::sin(jump), radius * std::cos(jump) - forward) - want;
  const float z = robot->getTorsoHeight() + camera.z;
  const auto at = [&](float bearing) {
    return Position3D(head.headPosition.x + radius * std::cos(bearing), radius * std::sin(bearing),
                      z);
  };
  float bearing = -0.5f * jump;
  Path path;
  path.add(0.0, at(bearing));
  for (int k = 1; k <= steps; ++k) {
    path.add(k * period + 0.004, at(bearing));
    bearing += jump;
    path.add(k * period + 0.005, at(bearing));
  }
  path.add(s.duration, at(bearing));
  TargetScript ball = target("ball", Target::TargetRedBall, path, Layout::World);
  ball.maxRange = 6.0f;
  s.targets = {ball};
  const std::string mode = pick(o.mode, "Head");
  s.modeText = mode;
  // A step response asks the tracker for a brisk head, 1.5 rad/s (its default is 1 rad/s; the
  // joints allow 6.8), so that settling shows the loop and its latency more than a speed limit.
  s.actions = {registerTarget(0.0, Target::TargetRedBall, KRValue(0.06f)),
               call(0.0, "setMode", mode), call(0.0, "setEffector", pick(o.effector, "None")),
               callWithNumber(0.0, "setMaximumVelocity", 1.5f),
               call(0.0, "track", Target::TargetRedBall)};
  s.description = "a ball jumps 30 degrees to the left every 4 s and stays (" + mode +
                  " mode, head at up to 1.5 rad/s)";
  s.phases = {phase("settle", 0.0, period, "ball")};
  for (int k = 1; k <= steps; ++k) {
    Phase p = phase("step " + std::to_string(k), k * period, (k + 1) * period, "ball");
    p.step = true;
    s.phases.push_back(p);
  }
  return s;
}

struct Entry {
  const char* name;
  const char* description;
  Scenario (*make)(const ScenarioOptions&);
};

/// The scenarios whose geometry is computed from the robot description; the others are files
/// of scenarios/.
const Entry kScenarios[] = {
    {"oneshot", "lookAtAndMove to a point behind, then pointAt with each effector",
     oneShotScenario},
    {"step", "a ball jumps 30 degrees sideways and stays, four times (wheeled robot)",
     stepScenario},
    {"search", "a ball drawn per seed anywhere around the robot, followed, hidden, reappearing",
     searchScenario},
};

/// The YAML files of scenarios/, "ball" first.
std::vector<std::string> scenarioFiles() {
  std::vector<std::string> names;
  const std::string dir = findDataFile("scenarios");
  if (dir.empty())
    return names;
  if (DIR* d = ::opendir(dir.c_str())) {
    while (const dirent* e = ::readdir(d)) {
      const std::string n = e->d_name;
      if (n.size() > 5 && n.compare(n.size() - 5, 5, ".yaml") == 0)
        names.push_back(n.substr(0, n.size() - 5));
    }
    ::closedir(d);
  }
  std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
    return (a != "ball") != (b != "ball") ? a == "ball" : a < b;
  });
  return names;
}

bool isPath(const std::string& name) {
  return name.find('/') != std::string::npos ||
         (name.size() > 5 && name.compare(name.size() - 5, 5, ".yaml") == 0) ||
         (name.size() > 4 && name.compare(name.size() - 4, 4, ".yml") == 0);
}

}  // namespace

std::vector<ScenarioInfo> listScenarios() {
  std::vector<ScenarioInfo> out;
  for (const auto& name : scenarioFiles()) {
    std::string description;
    try {
      description = loadScenarioFile(findDataFile("scenarios/" + name + ".yaml"), {}).description;
    } catch (const KRError& e) {
      description = "(unreadable: " + e.message() + ")";
    }
    out.push_back({name, description});
  }
  for (const auto& e : kScenarios)
    out.push_back({e.name, e.description});
  return out;
}

namespace {

Scenario buildScenario(const std::string& name, const ScenarioOptions& options) {
  if (isPath(name))
    return loadScenarioFile(name, options);
  const std::string file = findDataFile("scenarios/" + name + ".yaml");
  if (!file.empty())
    return loadScenarioFile(file, options);
  for (const auto& e : kScenarios) {
    if (name == e.name) {
      Scenario s = e.make(options);
      if (options.robot)
        s.robot = options.robot;
      return s;
    }
  }
  std::string names;
  for (const auto& s : listScenarios())
    names += (names.empty() ? "" : ", ") + s.name;
  throw KRError("krsim", "makeScenario",
                "unknown scenario '" + name + "' (scenarios: " + names + ")");
}

}  // namespace

Scenario makeScenario(const std::string& name, const ScenarioOptions& options) {
  Scenario s = buildScenario(name, options);
  if (options.duration > s.duration + 1e-9 && !s.openEnded) {
    std::ostringstream os;
    os << "--duration " << options.duration << " is past the end of scenario " << s.name
       << "'s script (" << s.duration << " s): it is refused rather than repeated; give at most "
       << s.duration << " s, or run pursuit, whose script has no end";
    throw KRError("krsim", "makeScenario", os.str());
  }
  if (options.duration > 0.0)
    s.duration = options.duration;
  for (auto& p : s.phases)
    p.end = std::min(p.end, s.duration);
  s.phases.erase(std::remove_if(s.phases.begin(), s.phases.end(),
                                [&](const Phase& p) { return p.begin >= s.duration; }),
                 s.phases.end());
  // A robot that cannot point runs the scenario to its end without the pointing.
  const auto& robot = s.robot->robot;
  if (!robot->canPointAt()) {
    for (auto& p : s.phases) {
      if (p.arms.empty())
        continue;
      p.arms.clear();
      s.notes.push_back(robot->getName() + " cannot point: phase '" + p.name +
                        "' measures no arms");
    }
    const auto before = s.actions.size();
    s.actions.erase(
        std::remove_if(s.actions.begin(), s.actions.end(),
                       [](const Action& a) { return a.description.rfind("pointAt(", 0) == 0; }),
        s.actions.end());
    if (s.actions.size() != before) {
      s.notes.push_back(robot->getName() + " cannot point: " +
                        std::to_string(before - s.actions.size()) + " pointAt call(s) skipped");
    }
  }
  return s;
}

}  // namespace Sim
}  // namespace KR
