#include <krsim/run/scenario_run.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iomanip>
#include <mutex>
#include <sstream>

#include <kr/model/modelutils.h>
#include <krsim/tracking/round_searcher.h>
#include <krtracker/tools/namer/namer.h>

namespace KR {
namespace Sim {

namespace {

constexpr double kRadToDeg = 180.0 / 3.14159265358979323846;
constexpr float kMinimumReach = 0.15f;  // closer than this to the shoulder, an arm cannot aim [m]

/// Angle between the x axis of a frame and the direction from its origin to a point [deg].
float aimErrorDeg(const Math::Transform& frame, const Math::Position3D& target) {
  return static_cast<float>(Math::aimError(frame, target) * kRadToDeg);
}

std::string timeTag(double t) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "[%7.2f s] ", t);
  return buf;
}

/// Observations and the smoother's per-step streams to the lookers and movers: too frequent
/// to report one by one.
bool isStream(const std::string& name) {
  static const std::string base = [] {
    std::string n = KR::Tracker::Namer::getInstance().getName(0);
    n.pop_back();
    return n;
  }();
  static const std::string looker = KR::Tracker::Namer::getNameLooker();
  static const std::string move = KR::Tracker::Namer::getNameMove();
  return name.compare(0, base.size(), base) == 0 || name == looker || name == move;
}

}  // namespace

ScenarioRun::ScenarioRun(Scenario scenario, SimulationConfig base)
    : fScenario(std::move(scenario)) {
  if (fScenario.drawForSeed)
    fScenario = fScenario.drawForSeed(base.seed);
  if (!base.robot)
    base.robot = fScenario.robot;
  base.startPose = fScenario.startPose;
  fSim = std::make_unique<Simulation>(std::move(base));
  fSim->motion().setOdometryDrift(fScenario.odometryDriftLinear, fScenario.odometryDriftAngular);
  for (const auto& t : fScenario.targets)
    fSim->world().addTarget(t);
  for (const Phase& p : fScenario.phases) {
    fMeters.emplace_back(PhaseSetup{p.name, p.begin, p.acquireDegrees, p.lineOfSight, p.step});
    PhaseSummary extra;
    extra.begin = p.begin;
    extra.end = p.end;
    fExtra.push_back(extra);
  }
  fReached.assign(fScenario.phases.size(), false);
  fJoints = fSim->motion().jointNames();
}

void ScenarioRun::setProgress(Progress progress, double statusPeriodSeconds) {
  fProgress = std::move(progress);
  fStatusPeriod = statusPeriodSeconds;
  fNextStatus = statusPeriodSeconds;
}

bool ScenarioRun::finished() const {
  return fSim->time() + 0.005 >= fScenario.duration;
}

double ScenarioRun::simulatedSeconds() const {
  return fSim->time();
}

bool ScenarioRun::step() {
  if (finished())
    return false;
  while (fNextAction < fScenario.actions.size() &&
         fScenario.actions[fNextAction].time <= fSim->time() + 1e-9) {
    const Action& a = fScenario.actions[fNextAction++];
    if (fProgress)
      fProgress(timeTag(fSim->time()) + a.description);
    a.run(*fSim);
  }
  fSim->step();
  xEvents();
  xRecord();
  if (fProgress)
    xReport();
  if (!fPhaseLabel.empty() && fPhaseHook)
    fPhaseHook(fPhaseLabel);
  fPhaseLabel.clear();
  if (finished() && fPhaseHook)
    fPhaseHook("end");
  return true;
}

void ScenarioRun::runToEnd() {
  while (step()) {
  }
}

bool ScenarioRun::xInReach(const std::string& armName, const Math::Position3D& p) const {
  const auto& model = fSim->robot().trackerModel();
  const Model::TrackerArm& arm = armName == "LArm" ? model.leftArm : model.rightArm;
  const Math::Position3D d = p - arm.shoulderPosition;
  if (d.norm() < kMinimumReach)
    return false;
  float wy = 0.0f;
  float wz = 0.0f;
  Math::oldComputePointAtAnglesWyWz(d, wy, wz);
  return wy >= arm.joints[0].min && wy <= arm.joints[0].max && wz >= arm.joints[1].min &&
         wz <= arm.joints[1].max;
}

