#include <krsim/robot/robot_description.h>

#include <sys/stat.h>

#include <fstream>
#include <set>
#include <sstream>
#include <vector>

#include <kr/error.h>
#include <kr/model/modelutils.h>

#ifndef KRTRACKER_ROBOTS_DIR
#define KRTRACKER_ROBOTS_DIR "robots"
#endif

namespace KR {
namespace Sim {

namespace {

constexpr long kMaxInputBytes = 1 << 20;

bool isFile(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

std::string folderOf(const std::string& path) {
  const auto slash = path.find_last_of('/');
  return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

/// The distinct mesh files of the URDF's links that are not found.
std::vector<std::string> missingMeshes(const UrdfSource& source) {
  std::set<std::string> missing;
  const std::string key = "filename=\"";
  for (auto at = source.urdfText.find(key); at != std::string::npos;
       at = source.urdfText.find(key, at + 1)) {
    const auto begin = at + key.size();
    const auto end = source.urdfText.find('"', begin);
    if (end == std::string::npos)
      break;
    const std::string file = source.urdfText.substr(begin, end - begin);
    if (findUrdfMesh(source.urdfPath, file).empty())
      missing.insert(file);
  }
  return {missing.begin(), missing.end()};
}

/// A URDF robot: the mapping and its URDF read, the robot imported and served as XML.
std::shared_ptr<const RobotDescription> readUrdfRobot(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    throw KRError("UrdfImport", "robotFromUrdfMapping",
                  "cannot read the robot mapping '" + path + "'");
  }
  std::ostringstream text;
  text << in.rdbuf();
  auto source = std::make_shared<UrdfSource>();
  source->mappingPath = path;
  source->mapping = Model::UrdfImport::readMapping(text.str(), path);
  source->urdfPath = Model::UrdfImport::urdfPath(path, source->mapping);
  checkInputFile("URDF", source->urdfPath);
  std::ifstream urdf(source->urdfPath, std::ios::binary);
  if (!urdf) {
    throw KRError("UrdfImport", "robotFromUrdfMapping",
                  path + ": urdf: cannot read the URDF '" + source->urdfPath + "'");
  }
  std::ostringstream urdfText;
  urdfText << urdf.rdbuf();
  source->urdfText = urdfText.str();
  auto description = std::make_shared<RobotDescription>();
  const auto imported = Model::UrdfImport::robotFromTexts(text.str(), path, source->urdfText,
                                                          source->urdfPath, &description->notes);
  description->path = path;
  description->text = Model::ModelUtils::robotToXml(*imported);
  description->robot = Model::ModelUtils::robotFromXml(description->text);
  source->missingMeshes = missingMeshes(*source);
  description->urdf = std::move(source);
  return description;
}

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
    if (Model::UrdfImport::isMappingFile(path))
      return readUrdfRobot(path);
    return readRobotFile(path);
  } catch (const std::exception& e) {
    throw InputError("cannot load robot '" + nameOrPath + "': " + e.what());
  }
}

std::string findUrdfMesh(const std::string& urdfPath, const std::string& filename) {
  const std::string dir = folderOf(urdfPath);
  std::vector<std::string> candidates;
  const std::string package = "package://";
  const std::string file = "file://";
  if (filename.compare(0, package.size(), package) == 0) {
    const std::string rest = filename.substr(package.size());
    const auto slash = rest.find('/');
    const std::string pkg = slash == std::string::npos ? rest : rest.substr(0, slash);
    const std::string inPkg = slash == std::string::npos ? std::string() : rest.substr(slash + 1);
    candidates = {dir + "/" + inPkg, dir + "/../" + inPkg, dir + "/../../" + inPkg,
                  dir + "/" + pkg + "/" + inPkg, dir + "/../" + pkg + "/" + inPkg};
  } else if (filename.compare(0, file.size(), file) == 0) {
    candidates = {filename.substr(file.size())};
  } else if (!filename.empty() && filename[0] == '/') {
    candidates = {filename};
  } else {
    candidates = {dir + "/" + filename};
  }
  for (const std::string& c : candidates) {
    if (!filename.empty() && isFile(c))
      return c;
  }
  return {};
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
  for (const std::string& candidate : {dir + "/" + nameOrPath, dir + "/" + nameOrPath + ".xml",
                                       dir + "/" + nameOrPath + ".yaml"}) {
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
