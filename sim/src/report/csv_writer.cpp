#include <krsim/report/csv_writer.h>

#include <cstdio>
#include <ostream>
#include <utility>

#include <krsim/run/scenario_run.h>

namespace KR {
namespace Sim {

namespace {

/// A measure that is negative when not taken: empty, or with 3 decimals.
void optional(float v, char* dst, std::size_t n) {
  if (v < 0.0f) {
    dst[0] = '\0';
  } else {
    std::snprintf(dst, n, "%.3f", static_cast<double>(v));
  }
}

}  // namespace

std::string CsvWriter::field(const std::string& text) {
  if (text.find_first_of(",\"\r\n") == std::string::npos)
    return text;
  std::string quoted = "\"";
  for (char c : text)
    quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
  return quoted + "\"";
}

CsvWriter::CsvWriter(std::ostream& out, std::vector<Phase> phases, std::vector<std::string> joints)
    : fOut(&out), fPhases(std::move(phases)), fJoints(std::move(joints)) {
  out << header(fJoints) << "\n";
}

void CsvWriter::follow(ScenarioRun& run, std::ostream& out) {
  run.addSampleObserver([writer = CsvWriter(out, run.scenario().phases, run.jointNames())](
                            const Sample& s) mutable { writer.write(s); });
}

std::string CsvWriter::header(const std::vector<std::string>& joints) {
  std::string header =
      "time,phase,robot_x,robot_y,robot_theta,head_yaw,head_pitch,target_x,target_y,"
      "target_z,bearing_yaw,bearing_pitch,in_view,perceived,tracked,line_of_sight_deg,"
      "horizontal_deg,larm_deg,rarm_deg,relative_error_m,phase_index,on_target_deg,events,"
      "observation";
  // Each joint as commanded, then as measured.
  for (const auto& joint : joints)
    header += "," + field("cmd_" + joint) + "," + field(joint);
  return header;
}

void CsvWriter::write(const Sample& s) {
  std::ostream& out = *fOut;
  char buf[512];
  const Phase* phase = s.phase >= 0 ? &fPhases[static_cast<std::size_t>(s.phase)] : nullptr;
  int n = std::snprintf(buf, sizeof buf, "%.2f,", s.time);
  out.write(buf, n);
  if (phase != nullptr)
    out << field(phase->name);
  n = std::snprintf(buf, sizeof buf, ",%.4f,%.4f,%.4f,%.4f,%.4f,", s.robot.x, s.robot.y,
                    s.robot.theta, s.headYaw, s.headPitch);
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
  if (phase != nullptr)
    out << phase->acquireDegrees;
  out << ',' << field(s.events) << ',' << field(s.observation);
  for (std::size_t i = 0; i < fJoints.size(); ++i) {
    // A sample without the joint's values (not from a run) leaves its two columns empty.
    if (i >= s.jointCommands.size() || i >= s.jointAngles.size()) {
      out << ",,";
      continue;
    }
    n = std::snprintf(buf, sizeof buf, ",%.4f,%.4f", s.jointCommands[i], s.jointAngles[i]);
    out.write(buf, n);
  }
  out << '\n';
}

}  // namespace Sim
}  // namespace KR
