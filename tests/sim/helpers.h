#pragma once
// Small helpers shared by the simulator's tests: files read whole, robot descriptions loaded or
// edited, the command line run in the test's process.

#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <kr/model/modelutils.h>
#include <krsim/cli.h>

#include "support/fake_module.h"

namespace krtest {

inline std::string readFile(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

/// `text` with the first `from` replaced by `to`; a failure when `from` is not in it.
inline std::string replaced(std::string text, const std::string& from, const std::string& to) {
  const auto at = text.find(from);
  EXPECT_NE(at, std::string::npos) << from;
  return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

/// A robot of robots/, or that description with one piece of text replaced.
inline std::unique_ptr<KR::Model::Robot> loadRobot(const std::string& file,
                                                   const std::string& from = "",
                                                   const std::string& to = "") {
  const std::string xml = readRobotFile(file);
  return KR::Model::ModelUtils::robotFromXml(from.empty() ? xml : replaced(xml, from, to));
}

struct CommandResult {
  int code;
  std::string out;
  std::string err;
};

/// krtracker-sim's command line with `args`, without the tracking service's sub-modules
/// unless given.
inline CommandResult runCli(const std::vector<std::string>& args,
                            const KR::Sim::SubModuleFactory& modules = {},
                            const KR::Sim::RunHooks& hooks = {}) {
  std::ostringstream out;
  std::ostringstream err;
  const int code = KR::Sim::runCommandLine(args, out, err, modules, hooks);
  return {code, out.str(), err.str()};
}

}  // namespace krtest
