#include <krsim/robot/robot_description.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <optional>

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
    return readRobotFile(path);
  } catch (const InputError&) {
    throw;
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

// Names are looked up with stat() only: opening a FIFO to see whether it exists would block.
std::string resolveRobotFile(const std::string& nameOrPath) {
  if (exists(nameOrPath))
    return nameOrPath;
  const std::string dir = KRTRACKER_ROBOTS_DIR;
  for (const std::string& candidate : {dir + "/" + nameOrPath, dir + "/" + nameOrPath + ".xml"}) {
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
