#include "app/angles_command.h"

#include <iomanip>
#include <ostream>
#include <sstream>
#include <stdexcept>

#include <kr/error.h>
#include <krtracker/tools/tools.h>

#include <krsim/robot/robot_description.h>

#include "app/option_values.h"

namespace KR {
namespace Sim {

namespace {

std::shared_ptr<const RobotDescription> loadRobot(const std::string& nameOrPath) {
  try {
    return RobotDescription::load(nameOrPath);
  } catch (const InputError& e) {
    throw UsageError(e.what());
  }
}

std::string pointText(const Math::Position3D& point) {
  std::ostringstream where;
  where << "(" << point.x << ", " << point.y << ", " << point.z << ")";
  return where.str();
}

}  // namespace

void AnglesCommand::addOptions(CLI::App& command) {
  command.footer("");
  command.add_option("--robot", robot,
                     "robot: a description (.xml), a URDF mapping (.yaml), or kibo, rover, lumen");
  command
      .add_option("--look-at", lookAt,
                  "head angles toward X Y Z of the torso frame (of the robot frame with "
                  "--whole-body)")
      ->expected(3);
  command
      .add_option("--point-at", pointAt,
                  "EFFECTOR X Y Z: arm angles (LArm, RArm or Arms) toward a point of the "
                  "torso frame")
      ->expected(4);
  command.add_flag("--whole-body", wholeBody, "with --look-at: the whole body looks");
  command.add_option("--effector-id", effectorId,
                     "with --look-at: 0 top camera, 1 bottom camera, 2 depth camera");
}

int AnglesCommand::run(std::ostream& out) const {
  if (robot.empty())
    throw UsageError("angles needs --robot FILE");
  const bool looking = !lookAt.empty();
  if (looking == !pointAt.empty())
    throw UsageError("angles needs either --look-at X Y Z or --point-at");
  std::string arm;
  if (!looking) {
    arm = pointAt[0];
    try {
      expectOneOf("--point-at", arm, {"Arms", "LArm", "RArm"});
    } catch (const KRError& e) {
      throw UsageError(e.message());
    }
  }
  const Math::Position3D point =
      looking ? parsePoint("--look-at", lookAt, 0) : parsePoint("--point-at", pointAt, 1);
  const double id = parseNumber("--effector-id", effectorId);
  if (id != 0.0 && id != 1.0 && id != 2.0)
    throw UsageError("--effector-id expects 0, 1 or 2");
  const int effector = static_cast<int>(id);
  if (!looking && (wholeBody || effector != 0))
    throw UsageError("--whole-body and --effector-id go with --look-at only");
  const auto description = loadRobot(robot);
  const Model::Robot& r = *description->robot;
  const Model::KRTrackerModel& model = r.trackerModel();
  std::vector<std::string> names;
  std::vector<float> angles;
  if (looking) {
    if (!Tracker::tools::computeLookAtAngles(
            point, model, static_cast<Model::TRACK_EFFECTOR>(effector), wholeBody, names, angles)) {
      throw std::runtime_error("no head angles look at " + pointText(point));
    }
  } else {
    if (!r.canPointAt())
      throw UsageError(r.getName() + " cannot point");
    if (arm != "RArm")
      Tracker::tools::computePointAtAngles(point, model.leftArm, names, angles);
    if (arm != "LArm")
      Tracker::tools::computePointAtAngles(point, model.rightArm, names, angles);
  }
  out << std::fixed << std::setprecision(6);
  for (std::size_t i = 0; i < names.size(); ++i)
    out << names[i] << " " << angles[i] << "\n";
  return 0;
}

}  // namespace Sim
}  // namespace KR
