#include <krsim/report/sample_series.h>

#include <cmath>
#include <limits>
#include <sstream>

#include <kr/error.h>

#include <krsim/report/csv_writer.h>
#include <krsim/run/scenario_run.h>

namespace KR {
namespace Sim {

namespace {

constexpr double kEmpty = std::numeric_limits<double>::quiet_NaN();

// Columns of the CSV header before the joints.
enum Column : std::size_t {
  kTime,
  kPhase,
  kRobotX,
  kRobotY,
  kRobotTheta,
  kHeadYaw,
  kHeadPitch,
  kTargetX,
  kTargetY,
  kTargetZ,
  kBearingYaw,
  kBearingPitch,
  kInView,
  kPerceived,
  kTracked,
  kLineOfSight,
  kHorizontal,
  kLeftArm,
  kRightArm,
  kRelativeError,
  kPhaseIndex,
  kOnTarget,
  kEvents,
  kObservation,
  kJoints  // then each joint as commanded and as measured
};

std::vector<std::string> split(const std::string& header) {
  std::vector<std::string> out;
  std::istringstream in(header);
  for (std::string name; std::getline(in, name, ',');)
    out.push_back(name);
  return out;
}

/// A measure that is negative when not taken.
double optional(float v) {
  return v < 0.0f ? kEmpty : static_cast<double>(v);
}

double flag(bool b) {
  return b ? 1.0 : 0.0;
}

}  // namespace

SampleSeries::SampleSeries(std::vector<Phase> phases, std::vector<std::string> joints)
    : fPhases(std::move(phases)), fColumns(split(CsvWriter::header(joints))) {
  fNumbers.resize(fColumns.size());
}

std::shared_ptr<SampleSeries> SampleSeries::follow(ScenarioRun& run) {
  auto series = std::make_shared<SampleSeries>(run.scenario().phases, run.jointNames());
  run.addSampleObserver([series](const Sample& s) { series->add(s); });
  return series;
}

bool SampleSeries::isText(std::size_t column) const {
  return column == kPhase || column == kEvents || column == kObservation;
}

void SampleSeries::add(const Sample& s) {
  const bool target = s.hasTarget;
  const Phase* phase = s.phase >= 0 ? &fPhases.at(static_cast<std::size_t>(s.phase)) : nullptr;
  const double values[kJoints] = {
      s.time,
      kEmpty,  // phase: a text, from the phase index
      s.robot.x,
      s.robot.y,
      s.robot.theta,
      s.headYaw,
      s.headPitch,
      target ? s.target.x : kEmpty,
      target ? s.target.y : kEmpty,
      target ? s.target.z : kEmpty,
      target ? s.bearingYaw : kEmpty,
      target ? s.bearingPitch : kEmpty,
      target ? flag(s.inView) : kEmpty,
      target ? flag(s.perceived) : kEmpty,
      flag(s.tracked),
      target ? s.lineOfSightDeg : kEmpty,
      target ? s.horizontalDeg : kEmpty,
      optional(s.leftArmDeg),
      optional(s.rightArmDeg),
      optional(s.relativeErrorM),
      static_cast<double>(s.phase),
      phase != nullptr ? phase->acquireDegrees : kEmpty,
      kEmpty,  // events
      kEmpty,  // observation
  };
  for (std::size_t c = 0; c < kJoints; ++c) {
    if (!isText(c))
      fNumbers[c].push_back(values[c]);
  }
  for (std::size_t i = 0; kJoints + 2 * i + 1 < fColumns.size(); ++i) {
    const bool known = i < s.jointCommands.size() && i < s.jointAngles.size();
    fNumbers[kJoints + 2 * i].push_back(known ? s.jointCommands[i] : kEmpty);
    fNumbers[kJoints + 2 * i + 1].push_back(known ? s.jointAngles[i] : kEmpty);
  }
  fEvents.push_back(s.events);
  fObservations.push_back(s.observation);
  ++fSize;
}

const std::vector<double>& SampleSeries::numbers(std::size_t column) const {
  if (column >= fColumns.size() || isText(column)) {
    throw KRError("SampleSeries", "numbers",
                  "column " + std::to_string(column) + " is not a column of numbers");
  }
  return fNumbers[column];
}

std::vector<std::string> SampleSeries::texts(std::size_t column) const {
  if (column == kEvents)
    return fEvents;
  if (column == kObservation)
    return fObservations;
  if (column != kPhase) {
    throw KRError("SampleSeries", "texts",
                  "column " + std::to_string(column) + " is not a column of texts");
  }
  std::vector<std::string> names;
  names.reserve(fSize);
  for (const double index : fNumbers[kPhaseIndex])
    names.push_back(index >= 0.0 ? fPhases.at(static_cast<std::size_t>(index)).name : "");
  return names;
}

}  // namespace Sim
}  // namespace KR
