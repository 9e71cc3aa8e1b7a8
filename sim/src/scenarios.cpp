#include <krsim/scenario.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <sstream>

#include <kr/error.h>
#include <kr/math/math.h>
#include <kr/model/kinematics.h>
#include <kr/model/modelutils.h>
#include <kr/target/targets.h>
#include <krsim/simulation.h>
#include <krtracker/tools/tools.h>

#ifndef KRTRACKER_ROBOTS_DIR
#define KRTRACKER_ROBOTS_DIR "robots"
#endif

namespace KR {
namespace Sim {

namespace {

using Math::Position3D;
namespace Target = KR::Tracker::Target;

constexpr float kPi = Math::kPi;

/// A target that moves in polar coordinates about the map origin: keyframes of (time,
/// bearing, distance, height), interpolated linearly in those coordinates and sampled.
struct Polar {
  double time;
  float bearing;   // [rad]
  float distance;  // [m]
  float z;         // [m]
};

Path polarPath(const std::vector<Polar>& keys, double step = 0.05) {
  if (keys.size() == 1)
    return Path::fixed({keys[0].distance * std::cos(keys[0].bearing),
                        keys[0].distance * std::sin(keys[0].bearing), keys[0].z});
  Path path;
  for (std::size_t i = 0; i + 1 < keys.size(); ++i) {
    const Polar& a = keys[i];
    const Polar& b = keys[i + 1];
    const double span = b.time - a.time;
    const long n = span > 0.0 ? static_cast<long>(std::ceil(span / step - 1e-9)) : 0;
    for (long k = (i == 0 ? 0 : 1); k <= n; ++k) {
      const double t = n > 0 ? std::min(b.time, a.time + static_cast<double>(k) * step) : a.time;
      const float u = span > 0.0 ? static_cast<float>((t - a.time) / span) : 1.0f;
      const float bearing = a.bearing + (b.bearing - a.bearing) * u;
      const float distance = a.distance + (b.distance - a.distance) * u;
      const float z = a.z + (b.z - a.z) * u;
      path.add(t, {distance * std::cos(bearing), distance * std::sin(bearing), z});
    }
  }
  return path;
}

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

Action registerTarget(double time, const std::string& name, const KRValue& params) {
  return {time, "registerTarget(" + quoted(name) + ", " + params.toString() + ")",
          [name, params](Simulation& s) { s.callTracker("registerTarget", name, params); }};
}

Action setRelativePosition(double time, const std::array<float, 6>& p) {
  const std::vector<float> v(p.begin(), p.end());
  return {time, "setRelativePosition(" + listText(v) + ")",
          [v](Simulation& s) { s.callTracker("setRelativePosition", KRValue(v)); }};
}

Action toggleSearch(double time, bool on) {
  return {time, std::string("toggleSearch(") + (on ? "true" : "false") + ")",
          [on](Simulation& s) { s.callTracker("toggleSearch", on); }};
}

Action motionMoveTo(double time, float x, float y, float theta) {
  std::ostringstream os;
  os << "KRMotion.moveTo(" << x << ", " << y << ", " << theta << ")";
  return {time, os.str(), [x, y, theta](Simulation& s) {
            s.broker().getProxy("KRMotion", 0)->call<void>("moveTo", x, y, theta);
          }};
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

/// The small humanoid follows a red ball with its head, then with its whole body pointing both
/// arms at it; the ball then rolls out of sight behind the robot, which searches and finds it.
Scenario ballScenario(const ScenarioOptions& o) {
  Scenario s;
  s.name = "ball";
  s.robotFile = resolveRobotFile("kibo");
  s.duration = 60.0;
  // At most 0.45 rad/s seen from the robot: under half the head's default velocity limit.
  s.targets.push_back(target("ball", Target::TargetRedBall,
                             polarPath({{0.0, 1.3f, 1.5f, 0.3f},
                                        {2.0, 1.3f, 1.5f, 0.3f},
                                        {6.0, -0.3f, 1.5f, 0.3f},
                                        {10.0, -1.5f, 1.5f, 0.3f},
                                        {16.0, 0.9f, 1.3f, 0.3f},
                                        {20.0, 0.2f, 1.0f, 0.25f},
                                        {24.0, -0.6f, 0.9f, 0.35f},
                                        {32.0, 1.4f, 1.0f, 0.3f},
                                        {36.0, 0.4f, 0.9f, 0.4f},
                                        {38.0, 0.0f, 1.0f, 0.3f},
                                        {39.0, 0.0f, 1.0f, 0.3f},
                                        {42.0, kPi, 1.3f, 0.3f},
                                        {60.0, kPi - 0.4f, 1.3f, 0.3f}}),
                             Layout::Torso));
  s.targets.back().hidden = {{39.0, 44.5}};
  const std::string firstMode = pick(o.mode, "Head");
  const std::string secondMode = pick(o.mode, "WholeBody");
  s.actions = {registerTarget(0.0, Target::TargetRedBall, KRValue(0.06f)),
               call(0.0, "setMode", firstMode),
               call(0.0, "setEffector", pick(o.effector, "None")),
               toggleSearch(0.0, true),
               call(0.0, "track", Target::TargetRedBall),
               call(20.0, "setMode", secondMode),
               call(20.0, "setEffector", pick(o.effector, "Arms"))};
  s.modeText = firstMode == secondMode ? firstMode : firstMode + " then " + secondMode;
  s.description = "ball followed in " + firstMode + " mode, then " + secondMode +
                  " mode with the " + pick(o.effector, "Arms") +
                  " effector; lost behind the robot, searched for and found again";
  Phase head = phase("head tracking", 0.0, 20.0, "ball");
  Phase body = phase("whole body + arms", 20.0, 38.0, "ball", 6.0);
  body.arms = {"LArm", "RArm"};
  body.settleSeconds = 1.0;
  Phase lost = phase("lost and found", 38.0, 60.0, "ball", 6.0);
  s.phases = {head, body, lost};
  return s;
}

/// Two people sitting on the floor, faces at the small robot's eye level; the nearer leaves
/// and the robot searches for the other one.
Scenario faceScenario(const ScenarioOptions& o) {
  Scenario s;
  s.name = "face";
  s.robotFile = resolveRobotFile("kibo");
  s.duration = 30.0;
  TargetScript ann = target("Ann", Target::TargetFace,
                            polarPath({{0.0, 0.3f, 1.4f, 0.8f},
                                       {8.0, -0.2f, 1.3f, 0.8f},
                                       {12.0, 0.4f, 1.5f, 0.8f},
                                       {16.0, 1.2f, 3.5f, 0.8f},
                                       {30.0, 1.2f, 4.0f, 0.8f}}),
                            Layout::Torso);
  TargetScript bob = target(
      "Bob", Target::TargetFace,
      polarPath(
          {{0.0, -0.6f, 2.2f, 0.85f}, {20.0, -0.9f, 2.0f, 0.85f}, {30.0, -0.3f, 2.1f, 0.85f}}),
      Layout::Torso);
  ann.maxRange = bob.maxRange = 2.5f;  // a face is too small to detect farther
  s.targets = {ann, bob};
  const std::string mode = pick(o.mode, "Head");
  s.modeText = mode;
  s.actions = {registerTarget(0.0, Target::TargetFace, KRValue(0.1f)), call(0.0, "setMode", mode),
               call(0.0, "setEffector", pick(o.effector, "None")), toggleSearch(0.0, true),
               call(0.0, "track", Target::TargetFace)};
  s.description =
      "faces followed in " + mode + " mode; the nearer person leaves, the other is found";
  s.phases = {phase("Ann", 0.0, 13.0, "Ann"), phase("Bob", 13.0, 30.0, "Bob")};
  return s;
}

/// A person walks away and turns; the robot walks after them keeping its distance.
Scenario peopleScenario(const ScenarioOptions& o) {
  Scenario s;
  s.name = "people";
  s.robotFile = resolveRobotFile("kibo");
  s.duration = 40.0;
  Path walk;
  walk.add(0.0, {1.4f, 0.0f, 0.9f})
      .add(3.0, {1.4f, 0.0f, 0.9f})
      .add(13.0, {2.4f, 0.0f, 0.9f})
      .add(25.0, {2.4f, 1.2f, 0.9f})
      .add(40.0, {2.4f, 1.2f, 0.9f});
  s.targets = {target("person", Target::TargetPeople, walk, Layout::World)};
  const std::array<float, 6> relative{0.9f, 0.0f, 0.0f, 0.15f, 0.15f, 0.3f};
  const std::string mode = pick(o.mode, "Move");
  s.modeText = mode;
  s.actions = {registerTarget(0.0, Target::TargetPeople, KRValue(1)), call(0.0, "setMode", mode),
               call(0.0, "setEffector", pick(o.effector, "None")),
               setRelativePosition(0.0, relative), call(0.0, "track", Target::TargetPeople)};
  s.description = "a walking person followed in " + mode + " mode at 0.9 m";
  Phase follow = phase("follow", 0.0, 40.0, "person", 5.0);
  follow.relativePosition = relative;
  s.phases = {follow};
  return s;
}

/// The wheeled robot follows a person across the room by navigating.
Scenario navigateScenario(const ScenarioOptions& o) {
  Scenario s;
  s.name = "navigate";
  s.robotFile = resolveRobotFile("rover");
  s.duration = 40.0;
  Path walk;
  walk.add(0.0, {2.0f, 0.0f, 1.1f})
      .add(4.0, {2.0f, 0.0f, 1.1f})
      .add(14.0, {4.5f, 0.5f, 1.1f})
      .add(24.0, {4.5f, 3.0f, 1.1f})
      .add(40.0, {4.5f, 3.0f, 1.1f});
  s.targets = {target("person", Target::TargetPeople, walk, Layout::World)};
  const std::array<float, 6> relative{1.2f, 0.0f, 0.0f, 0.2f, 0.2f, 0.3f};
  const std::string mode = pick(o.mode, "Navigate");
  s.modeText = mode;
  s.actions = {registerTarget(0.0, Target::TargetPeople, KRValue(1)), call(0.0, "setMode", mode),
               call(0.0, "setEffector", pick(o.effector, "None")),
               setRelativePosition(0.0, relative), call(0.0, "track", Target::TargetPeople)};
  s.description = "the wheeled robot follows a person in " + mode + " mode at 1.2 m";
  Phase follow = phase("navigate", 0.0, 40.0, "person", 5.0);
  follow.relativePosition = relative;
  s.phases = {follow};
  return s;
}

/// Two landmarks at known places relocate a robot whose odometry drifts.
Scenario landmarksScenario(const ScenarioOptions& o) {
  Scenario s;
  s.name = "landmarks";
  s.robotFile = resolveRobotFile("kibo");
  s.duration = 30.0;
  s.startPose = {0.4f, -0.3f, 0.15f};
  s.odometryDriftLinear = 0.03f;
  s.odometryDriftAngular = 0.05f;
  const Position3D a(2.2f, 0.35f, 0.45f);
  const Position3D b(2.2f, -0.35f, 0.45f);
  s.targets = {target("landmark A", Target::TargetLandMarks, Path::fixed(a), Layout::Torso),
               target("landmark B", Target::TargetLandMarks, Path::fixed(b), Layout::Torso)};
  const KRValue coordinates{KRValue(a.toVector()), KRValue(b.toVector())};
  const std::string mode = pick(o.mode, "Head");
  s.modeText = mode;
  s.actions = {
      registerTarget(0.0, Target::TargetLandMarks, KRValue{KRValue(0.09f), KRValue{80, 81}}),
      call(0.0, "setMode", mode),
      call(0.0, "setEffector", pick(o.effector, "None")),
      {0.0, "setTargetCoordinates(" + coordinates.toString() + ")",
       [coordinates](Simulation& sim) { sim.callTracker("setTargetCoordinates", coordinates); }},
      call(0.0, "track", Target::TargetLandMarks),
      motionMoveTo(8.0, 0.3f, 0.25f, -0.2f),
      motionMoveTo(18.0, -0.2f, 0.0f, 0.3f)};
  s.description = "landmarks at known places relocate the robot (" + mode + " mode)";
  Phase localise = phase("localisation", 0.0, 30.0, "landmark A", 6.0);
  localise.measureLocalisation = true;
  s.phases = {localise};
  return s;
}

/// One-shot commands: look at a point behind (the robot turns), then point with each effector.
Scenario oneShotScenario(const ScenarioOptions& o) {
  Scenario s;
  s.name = "oneshot";
  s.robotFile = pick(o.robotFile, resolveRobotFile("kibo"));
  s.duration = 20.0;
  auto robot = Model::ModelUtils::robotFromFile(s.robotFile);
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
  s.robotFile = resolveRobotFile("rover");
  const int steps = 4;
  const double period = 4.0;
  s.duration = (steps + 1) * period;
  auto robot = Model::ModelUtils::robotFromFile(s.robotFile);
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
    return Position3D(head.headPosition.x + radius * std::cos(bearing),
                      radius * std::sin(bearing), z);
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
  s.actions = {registerTarget(0.0, Target::TargetRedBall, KRValue(0.06f)),
               call(0.0, "setMode", mode), call(0.0, "setEffector", pick(o.effector, "None")),
               call(0.0, "track", Target::TargetRedBall)};
  s.description = "a ball jumps 30 degrees to the left every 4 s and stays (" + mode + " mode)";
  s.phases = {phase("settle", 0.0, period, "ball")};
  for (int k = 1; k <= steps; ++k) {
    Phase p = phase("step " + std::to_string(k), k * period, (k + 1) * period, "ball");
    p.step = true;
    s.phases.push_back(p);
  }
  return s;
}

/// A ball sweeping from side to side at half the tracker's default velocity limit
/// (1 rad/s), for as long as asked: the one scenario with no end to its script.
Scenario pursuitScenario(const ScenarioOptions& o) {
  Scenario s;
  s.name = "pursuit";
  s.robotFile = resolveRobotFile("kibo");
  s.openEnded = true;
  s.duration = o.duration > 0.0 ? o.duration : 60.0;
  const float speed = 0.5f;  // [rad/s]
  const float amplitude = 1.0f;
  const double sweep = 2.0 * amplitude / speed;
  std::vector<Polar> keys{{0.0, 0.0f, 1.5f, 0.3f}, {1.0, 0.0f, 1.5f, 0.3f}};
  double t = 1.0 + amplitude / speed;
  float side = amplitude;
  keys.push_back({t, side, 1.5f, 0.3f});
  while (t < s.duration) {
    t += sweep;
    side = -side;
    keys.push_back({t, side, 1.5f, 0.3f});
  }
  s.targets.push_back(
      target("ball", Target::TargetRedBall, polarPath(keys, 0.2), Layout::Torso));
  const std::string mode = pick(o.mode, "Head");
  s.modeText = mode;
  s.actions = {registerTarget(0.0, Target::TargetRedBall, KRValue(0.06f)),
               call(0.0, "setMode", mode), call(0.0, "setEffector", pick(o.effector, "None")),
               call(0.0, "track", Target::TargetRedBall)};
  s.description = "a ball sweeping +-57 degrees at 0.5 rad/s, half the head's velocity limit (" +
                  mode + " mode)";
  s.phases = {phase("pursuit", 0.0, s.duration, "ball")};
  return s;
}

struct Entry {
  const char* name;
  const char* description;
  Scenario (*make)(const ScenarioOptions&);
};

const Entry kScenarios[] = {
    {"ball", "red ball: head, then whole body with both arms; lost behind, searched, found",
     ballScenario},
    {"face", "faces of two seated people; the nearer leaves", faceScenario},
    {"people", "a walking person followed in Move mode", peopleScenario},
    {"navigate", "a person followed across the room by the wheeled robot (Navigate)",
     navigateScenario},
    {"landmarks", "two landmarks at known places relocate a drifting robot", landmarksScenario},
    {"oneshot", "lookAtAndMove to a point behind, then pointAt with each effector",
     oneShotScenario},
    {"step", "a ball jumps 30 degrees sideways and stays, six times (wheeled robot)",
     stepScenario},
    {"pursuit", "a ball sweeping at half the head's velocity limit, for any duration",
     pursuitScenario},
};

}  // namespace

std::vector<ScenarioInfo> listScenarios() {
  std::vector<ScenarioInfo> out;
  for (const auto& e : kScenarios)
    out.push_back({e.name, e.description});
  return out;
}

Scenario makeScenario(const std::string& name, const ScenarioOptions& options) {
  for (const auto& e : kScenarios) {
    if (name != e.name)
      continue;
    Scenario s = e.make(options);
    if (!options.robotFile.empty())
      s.robotFile = options.robotFile;
    if (options.duration > s.duration + 1e-9 && !s.openEnded) {
      std::ostringstream os;
      os << "--duration " << options.duration << " is past the end of scenario " << s.name
         << "'s script (" << s.duration
         << " s): it is refused rather than repeated; give at most " << s.duration
         << " s, or run pursuit, whose script has no end";
      throw KRError("krsim", "makeScenario", os.str());
    }
    if (options.duration > 0.0)
      s.duration = options.duration;
    for (auto& p : s.phases)
      p.end = std::min(p.end, s.duration);
    s.phases.erase(std::remove_if(s.phases.begin(), s.phases.end(),
                                  [&](const Phase& p) { return p.begin >= s.duration; }),
                   s.phases.end());
    return s;
  }
  std::string names;
  for (const auto& e : kScenarios)
    names += (names.empty() ? "" : ", ") + std::string(e.name);
  throw KRError("krsim", "makeScenario",
                "unknown scenario '" + name + "' (scenarios: " + names + ")");
}

std::string findDataFile(const std::string& relative) {
  const std::string path = std::string(KRTRACKER_ROBOTS_DIR) + "/../" + relative;
  return std::ifstream(path).good() ? path : std::string();
}

std::string resolveRobotFile(const std::string& nameOrPath) {
  if (std::ifstream(nameOrPath).good())
    return nameOrPath;
  const std::string dir = KRTRACKER_ROBOTS_DIR;
  for (const std::string& candidate : {dir + "/" + nameOrPath, dir + "/" + nameOrPath + ".xml"}) {
    if (std::ifstream(candidate).good())
      return candidate;
  }
  return nameOrPath;
}

}  // namespace Sim
}  // namespace KR