void ScenarioRun::xEvents() {
  // The history is read and emptied every step, so that it does not grow with the run.
  const auto fresh = fSim->memory().eventHistorySince(0);
  fSim->memory().clearEventHistory();
  static const std::string lost = KR::Tracker::Namer::getNameLost();
  static const std::string detected = KR::Tracker::Namer::getNameDetected();
  for (const auto& e : fresh) {
    const double at = std::chrono::duration<double>(e.time - fSim->clock().start()).count();
    if (e.name == KR::Tracker::Namer::getNameLooker() ||
        e.name == KR::Tracker::Namer::getNameMove()) {
      // The smoother drives the lookers or movers: the tracker follows its target.
      if (!fTrackerLost)
        fTrackerTracked = true;
      continue;
    }
    if (isStream(e.name)) {
      // Observations: their values are not kept in the history, so follow them directly, from
      // the value of the event that made them known on.
      if (fObservations.count(e.name) == 0) {
        fObservations[e.name] = "";
        if (fSim->memory().hasData(e.name)) {
          const KRValue value = fSim->memory().getData(e.name);
          std::lock_guard<std::mutex> lock(fObservationMutex);
          fObservation = value;
        }
        fSim->memory().subscribe(e.name, [this](const std::string&, const KRValue& v) {
          std::lock_guard<std::mutex> lock(fObservationMutex);
          fObservation = v;
        });
      }
      continue;
    }
    if (e.name == detected) {
      fTrackerTracked = true;
      fTrackerLost = false;
    } else if (e.name == lost) {
      fTrackerTracked = false;
      fTrackerLost = true;
    } else if (e.name == RoundSearcher::kSearchStarted) {
      fSearching = true;
    } else if (e.name == RoundSearcher::kSearchEnded) {
      fSearching = false;
    }
    // Calls made at a phase's start belong to it; the run's last instant to the last phase.
    for (std::size_t i = 0; i < fScenario.phases.size(); ++i) {
      const Phase& p = fScenario.phases[i];
      if (at >= p.begin - 1e-9 && (at < p.end - 1e-9 || p.end >= fScenario.duration)) {
        fMeters[i].addEvent(e.name);
        break;
      }
    }
    if (fProgress)
      fProgress(timeTag(at) + "event " + e.name);
    // The sample lists the step's events by name, without the service's prefix.
    const auto slash = e.name.find('/');
    fStepEvents += (fStepEvents.empty() ? "" : " ") +
                   (slash == std::string::npos ? e.name : e.name.substr(slash + 1));
  }
}

void ScenarioRun::xRecord() {
  Sample s;
  s.time = fSim->time();
  s.phase = xPhaseAt(s.time);
  xEnterPhase(s.phase);
  s.robot = fSim->motion().getTruePose();
  const auto& head = fSim->robot().trackerModel().head;
  s.headYaw = fSim->motion().getAngle(head.yaw.name);
  s.headPitch = fSim->motion().getAngle(head.pitch.name);
  s.tracked = fTrackerTracked;
  std::optional<KRValue> observation;
  {
    std::lock_guard<std::mutex> lock(fObservationMutex);
    observation.swap(fObservation);
  }
  if (observation) {
    s.observation = observation->toString();
    std::replace(s.observation.begin(), s.observation.end(), ',', ' ');
  }
  if (!s.observation.empty())
    xDetection(s, *observation);
  if (s.phase >= 0)
    xMeasure(s);
  else if (!fFollowed.empty())
    xTarget(s, fFollowed);
  xStepDetails(s);
  fLast = std::move(s);
  for (const auto& observer : fSampleObservers)
    observer(fLast);
}

