#include <krsim/robot/robot_description.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <set>
#include <stdexcept>
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

bool exists(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0;
}

/// Refuses what checkInputFile refuses, from the file's status.
void checkStatus(const std::string& what, const std::string& path, const struct stat& st) {
  if (!S_ISREG(st.st_mode))
    throw InputError(what + " '" + path + "' is not a regular file");
  if (st.st_size > kMaxInputBytes) {
    throw InputError(what + " '" + path + "' is " + std::to_string(st.st_size) +
                     " bytes, more than the " + std::to_string(kMaxInputBytes) + " accepted");
  }
}

/// Reads at most kMaxInputBytes + 1 bytes of an open file.
std::string readAtMost(int fd, const std::string& what, const std::string& path) {
  std::string text;
  char buffer[65536];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0)
      throw InputError("cannot read " + what + " '" + path + "'");
    if (n == 0)
      return text;
    text.append(buffer, static_cast<std::size_t>(n));
    if (text.size() > static_cast<std::size_t>(kMaxInputBytes)) {
      throw InputError(what + " '" + path + "' is more than the " + std::to_string(kMaxInputBytes) +
                       " bytes accepted");
    }
  }
}

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
  const std::optional<std::string> text = readInputFile("robot", path);
  if (!text) {
    throw KRError("UrdfImport", "robotFromUrdfMapping",
                  "cannot read the robot mapping '" + path + "'");
  }
  auto source = std::make_shared<UrdfSource>();
  source->mappingPath = path;
  source->mapping = Model::UrdfImport::readMapping(*text, path);
  source->urdfPath = Model::UrdfImport::urdfPath(path, source->mapping);
  std::optional<std::string> urdfText;
  try {
    urdfText = readInputFile("URDF", source->urdfPath);
  } catch (const InputError& e) {
    // A fault of the robot named, not of the file given: said as the robot's.
    throw std::runtime_error(e.what());
  }
  if (!urdfText) {
    throw KRError("UrdfImport", "robotFromUrdfMapping",
                  path + ": urdf: cannot read the URDF '" + source->urdfPath + "'");
  }
  source->urdfText = std::move(*urdfText);
  auto description = std::make_shared<RobotDescription>();
  const auto imported = Model::UrdfImport::robotFromTexts(*text, path, source->urdfText,
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
  std::optional<std::string> text = readInputFile("robot", path);
  if (!text) {
    throw KRError("ModelUtils", "robotFromFile", "cannot read robot description '" + path + "'");
  }
  auto description = std::make_shared<RobotDescription>();
  description->path = path;
  description->text = std::move(*text);
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
  try {
    if (Model::UrdfImport::isMappingFile(path))
      return readUrdfRobot(path);
    return readRobotFile(path);
  } catch (const InputError&) {
    throw;
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

// Names are looked up with stat() only: opening a FIFO to see whether it exists would block.
std::string resolveRobotFile(const std::string& nameOrPath) {
  if (exists(nameOrPath))
    return nameOrPath;
  const std::string dir = KRTRACKER_ROBOTS_DIR;
  for (const std::string& candidate : {dir + "/" + nameOrPath, dir + "/" + nameOrPath + ".xml",
                                       dir + "/" + nameOrPath + ".yaml"}) {
    if (exists(candidate))
      return candidate;
  }
  return nameOrPath;
}

std::string findDataFile(const std::string& relative) {
  const std::string path = std::string(KRTRACKER_ROBOTS_DIR) + "/../" + relative;
  return exists(path) ? path : std::string();
}

void checkInputFile(const std::string& what, const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) == 0)
    checkStatus(what, path, st);
}

std::optional<std::string> readInputFile(const std::string& what, const std::string& path) {
  checkInputFile(what, path);
  // Non-blocking, so that a FIFO put in the file's place since the check is not waited on;
  // the open file is checked again before anything is read from it.
  const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (fd < 0)
    return std::nullopt;
  struct Closer {
    int fd;
    ~Closer() { ::close(fd); }
  } closer{fd};
  struct stat st {};
  if (::fstat(fd, &st) != 0)
    return std::nullopt;
  checkStatus(what, path, st);
  return readAtMost(fd, what, path);
}

}  // namespace Sim
}  // namespace KR
