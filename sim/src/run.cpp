#include <krsim/run.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iomanip>
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
  if (base.robotXml.empty()) {
    auto robot = Model::ModelUtils::robotFromFile(fScenario.robotFile);  // names the file
    (void)robot;
    std::ostringstream text;
    text << std::ifstream(fScenario.robotFile).rdbuf();
    base.robotXml = text.str();
  }
  base.startPose = fScenario.startPose;
  fSim = std::make_unique<Simulation>(std::move(base));
  fSim->motion().setOdometryDrift(fScenario.odometryDriftLinear, fScenario.odometryDriftAngular);
  for (const auto& t : fScenario.targets)
    fSim->world().addTarget(t);
  fAcquireSeconds.assign(fScenario.phases.size(), -1.0);
  fLocalisation.resize(fScenario.phases.size());
  fLocalisationMissing.assign(fScenario.phases.size(), 0);
  fSamples.reserve(static_cast<std::size_t>(fScenario.duration * 100.0) + 2);
}

void ScenarioRun::setProgress(Progress progress, double statusPeriodSeconds) {
  fProgress = std::move(progress);
  fStatusPeriod = statusPeriodSeconds;
  fNextStatus = statusPeriodSeconds;
}

bool ScenarioRun::finished() const {
  return fSim->time() + 0.005 >= fScenario.duration;
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
  xRecord();
  if (fProgress)
    xReport();
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
    fAcquired = false;
    fPerceivedSince = -1.0;
  }
  s.robot = sim.motion().getTruePose();
  const auto& head = sim.robot().trackerModel().head;
  s.headYaw = sim.motion().getAngle(head.yaw.name);
  s.headPitch = sim.motion().getAngle(head.pitch.name);
  if (s.phase < 0) {
    fSamples.push_back(s);
    return;
  }
  const Phase& phase = fScenario.phases[static_cast<std::size_t>(s.phase)];
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
  s.lineOfSightDeg =
      aimErrorDeg(sim.motion().getMapToHeadEffector(sim.world().getCameraEffector()), s.target);

  // Acquisition.
  if (!s.perceived) {
    fAcquired = false;
    fPerceivedSince = -1.0;
  } else {
    if (fPerceivedSince < 0.0)
      fPerceivedSince = s.time;
    if (!fAcquired && s.lineOfSightDeg < phase.acquireDegrees) {
      fAcquired = true;
      double& first = fAcquireSeconds[static_cast<std::size_t>(s.phase)];
      if (first < 0.0)
        first = s.time - fPerceivedSince;
    }
  }
  s.tracked = fAcquired && s.perceived;
  const bool settled = phase.oneShot && s.time >= phase.begin + phase.settleSeconds - 1e-9;
  const bool measuring = s.tracked || settled;

  const bool armsReady = s.time >= phase.begin + phase.settleSeconds - 1e-9;
  if (measuring && armsReady) {
    for (const auto& arm : phase.arms) {
      if (!xInReach(arm, inTorso))
        continue;
      const float e = aimErrorDeg(sim.motion().getTorsoToForearm(arm), inTorso);
      (arm == "LArm" ? s.leftArmDeg : s.rightArmDeg) = e;
    }
  }
  if (phase.relativePosition && s.perceived) {
    const Math::Position3D inRobot =
        Math::pinv(Math::transformFromPose2D(s.robot)) * state.position;
    const auto& r = *phase.relativePosition;
    s.relativeErrorM = std::hypot(inRobot.x - r[0], inRobot.y - r[1]);
  }
  if (phase.measureLocalisation) {
    const long second = static_cast<long>(std::floor(s.time + 1e-9));
    if (second != fLastLocalisationSecond && s.time >= phase.begin + 1.0) {
      fLastLocalisationSecond = second;
      const auto position = sim.callTracker<std::vector<float>>("getRobotPosition");
      if (position.size() == 6) {
        const Math::Pose2D truth = s.robot;
        const double dm = std::hypot(position[0] - truth.x, position[1] - truth.y);
        const double da = std::fabs(Math::modulo2PI(position[5] - truth.theta)) * kRadToDeg;
        fLocalisation[static_cast<std::size_t>(s.phase)].emplace_back(dm, da);
      } else {
        ++fLocalisationMissing[static_cast<std::size_t>(s.phase)];
      }
    }
  }
  fSamples.push_back(s);
}