int ScenarioRun::xPhaseAt(double time) const {
  int phase = -1;
  for (std::size_t i = 0; i < fScenario.phases.size(); ++i) {
    const Phase& p = fScenario.phases[i];
    // A sample shows the state at the end of its step: (begin, end].
    if (time > p.begin + 1e-9 && time <= p.end + 1e-9)
      phase = static_cast<int>(i);
  }
  return phase;
}

void ScenarioRun::xEnterPhase(int phase) {
  if (phase == fPhase)
    return;
  fPhase = phase;
  if (fPhase >= 0 && !fReached[static_cast<std::size_t>(fPhase)]) {
    fReached[static_cast<std::size_t>(fPhase)] = true;
    fPhaseLabel = fScenario.phases[static_cast<std::size_t>(fPhase)].name;
  }
}

void ScenarioRun::xMeasure(Sample& s) {
  const auto index = static_cast<std::size_t>(s.phase);
  const Phase& phase = fScenario.phases[index];
  const Math::Position3D inTorso = xTarget(s, phase.target);

  MeasureSample m;
  m.time = s.time;
  m.perceived = s.perceived;
  m.trackerLost = fTrackerLost;
  m.tracked = fTrackerTracked;
  m.detected = !s.observation.empty();
  m.searching = fSearching;
  m.hasLineOfSight = true;
  m.lineOfSightDeg = s.lineOfSightDeg;
  m.horizontalDeg = s.horizontalDeg;
  xPointing(s, phase, inTorso, m);
  fMeters[index].add(m);

  if (phase.relativePosition && s.perceived)
    xRelativePosition(s, *phase.relativePosition, fExtra[index]);
  if (phase.measureLocalisation)
    xLocalisation(s, phase, fExtra[index]);
}

Math::Position3D ScenarioRun::xTarget(Sample& s, const std::string& name) {
  const TargetState state = fSim->world().state(name);
  s.hasTarget = true;
  s.target = state.position;
  s.inView = state.inFieldOfView;
  s.perceived = state.perceived;
  const Math::Transform torsoToMap = Math::pinv(fSim->motion().getMapToTorso());
  const Math::Position3D inTorso = torsoToMap * state.position;
  xLineOfSight(s, inTorso);
  return inTorso;
}

double ScenarioRun::lineOfSightDeg(const std::string& target) {
  const Math::Position3D position = fSim->world().state(target).position;
  return aimErrorDeg(fSim->motion().getMapToHeadEffector(fSim->world().getCameraEffector()),
                     position);
}

void ScenarioRun::xLineOfSight(Sample& s, const Math::Position3D& inTorso) {
  const auto& head = fSim->robot().trackerModel().head;
  const auto polar = Math::polar3DFromPosition3D(inTorso - head.headPosition);
  s.bearingYaw = std::get<1>(polar);
  s.bearingPitch = std::get<2>(polar);
  const Math::Transform camera =
      fSim->motion().getMapToHeadEffector(fSim->world().getCameraEffector());
  s.lineOfSightDeg = aimErrorDeg(camera, s.target);
  const Math::Position3D inCamera = Math::pinv(camera) * s.target;
  s.horizontalDeg = static_cast<float>(std::atan2(inCamera.y, inCamera.x) * kRadToDeg);
}

void ScenarioRun::xPointing(Sample& s, const Phase& phase, const Math::Position3D& inTorso,
                            MeasureSample& m) {
  // Arms the effector commands, once they have had time to rise, while the target is
  // followed (or, for one-shot commands, at any time) and within reach.
  const bool armsReady = s.time >= phase.begin + phase.settleSeconds - 1e-9;
  if (!armsReady || !(s.tracked || phase.oneShot))
    return;
  for (const auto& arm : phase.arms) {
    if (!xInReach(arm, inTorso))
      continue;
    const float e = aimErrorDeg(fSim->motion().getTorsoToForearm(arm), inTorso);
    (arm == "LArm" ? s.leftArmDeg : s.rightArmDeg) = e;
    m.armDeg.push_back(e);
  }
}

