#pragma once
// krtracker-sim angles: the joint angles that the library computes for a point, without
// simulating anything.

#include <iosfwd>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace KR {
namespace Sim {

struct AnglesCommand {
  std::string robot;
  std::vector<std::string> lookAt;   // X Y Z
  std::vector<std::string> pointAt;  // EFFECTOR X Y Z
  bool wholeBody = false;
  std::string effectorId = "0";

  void addOptions(CLI::App& command);
  int run(std::ostream& out) const;
};

}  // namespace Sim
}  // namespace KR