void ScenarioRun::xReport() {
  const double t = fSim->time();
  const auto fresh = fSim->memory().eventHistorySince(fHistorySeen);
  fHistorySeen += fresh.size();
  for (const auto& e : fresh) {
    if (isStream(e.name))
      continue;
    const double at = std::chrono::duration<double>(e.time - fSim->clock().start()).count();
    fProgress(timeTag(at) + "event " + e.name);
  }
  if (t + 1e-9 < fNextStatus || fSamples.empty())
    return;
  fNextStatus += fStatusPeriod;
  const Sample& s = fSamples.back();
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
    os << "no phase";
  }
  os << std::fixed << std::setprecision(2) << " | robot (" << s.robot.x << ", " << s.robot.y << ", "
     << std::setprecision(1) << s.robot.theta * kRadToDeg << " deg)";
  fProgress(os.str());
}

std::vector<PhaseSummary> ScenarioRun::summaries() const {
  std::vector<PhaseSummary> out;
  const auto history = fSim->memory().eventHistory();
  for (std::size_t i = 0; i < fScenario.phases.size(); ++i) {
    const Phase& p = fScenario.phases[i];
    PhaseSummary sum;
    sum.name = p.name;
    sum.begin = p.begin;
    sum.end = std::min(p.end, fScenario.duration);
    sum.acquireSeconds = fAcquireSeconds[i];
    const bool settledOnly = p.oneShot;
    for (const auto& s : fSamples) {
      if (s.phase != static_cast<int>(i))
        continue;
      const bool settled = settledOnly && s.time >= p.begin + p.settleSeconds - 1e-9;
      if (p.lineOfSight && (s.tracked || settled))
        sum.lineOfSightDeg.add(s.lineOfSightDeg);
      if (s.leftArmDeg >= 0.0f)
        sum.armDeg.add(s.leftArmDeg);
      if (s.rightArmDeg >= 0.0f)
        sum.armDeg.add(s.rightArmDeg);
      if (s.relativeErrorM >= 0.0f)
        sum.relativeErrorM.add(s.relativeErrorM);
    }
    for (const auto& l : fLocalisation[i]) {
      sum.localisationM.add(l.first);
      sum.localisationDeg.add(l.second);
    }
    sum.localisationMissing = fLocalisationMissing[i];
    for (const auto& e : history) {
      const double at = std::chrono::duration<double>(e.time - fSim->clock().start()).count();
      // Calls made at a phase's start belong to it; the run's last instant to the last phase.
      const bool inside =
          at >= p.begin - 1e-9 && (at < p.end - 1e-9 || p.end >= fScenario.duration);
      if (!inside || isStream(e.name))
        continue;
      auto it = std::find_if(sum.events.begin(), sum.events.end(),
                             [&](const auto& c) { return c.first == e.name; });
      if (it == sum.events.end()) {
        sum.events.emplace_back(e.name, 1);
      } else {
        ++it->second;
      }
    }
    out.push_back(std::move(sum));
  }
  return out;
}

std::string ScenarioRun::csvHeader() {
  return "time,phase,robot_x,robot_y,robot_theta,head_yaw,head_pitch,target_x,target_y,"
         "target_z,bearing_yaw,bearing_pitch,in_view,perceived,tracked,line_of_sight_deg,"
         "larm_deg,rarm_deg,relative_error_m";
}

