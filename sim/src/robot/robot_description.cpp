#include <krsim/robot/robot_description.h>

#include <sys/stat.h>

#include <fstream>
#include <sstream>

#include <kr/error.h>
#include <kr/model/modelutils.h>

#ifndef KRTRACKER_ROBOTS_DIR
#define KRTRACKER_ROBOTS_DIR "robots"
#endif

namespace KR {
namespace Sim {

namespace {

constexpr long kMaxInputBytes = 1 << 20;

/// The file's text and the robot parsed from it, with the errors robotFromFile gives.
std::shared_ptr<const RobotDescription> readRobotFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    throw KRError("ModelUtils", "robotFromFile", "cannot read robot description '" + path + "'");
  }
  std::ostringstream text;
  text << in.rdbuf();
  auto description = std::make_shared<RobotDescription>();
  description->path = path;
  description->text = text.str();
  try {
    description->robot = Model::ModelUtils::robotFromXml(description->text);
  } catch (const KRError& e) {
    throw KRError("ModelUtils", "robotFromFile", path + ": " + e.message());
  }
  return description;
}

}  // namespace

std::shared_ptr<const RobotDescription> RobotDescription::load(const std::string& nameOrPath) {
  const std::string path = resolveRobotFile(nameOrPath);
  checkInputFile("robot", path);
  try {
    return readRobotFile(path);
  } catch (const std::exception& e) {
    throw InputError("cannot load robot '" + nameOrPath + "': " + e.what());
  }
}

std::shared_ptr<const RobotDescription> RobotDescription::fromText(std::string text) {
  auto description = std::make_shared<RobotDescription>();
  description->robot = Model::ModelUtils::robotFromXml(text);
  description->text = std::move(text);
  return description;
}

std::string resolveRobotFile(const std::string& nameOrPath) {
  if (std::ifstream(nameOrPath).good())
    return nameOrPath;
  const std::string dir = KRTRACKER_ROBOTS_DIR;
  for (const std::string& candidate : {dir + "/" + nameOrPath, dir + "/" + nameOrPath + ".xml"}) {
    if (std::ifstream(candidate).good())
      return candidate;
  }
  return nameOrPath;
}

std::string findDataFile(const std::string& relative) {
  const std::string path = std::string(KRTRACKER_ROBOTS_DIR) + "/../" + relative;
  return std::ifstream(path).good() ? path : std::string();
}

void checkInputFile(const std::string& what, const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0)
    return;
  if (!S_ISREG(st.st_mode))
    throw InputError(what + " '" + path + "' is not a regular file");
  if (st.st_size > kMaxInputBytes) {
    throw InputError(what + " '" + path + "' is " + std::to_string(st.st_size) +
                     " bytes, more than the " + std::to_string(kMaxInputBytes) + " accepted");
  }
}

}  // namespace Sim
}  // namespace KR
