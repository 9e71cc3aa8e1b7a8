#include "geometry.h"

#include <sstream>
#include <string>
#include <vector>

#include <pybind11/stl.h>

#include <kr/math/types.h>
#include <krtracker/tools/tools.h>

namespace KR {
namespace Py {

namespace {

const char* const kRobotDoc =
    R"(A robot description: its joints, their limits, and the joint angles the
library computes to look or point at a point.

    robot = krtracker.Robot.load("kibo")     # kibo, rover, lumen, a description file, or
                                             # a URDF's mapping file (robots/README.md)
    robot.look_at(1.0, 0.3, 0.2)             # {'HeadYaw': 0.29..., 'HeadPitch': ...} [rad]
    robot.point_at("LArm", 0.8, 0.4, 0.1)    # the left arm's joints

Points are in metres in the torso frame (the robot frame for a whole-body look), x ahead,
y to the left, z up; angles are in radians.
)";

std::string pointText(float x, float y, float z) {
  std::ostringstream where;
  where << "(" << x << ", " << y << ", " << z << ")";
  return where.str();
}

py::dict anglesDict(const std::vector<std::string>& names, const std::vector<float>& angles) {
  py::dict out;
  for (std::size_t i = 0; i < names.size(); ++i)
    out[py::str(names[i])] = static_cast<double>(angles[i]);
  return out;
}

py::dict lookAt(const Robot& self, float x, float y, float z, int effector, bool wholeBody) {
  if (effector < 0 || effector >= Model::kTrackEffectorCount)
    throw py::value_error("look_at: effector expects 0 (top camera), 1 (bottom) or 2 (depth)");
  std::vector<std::string> names;
  std::vector<float> angles;
  if (!Tracker::tools::computeLookAtAngles({x, y, z}, self.description->robot->trackerModel(),
                                           static_cast<Model::TRACK_EFFECTOR>(effector), wholeBody,
                                           names, angles)) {
    throw py::value_error("look_at: no head angles look at " + pointText(x, y, z));
  }
  return anglesDict(names, angles);
}

py::dict pointAt(const Robot& self, const std::string& arm, float x, float y, float z) {
  const Model::Robot& robot = *self.description->robot;
  if (arm != "Arms" && arm != "LArm" && arm != "RArm")
    throw py::value_error("point_at: arm expects Arms, LArm or RArm, not '" + arm + "'");
  if (!robot.canPointAt())
    throw py::value_error("point_at: " + robot.getName() + " cannot point");
  std::vector<std::string> names;
  std::vector<float> angles;
  const auto& model = robot.trackerModel();
  if (arm != "RArm")
    Tracker::tools::computePointAtAngles({x, y, z}, model.leftArm, names, angles);
  if (arm != "LArm")
    Tracker::tools::computePointAtAngles({x, y, z}, model.rightArm, names, angles);
  return anglesDict(names, angles);
}

py::dict limits(const Robot& self) {
  py::dict out;
  for (const auto& [name, joint] : self.description->robot->getJoints())
    out[py::str(name)] = py::make_tuple(joint.min, joint.max);
  return out;
}

py::dict velocityLimits(const Robot& self) {
  py::dict out;
  for (const auto& [name, joint] : self.description->robot->getJoints())
    out[py::str(name)] = joint.maxVelocity;
  return out;
}

}  // namespace

std::shared_ptr<const Sim::RobotDescription> robotOf(py::handle robot) {
  if (robot.is_none())
    return nullptr;
  if (py::isinstance<Robot>(robot))
    return robot.cast<const Robot&>().description;
  if (!py::isinstance<py::str>(robot))
    throw py::type_error("robot expects a krtracker.Robot, a name (kibo, rover, lumen) or a path");
  try {
    return Sim::RobotDescription::load(robot.cast<std::string>());
  } catch (const Sim::InputError& e) {
    throw py::value_error(e.what());
  }
}

void bindGeometry(py::module_& m) {
  m.attr("FRAME_TORSO") = static_cast<int>(Math::FRAME_TORSO);
  m.attr("FRAME_WORLD") = static_cast<int>(Math::FRAME_WORLD);
  m.attr("FRAME_ROBOT") = static_cast<int>(Math::FRAME_ROBOT);

  py::class_<Robot>(m, "Robot", kRobotDoc)
      .def_static(
          "load", [](py::str nameOrPath) { return Robot{robotOf(nameOrPath)}; },
          py::arg("name_or_path"),
          "Loads a robot: kibo (the small humanoid), rover (the wheeled humanoid), lumen (a "
          "pan-tilt mobile robot), the path of an XML description, or the path of the YAML "
          "mapping of a URDF. ValueError when it cannot be read.")
      .def_property_readonly(
          "name", [](const Robot& r) { return r.description->robot->getName(); },
          "The robot's name, e.g. 'Kibo'.")
      .def_property_readonly(
          "path", [](const Robot& r) { return r.description->path; },
          "The file it was read from (a URDF robot's mapping).")
      .def_property_readonly(
          "joint_names",
          [](const Robot& r) {
            std::vector<std::string> names;
            for (const auto& joint : r.description->robot->getJoints())
              names.push_back(joint.first);
            return names;
          },
          "The head's and arms' joints, sorted by name.")
      .def_property_readonly("limits", &limits, "{joint: (min, max)}: each joint's range [rad].")
      .def_property_readonly("velocity_limits", &velocityLimits,
                             "{joint: max velocity}: each joint's speed limit [rad/s].")
      .def_property_readonly(
          "can_point", [](const Robot& r) { return r.description->robot->canPointAt(); },
          "Whether the arms can point.")
      .def_property_readonly(
          "can_look_behind", [](const Robot& r) { return r.description->robot->canLookBehind(); },
          "Whether the robot turns to look at a point behind it.")
      .def("look_at", &lookAt, py::arg("x"), py::arg("y"), py::arg("z"), py::arg("effector") = 0,
           py::arg("whole_body") = false,
           "The head's angles {joint: angle [rad]} that aim a camera at the point (x, y, z) [m] of "
           "the torso frame (of the robot frame with whole_body). effector: 0 top camera, 1 "
           "bottom, 2 depth camera. ValueError when no angles reach it.")
      .def("point_at", &pointAt, py::arg("arm"), py::arg("x"), py::arg("y"), py::arg("z"),
           "The arm's angles {joint: angle [rad]} that point arm ('LArm', 'RArm' or 'Arms' for "
           "both) at the point (x, y, z) [m] of the torso frame. ValueError for a robot that "
           "cannot point.")
      .def("__repr__", [](const Robot& r) {
        return "<krtracker.Robot " + r.description->robot->getName() + " from " +
               r.description->path + ">";
      });
}

}  // namespace Py
}  // namespace KR