void ScenarioRun::writeCsv(std::ostream& out) const {
  out << csvHeader() << "\n";
  char buf[512];
  auto optional = [](float v, char* dst, std::size_t n) {
    if (v < 0.0f) {
      dst[0] = '\0';
    } else {
      std::snprintf(dst, n, "%.3f", static_cast<double>(v));
    }
  };
  for (const auto& s : fSamples) {
    const std::string phase =
        s.phase >= 0 ? fScenario.phases[static_cast<std::size_t>(s.phase)].name : "";
    int n =
        std::snprintf(buf, sizeof buf, "%.2f,%s,%.4f,%.4f,%.4f,%.4f,%.4f,", s.time, phase.c_str(),
                      s.robot.x, s.robot.y, s.robot.theta, s.headYaw, s.headPitch);
    out.write(buf, n);
    if (s.hasTarget) {
      n = std::snprintf(buf, sizeof buf, "%.4f,%.4f,%.4f,%.4f,%.4f,%d,%d,%d,%.3f,", s.target.x,
                        s.target.y, s.target.z, s.bearingYaw, s.bearingPitch, s.inView ? 1 : 0,
                        s.perceived ? 1 : 0, s.tracked ? 1 : 0, s.lineOfSightDeg);
      out.write(buf, n);
    } else {
      out << ",,,,,,,,,";
    }
    char l[32], r[32], m[32];
    optional(s.leftArmDeg, l, sizeof l);
    optional(s.rightArmDeg, r, sizeof r);
    optional(s.relativeErrorM, m, sizeof m);
    out << l << ',' << r << ',' << m << '\n';
  }
}

std::string formatSummary(const std::vector<PhaseSummary>& summaries) {
  auto number = [](const ErrorStats& st, bool rms, int precision) -> std::string {
    if (st.count == 0)
      return "-";
    std::ostringstream os;
    os << std::fixed << std::setprecision(precision) << (rms ? st.rms() : st.max);
    return os.str();
  };
  const bool anyRelative = std::any_of(summaries.begin(), summaries.end(),
                                       [](const auto& s) { return s.relativeErrorM.count > 0; });
  const bool anyLocalisation = std::any_of(summaries.begin(), summaries.end(), [](const auto& s) {
    return s.localisationM.count > 0 || s.localisationMissing > 0;
  });
  std::vector<std::string> header{"phase",         "acquire [s]",    "LoS RMS [deg]",
                                  "LoS max [deg]", "arms RMS [deg]", "arms max [deg]"};
  if (anyRelative) {
    header.push_back("follow RMS [m]");
    header.push_back("follow max [m]");
  }
  if (anyLocalisation) {
    header.push_back("pose max [m]");
    header.push_back("pose max [deg]");
  }
  header.push_back("events");
  std::vector<std::vector<std::string>> rows;
  for (const auto& s : summaries) {
    std::vector<std::string> row{s.name};
    if (s.acquireSeconds < 0.0) {
      row.push_back("-");
    } else {
      std::ostringstream os;
      os << std::fixed << std::setprecision(2) << s.acquireSeconds;
      row.push_back(os.str());
    }
    row.push_back(number(s.lineOfSightDeg, true, 2));
    row.push_back(number(s.lineOfSightDeg, false, 2));
    row.push_back(number(s.armDeg, true, 2));
    row.push_back(number(s.armDeg, false, 2));
    if (anyRelative) {
      row.push_back(number(s.relativeErrorM, true, 3));
      row.push_back(number(s.relativeErrorM, false, 3));
    }
    if (anyLocalisation) {
      row.push_back(number(s.localisationM, false, 3));
      row.push_back(number(s.localisationDeg, false, 2));
    }
    std::string events;
    for (const auto& e : s.events) {
      events += (events.empty() ? "" : ", ") + e.first + " x" + std::to_string(e.second);
    }
    row.push_back(events.empty() ? "-" : events);
    rows.push_back(std::move(row));
  }
  std::vector<std::size_t> width(header.size());
  for (std::size_t c = 0; c < header.size(); ++c) {
    width[c] = header[c].size();
    for (const auto& r : rows)
      width[c] = std::max(width[c], r[c].size());
  }
  std::ostringstream os;
  auto line = [&](const std::vector<std::string>& cells) {
    for (std::size_t c = 0; c < cells.size(); ++c) {
      const bool last = c + 1 == cells.size();
      if (c == 0) {
        os << std::left << std::setw(static_cast<int>(width[c])) << cells[c];
      } else if (last) {
        os << "  " << cells[c];
      } else {
        os << "  " << std::right << std::setw(static_cast<int>(width[c])) << cells[c];
      }
    }
    os << "\n";
  };
  line(header);
  for (const auto& r : rows)
    line(r);
  return os.str();
}

}  // namespace Sim
}  // namespace KR
