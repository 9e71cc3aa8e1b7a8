#pragma once
// krtracker.Robot: a robot description, its joints and limits, and the joint angles the library
// computes to look or point at a point.

#include <memory>

#include <pybind11/pybind11.h>

#include <krsim/robot/robot_description.h>

namespace KR {
namespace Py {

namespace py = pybind11;

struct Robot {
  std::shared_ptr<const Sim::RobotDescription> description;
};

/// The robot description that `robot` names: a krtracker.Robot, or a name or path to load;
/// None gives null. ValueError when it cannot be loaded.
std::shared_ptr<const Sim::RobotDescription> robotOf(py::handle robot);

void bindGeometry(py::module_& m);

}  // namespace Py
}  // namespace KR
