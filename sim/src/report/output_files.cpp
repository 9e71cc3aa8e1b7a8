#include <krsim/report/output_files.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <utility>

#include <kr/error.h>

namespace KR {
namespace Sim {

namespace {

[[noreturn]] void refuse(const std::string& text) {
  throw KRError("krsim", "outputs", text);
}

/// Same file, whether or not both exist yet.
bool sameFile(const std::string& a, const std::string& b) {
  struct stat sa {};
  struct stat sb {};
  if (::stat(a.c_str(), &sa) == 0 && ::stat(b.c_str(), &sb) == 0)
    return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
  return absolutePath(a) == absolutePath(b);
}

std::string folderOf(const std::string& path) {
  const auto slash = path.find_last_of('/');
  if (slash == std::string::npos)
    return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

/// The folder an output goes in exists: it is never created.
void checkFolder(const std::string& option, const std::string& path) {
  const std::string dir = folderOf(path);
  struct stat st {};
  if (::stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
    refuse(option + " " + path + ": no folder " + dir + " (it is not created)");
}

/// The folder of pictures is an output itself: in a folder that exists, created if missing.
void checkWritableFolder(const std::string& option, const std::string& dir) {
  checkFolder(option, dir.size() > 1 && dir.back() == '/' ? dir.substr(0, dir.size() - 1) : dir);
  ::mkdir(dir.c_str(), 0755);
  struct stat st {};
  if (::stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || ::access(dir.c_str(), W_OK) != 0)
    refuse(option + " " + dir + " is not a folder that can be written");
}

/// The files of each run of many, suffixed as perRunPath says.
std::vector<std::string> perRunPaths(const RunConfig& config, const std::string& path) {
  std::vector<std::string> paths;
  const SeedRange seeds = config.seeds.value_or(SeedRange{config.seed, config.seed});
  for (const bool compensation : {true, false}) {
    if (!compensation && config.compare.empty())
      break;
    for (std::uint64_t seed = seeds.first; seed <= seeds.last; ++seed) {
      paths.push_back(perRunPath(
          path, runSuffix(config, config.compare.empty() ? config.compensation : compensation,
                          static_cast<std::uint32_t>(seed))));
    }
  }
  return paths;
}

}  // namespace

void checkOutputFile(const std::string& option, const std::string& path) {
  checkFolder(option, path);
  const std::string dir = folderOf(path);
  if (::access(dir.c_str(), W_OK) != 0)
    refuse(option + " " + path + ": cannot write in " + dir);
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0)
    return;
  if (S_ISDIR(st.st_mode))
    refuse(option + " " + path + " is a folder, not a file");
  if (!S_ISREG(st.st_mode))
    refuse(option + " " + path + " is not a regular file");
}

std::string perRunPath(const std::string& path, const std::string& suffix) {
  const auto slash = path.find_last_of('/');
  const auto dot = path.find_last_of('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash) ||
      dot == (slash == std::string::npos ? 0 : slash + 1))
    return path + suffix;
  return path.substr(0, dot) + suffix + path.substr(dot);
}

std::string runSuffix(const RunConfig& config, bool compensation, std::uint32_t seed) {
  std::string suffix;
  if (!config.compare.empty())
    suffix += compensation ? "-compensation-on" : "-compensation-off";
  if (config.seeds)
    suffix += "-seed" + std::to_string(seed);
  return suffix;
}

std::vector<std::string> decideOutputs(RunConfig& config, const std::string& name,
                                       const std::vector<std::string>& inputs) {
  const bool many = config.seeds || !config.compare.empty();
  const bool defaultOutputs = config.csv.empty() && config.plot.empty();
  const std::string stem = "out/" + name;
  std::vector<std::string> owned;
  if (defaultOutputs) {
    // The program's own folder, the one folder ever created. Many runs write their JSON
    // alone there, and the CSV and plot of an older run go.
    ::mkdir("out", 0755);
    if (!many)
      config.csv = stem + ".csv";
    if (!many)
      config.plot = stem + ".png";
    if (config.json.empty())
      config.json = stem + ".json";
    owned = {stem + ".csv", stem + ".png"};
  }
  const std::vector<std::pair<std::string, std::string>> outputs = {{"--csv", config.csv},
                                                                    {"--plot", config.plot},
                                                                    {"--json", config.json},
                                                                    {"--video", config.video}};
  for (std::size_t i = 0; i < outputs.size(); ++i) {
    const auto& [option, path] = outputs[i];
    if (path.empty())
      continue;
    std::vector<std::string> files{path};
    if (many && option != "--json")
      files = perRunPaths(config, path);
    for (const std::string& file : files) {
      for (const auto& input : inputs) {
        if (!input.empty() && sameFile(file, input))
          refuse(option + " " + file + " is an input of the run");
      }
      checkOutputFile(option, file);
      // The video is written in place as the run goes (an interrupted run leaves it playable),
      // so it is never staged: owning it would remove it at commit.
      if (option != "--video")
        owned.push_back(file);
    }
    for (std::size_t j = 0; j < i; ++j) {
      if (!outputs[j].second.empty() && sameFile(path, outputs[j].second))
        refuse(option + " " + path + " is also the file of " + outputs[j].first);
    }
  }
  if (!config.snapshots.empty())
    checkWritableFolder("--snapshots", config.snapshots);
  return owned;
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
