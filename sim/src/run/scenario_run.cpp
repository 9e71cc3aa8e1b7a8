#include <krsim/run/scenario_run.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iomanip>
#include <mutex>
#include <ostream>
#include <sstream>

#include <kr/model/modelutils.h>
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

void ErrorStats::add(double v) {
  ++count;
  sumSquares += v * v;
  max = std::max(max, v);
}

double ErrorStats::rms() const {
  return count ? std::sqrt(sumSquares / count) : 0.0;
}

ScenarioRun::ScenarioRun(Scenario scenario, SimulationConfig base)
    : fScenario(std::move(scenario)) {
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

void ScenarioRun::setCsv(std::ostream* out) {
  fCsv = out;
  if (fCsv != nullptr)
    *fCsv << csvHeader() << "\n";
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
      // Observations: their values are not kept in the history, so follow them directly.
      if (fObservations.count(e.name) == 0) {
        fObservations[e.name] = "";
        fSim->memory().subscribe(e.name, [this](const std::string&, const KRValue& v) {
          std::string text = v.toString();
          std::replace(text.begin(), text.end(), ',', ' ');
          std::lock_guard<std::mutex> lock(fObservationMutex);
          fObservation = std::move(text);
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
    // For the CSV: the event's name without the service's prefix.
    const auto slash = e.name.find('/');
    fStepEvents += (fStepEvents.empty() ? "" : " ") +
                   (slash == std::string::npos ? e.name : e.name.substr(slash + 1));
  }
}

void ScenarioRun::xRecord() {
  Simulation& sim = *fSim;
  Sample s;
  s.time = sim.time();
  for (std::size_t i = 0; i < fScenario.phases.size(); ++i) {
    const Phase& p = fScenario.phases[i];
    // A sample shows the state at the end of its step: (begin, end].
    if (s.time > p.begin + 1e-9 && s.time <= p.end + 1e-9)
      s.phase = static_cast<int>(i);
  }
  if (s.phase != fPhase) {
    fPhase = s.phase;
    if (fPhase >= 0 && !fReached[static_cast<std::size_t>(fPhase)]) {
      fReached[static_cast<std::size_t>(fPhase)] = true;
      if (fPhaseHook)
        fPhaseHook(fScenario.phases[static_cast<std::size_t>(fPhase)].name);
    }
  }
  s.robot = sim.motion().getTruePose();
  const auto& head = sim.robot().trackerModel().head;
  s.headYaw = sim.motion().getAngle(head.yaw.name);
  s.headPitch = sim.motion().getAngle(head.pitch.name);
  s.tracked = fTrackerTracked;
  if (s.phase >= 0) {
    const auto index = static_cast<std::size_t>(s.phase);
    const Phase& phase = fScenario.phases[index];
    const TargetState state = sim.world().state(phase.target);
    s.hasTarget = true;
    s.target = state.position;
    s.inView = state.inFieldOfView;
    s.perceived = state.perceived;

    const Math::Transform torsoToMap = Math::pinv(sim.motion().getMapToTorso());
    const Math::Position3D inTorso = torsoToMap * state.position;
    const auto polar = Math::polar3DFromPosition3D(inTorso - head.headPosition);
    s.bearingYaw = std::get<1>(polar);
    s.bearingPitch = std::get<2>(polar);
    const Math::Transform camera =
        sim.motion().getMapToHeadEffector(sim.world().getCameraEffector());
    s.lineOfSightDeg = aimErrorDeg(camera, s.target);
    const Math::Position3D inCamera = Math::pinv(camera) * s.target;
    s.horizontalDeg = static_cast<float>(std::atan2(inCamera.y, inCamera.x) * kRadToDeg);

    MeasureSample m;
    m.time = s.time;
    m.perceived = s.perceived;
    m.trackerLost = fTrackerLost;
    m.hasLineOfSight = true;
    m.lineOfSightDeg = s.lineOfSightDeg;
    m.horizontalDeg = s.horizontalDeg;
    // Arms the effector commands, once they have had time to rise, while the target is
    // followed (or, for one-shot commands, at any time) and within reach.
    const bool armsReady = s.time >= phase.begin + phase.settleSeconds - 1e-9;
    if (armsReady && (s.tracked || phase.oneShot)) {
      for (const auto& arm : phase.arms) {
        if (!xInReach(arm, inTorso))
          continue;
        const float e = aimErrorDeg(sim.motion().getTorsoToForearm(arm), inTorso);
        (arm == "LArm" ? s.leftArmDeg : s.rightArmDeg) = e;
        m.armDeg.push_back(e);
      }
    }
    fMeters[index].add(m);

    PhaseSummary& extra = fExtra[index];
    if (phase.relativePosition && s.perceived) {
      const Math::Position3D inRobot =
          Math::pinv(Math::transformFromPose2D(s.robot)) * state.position;
      const auto& r = *phase.relativePosition;
      s.relativeErrorM = std::hypot(inRobot.x - r[0], inRobot.y - r[1]);
      extra.relativeErrorM.add(s.relativeErrorM);
    }
    if (phase.measureLocalisation) {
      const long second = static_cast<long>(std::floor(s.time + 1e-9));
      if (second != fLastLocalisationSecond && s.time >= phase.begin + 1.0) {
        fLastLocalisationSecond = second;
        const auto position = sim.callTracker<std::vector<float>>("getRobotPosition");
        if (position.size() == 6) {
          const Math::Pose2D truth = s.robot;
          extra.localisationM.add(std::hypot(position[0] - truth.x, position[1] - truth.y));
          extra.localisationDeg.add(std::fabs(Math::modulo2PI(position[5] - truth.theta)) *
                                    kRadToDeg);
        } else {
          ++extra.localisationMissing;
        }
      }
    }
  }
  fLast = s;
  if (fCsv != nullptr)
    xWriteCsv(s);
  if (fSampleObserver)
    fSampleObserver(s);
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

std::string ScenarioRun::csvHeader() const {
  std::string header =
      "time,phase,robot_x,robot_y,robot_theta,head_yaw,head_pitch,target_x,target_y,"
      "target_z,bearing_yaw,bearing_pitch,in_view,perceived,tracked,line_of_sight_deg,"
      "horizontal_deg,larm_deg,rarm_deg,relative_error_m,phase_index,on_target_deg,events,"
      "observation";
  // Each joint as commanded, then as measured.
  for (const auto& joint : fJoints)
    header += ",cmd_" + joint + "," + joint;
  return header;
}

void ScenarioRun::xWriteCsv(const Sample& s) {
  std::ostream& out = *fCsv;
  char buf[512];
  auto optional = [](float v, char* dst, std::size_t n) {
    if (v < 0.0f) {
      dst[0] = '\0';
    } else {
      std::snprintf(dst, n, "%.3f", static_cast<double>(v));
    }
  };
  const std::string phase =
      s.phase >= 0 ? fScenario.phases[static_cast<std::size_t>(s.phase)].name : "";
  int n = std::snprintf(buf, sizeof buf, "%.2f,%s,%.4f,%.4f,%.4f,%.4f,%.4f,", s.time, phase.c_str(),
                        s.robot.x, s.robot.y, s.robot.theta, s.headYaw, s.headPitch);
  out.write(buf, n);
  if (s.hasTarget) {
    n = std::snprintf(buf, sizeof buf, "%.4f,%.4f,%.4f,%.4f,%.4f,%d,%d,%d,%.3f,%.3f,", s.target.x,
                      s.target.y, s.target.z, s.bearingYaw, s.bearingPitch, s.inView ? 1 : 0,
                      s.perceived ? 1 : 0, s.tracked ? 1 : 0, s.lineOfSightDeg, s.horizontalDeg);
    out.write(buf, n);
  } else {
    out << ",,,,,,," << (s.tracked ? 1 : 0) << ",,,";
  }
  char l[32], r[32], m[32];
  optional(s.leftArmDeg, l, sizeof l);
  optional(s.rightArmDeg, r, sizeof r);
  optional(s.relativeErrorM, m, sizeof m);
  out << l << ',' << r << ',' << m << ',' << s.phase << ',';
  if (s.phase >= 0)
    out << fScenario.phases[static_cast<std::size_t>(s.phase)].acquireDegrees;
  out << ',' << fStepEvents << ',';
  fStepEvents.clear();
  {
    std::lock_guard<std::mutex> lock(fObservationMutex);
    out << fObservation;
    fObservation.clear();
  }
  for (const auto& joint : fJoints) {
    n = std::snprintf(buf, sizeof buf, ",%.4f,%.4f", fSim->motion().getCommand(joint),
                      fSim->motion().getAngle(joint));
    out.write(buf, n);
  }
  out << '\n';
}

namespace {

std::string fixed(const std::optional<double>& v, int precision) {
  if (!v)
    return "-";
  std::ostringstream os;
  os << std::fixed << std::setprecision(precision) << *v;
  return os.str();
}

std::string table(const std::vector<std::vector<std::string>>& header,
                  const std::vector<std::vector<std::string>>& rows) {
  std::vector<std::size_t> width(header[0].size(), 0);
  for (const auto* block : {&header, &rows}) {
    for (const auto& r : *block) {
      for (std::size_t c = 0; c < r.size(); ++c)
        width[c] = std::max(width[c], r[c].size());
    }
  }
  std::ostringstream os;
  auto line = [&](const std::vector<std::string>& cells) {
    std::string text;
    for (std::size_t c = 0; c < cells.size(); ++c) {
      std::ostringstream cell;
      if (c == 0) {
        cell << std::left << std::setw(static_cast<int>(width[c])) << cells[c];
      } else {
        cell << "  " << std::right << std::setw(static_cast<int>(width[c])) << cells[c];
      }
      text += cell.str();
    }
    while (!text.empty() && text.back() == ' ')
      text.pop_back();
    os << text << "\n";
  };
  for (const auto& h : header)
    line(h);
  for (const auto& r : rows)
    line(r);
  return os.str();
}

std::vector<std::vector<std::string>> measuresHeader() {
  return {{"phase", "on target", "LoS RMS", "p95", "max", "bias", "jitter", "on target",
           "overshoot", "settling", "arms RMS"},
          {"", "after [s]", "[deg]", "[deg]", "[deg]", "[deg]", "[deg]", "[%]", "[deg]", "[s]",
           "[deg]"}};
}

std::vector<std::string> measuresRow(const std::string& label, const PhaseMeasures& m) {
  return {label,
          fixed(m.timeToOnTargetS, 2),
          fixed(m.losRmsDeg, 2),
          fixed(m.losP95Deg, 2),
          fixed(m.losMaxDeg, 2),
          fixed(m.losBiasDeg, 2),
          fixed(m.losJitterDeg, 2),
          fixed(m.onTargetPct, 1),
          fixed(m.overshootDeg, 2),
          fixed(m.settlingS, 2),
          fixed(m.armsRmsDeg, 2)};
}

}  // namespace

std::string formatSummary(const std::vector<PhaseSummary>& summaries) {
  auto stat = [](const ErrorStats& st, bool rms, int precision) -> std::string {
    return st.count == 0 ? "-" : fixed(rms ? st.rms() : st.max, precision);
  };
  const bool anyRelative = std::any_of(summaries.begin(), summaries.end(),
                                       [](const auto& s) { return s.relativeErrorM.count > 0; });
  const bool anyLocalisation = std::any_of(summaries.begin(), summaries.end(), [](const auto& s) {
    return s.localisationM.count > 0 || s.localisationMissing > 0;
  });
  auto header = measuresHeader();
  if (anyRelative) {
    header[0].insert(header[0].end(), {"follow RMS", "follow max"});
    header[1].insert(header[1].end(), {"[m]", "[m]"});
  }
  if (anyLocalisation) {
    header[0].insert(header[0].end(), {"pose max", "pose max"});
    header[1].insert(header[1].end(), {"[m]", "[deg]"});
  }
  std::vector<std::vector<std::string>> rows;
  std::string events;
  for (const auto& s : summaries) {
    auto row = measuresRow(s.measures.name, s.measures);
    if (anyRelative)
      row.insert(row.end(), {stat(s.relativeErrorM, true, 3), stat(s.relativeErrorM, false, 3)});
    if (anyLocalisation) {
      row.insert(row.end(), {stat(s.localisationM, false, 3), stat(s.localisationDeg, false, 2)});
    }
    rows.push_back(std::move(row));
    std::string list;
    for (const auto& e : s.measures.events)
      list += (list.empty() ? "" : ", ") + e.first + " x" + std::to_string(e.second);
    events += "  " + s.measures.name + ": " + (list.empty() ? "none" : list) + "\n";
  }
  return table(header, rows) + "Events:\n" + events;
}

std::string formatSeedSummary(const std::vector<SeedAggregate>& phases, std::size_t seeds) {
  std::vector<std::vector<std::string>> rows;
  for (const auto& p : phases) {
    if (seeds == 1) {
      rows.push_back(measuresRow(p.mean.name, p.mean));
      continue;
    }
    rows.push_back(measuresRow(p.mean.name + " mean", p.mean));
    rows.push_back(measuresRow(p.p95.name + " p95", p.p95));
  }
  return table(measuresHeader(), rows);
}

}  // namespace Sim
}  // namespace KR
