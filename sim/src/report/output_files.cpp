#include <krsim/report/output_files.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <utility>

#include <kr/error.h>

namespace KR {
namespace Sim {

namespace {

[[noreturn]] void refuse(const std::string& text) {
  throw KRError("krsim", "outputs", text);
}

void makeParentDirectory(const std::string& path) {
  const auto slash = path.find_last_of('/');
  if (slash == std::string::npos || slash == 0)
    return;
  std::string dir;
  for (std::size_t i = 0; i <= slash; ++i) {
    if (path[i] == '/' && !dir.empty())
      ::mkdir(dir.c_str(), 0755);
    dir += path[i];
  }
}

/// Same file, whether or not both exist yet.
bool sameFile(const std::string& a, const std::string& b) {
  struct stat sa {};
  struct stat sb {};
  if (::stat(a.c_str(), &sa) == 0 && ::stat(b.c_str(), &sb) == 0)
    return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
  return absolutePath(a) == absolutePath(b);
}

/// The folder of an output must exist (it is created) and be writable.
void checkWritable(const std::string& option, const std::string& path) {
  makeParentDirectory(path);
  const auto slash = path.find_last_of('/');
  const std::string dir = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  struct stat st {};
  if (::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
    refuse(option + " " + path + " is a folder, not a file");
  if (::access(dir.c_str(), W_OK) != 0)
    refuse(option + " " + path + ": cannot write in " + dir);
}

std::string folderOf(const std::string& path) {
  const auto slash = path.find_last_of('/');
  return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

/// The video's folder must exist, or be made for another output: a mistyped one is refused.
void checkVideoFolder(const RunConfig& config) {
  const std::string dir = folderOf(config.video);
  for (const std::string& other : {config.csv, config.plot, config.json}) {
    if (!other.empty() && folderOf(other) == dir)
      return;
  }
  struct stat st {};
  if (::stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
    refuse("--video " + config.video + ": the folder " + dir + " does not exist");
}

void checkWritableFolder(const std::string& option, const std::string& dir) {
  ::mkdir(dir.c_str(), 0755);
  struct stat st {};
  if (::stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || ::access(dir.c_str(), W_OK) != 0)
    refuse(option + " " + dir + " is not a folder that can be written");
}

}  // namespace

void decideOutputs(RunConfig& config, const std::string& name,
                   const std::vector<std::string>& inputs) {
  const bool defaultOutputs = config.csv.empty() && config.plot.empty();
  const std::string stem = "out/" + name;
  if (defaultOutputs) {
    config.csv = stem + ".csv";
    config.plot = stem + ".png";
    if (config.json.empty())
      config.json = stem + ".json";
  }
  const std::vector<std::pair<std::string, std::string>> outputs = {{"--csv", config.csv},
                                                                    {"--plot", config.plot},
                                                                    {"--json", config.json},
                                                                    {"--video", config.video}};
  if (!config.video.empty())
    checkVideoFolder(config);  // before any folder is made
  for (std::size_t i = 0; i < outputs.size(); ++i) {
    const auto& [option, path] = outputs[i];
    if (path.empty())
      continue;
    for (const auto& input : inputs) {
      if (!input.empty() && sameFile(path, input))
        refuse(option + " " + path + " is an input of the run");
    }
    for (std::size_t j = 0; j < i; ++j) {
      if (!outputs[j].second.empty() && sameFile(path, outputs[j].second))
        refuse(option + " " + path + " is also the file of " + outputs[j].first);
    }
    checkWritable(option, path);
  }
  if (!config.snapshots.empty())
    checkWritableFolder("--snapshots", config.snapshots);
}

void writeText(const std::string& path, const std::string& text) {
  std::ofstream file(path);
  file << text;
  if (!file.flush())
    throw std::runtime_error("cannot write " + path);
}

std::string absolutePath(const std::string& path) {
  char* full = ::realpath(path.c_str(), nullptr);
  if (full == nullptr)
    return path;
  std::string result(full);
  std::free(full);
  return result;
}

}  // namespace Sim
}  // namespace KR