void ScenarioRun::xRelativePosition(Sample& s, const std::array<float, 6>& requested,
                                    PhaseSummary& extra) {
  // The target in the robot frame against the offset asked of the tracker (x, y) [m].
  const Math::Position3D inRobot = Math::pinv(Math::transformFromPose2D(s.robot)) * s.target;
  s.relativeErrorM = std::hypot(inRobot.x - requested[0], inRobot.y - requested[1]);
  extra.relativeErrorM.add(s.relativeErrorM);
}

void ScenarioRun::xLocalisation(const Sample& s, const Phase& phase, PhaseSummary& extra) {
  // Asked once per whole second of the run, from one second into the phase on.
  const long second = static_cast<long>(std::floor(s.time + 1e-9));
  if (second == fLastLocalisationSecond || s.time < phase.begin + 1.0)
    return;
  fLastLocalisationSecond = second;
  // [x, y, z, wx, wy, wz] in the map frame, or nothing while the tracker has no position.
  const auto position = fSim->callTracker<std::vector<float>>("getRobotPosition");
  if (position.size() != 6) {
    ++extra.localisationMissing;
    return;
  }
  const Math::Pose2D truth = s.robot;
  extra.localisationM.add(std::hypot(position[0] - truth.x, position[1] - truth.y));
  extra.localisationDeg.add(std::fabs(Math::modulo2PI(position[5] - truth.theta)) * kRadToDeg);
}

void ScenarioRun::xStepDetails(Sample& s) {
  s.events = std::move(fStepEvents);
  fStepEvents.clear();
  s.jointCommands.reserve(fJoints.size());
  s.jointAngles.reserve(fJoints.size());
  for (const auto& joint : fJoints) {
    s.jointCommands.push_back(fSim->motion().getCommand(joint));
    s.jointAngles.push_back(fSim->motion().getAngle(joint));
  }
}

void ScenarioRun::xDetection(Sample& s, const KRValue& observation) const {
  // [[x, y, z, wx, wy, wz] in FRAME_WORLD, stamp, ...] or [[torso 6D], [robot 6D], stamp, ...]
  // (krsim/world/world.h). The motion service has not moved since the world published it.
  if (!observation.isArray() || observation.size() < 2 || !observation[0].isArray() ||
      observation[0].size() != 6) {
    return;
  }
  float p[3];
  for (std::size_t i = 0; i < 3; ++i) {
    if (!observation[0][i].toFloat(p[i]))
      return;
  }
  const bool torso = observation[1].isArray() && observation[1].size() == 6;
  const Math::Transform frame =
      torso ? fSim->motion().getMapToTorso() : fSim->motion().getMapToOdometry();
  s.detection = frame * Math::Position3D(p[0], p[1], p[2]);
  s.hasDetection = true;
}

void ScenarioRun::xReport() {
  const double t = fSim->time();
  if (t + 1e-9 < fNextStatus)
    return;
  fNextStatus += fStatusPeriod;
  const Sample& s = fLast;
  std::ostringstream os;
  os << timeTag(t);
  if (s.phase >= 0) {
    const Phase& p = fScenario.phases[static_cast<std::size_t>(s.phase)];
    os << p.name << " | " << p.target << ": "
       << (s.tracked     ? "tracked"
           : s.perceived ? "seen"
           : s.inView    ? "hidden"
                         : "out of view")
       << std::fixed << std::setprecision(1) << ", line of sight " << s.lineOfSightDeg << " deg";
  } else {
    os << "between phases";
  }
  os << std::fixed << std::setprecision(2) << " | robot (" << s.robot.x << ", " << s.robot.y << ", "
     << std::setprecision(1) << s.robot.theta * kRadToDeg << " deg)";
  fProgress(os.str());
}

std::vector<PhaseSummary> ScenarioRun::summaries() const {
  std::vector<PhaseSummary> out;
  for (std::size_t i = 0; i < fScenario.phases.size(); ++i) {
    if (!fReached[i])
      continue;
    PhaseSummary sum = fExtra[i];
    sum.end = std::min(sum.end, fSim->time());
    sum.measures = fMeters[i].result();
    out.push_back(std::move(sum));
  }
  return out;
}

}  // namespace Sim
}  // namespace KR
