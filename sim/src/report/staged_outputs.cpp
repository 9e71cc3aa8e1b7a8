#include <krsim/report/staged_outputs.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace KR {
namespace Sim {

namespace {

[[noreturn]] void cannotWrite(const std::string& path, int error) {
  throw std::runtime_error("cannot write " + path + ": " + std::strerror(error));
}

/// A fresh name beside `path`: ".NAME.PID.N.tmp", hidden, in the same folder.
std::string temporaryName(const std::string& path) {
  static std::atomic<unsigned> counter{0};
  const auto slash = path.find_last_of('/');
  const std::string dir = slash == std::string::npos ? "" : path.substr(0, slash + 1);
  const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
  return dir + "." + base + "." + std::to_string(::getpid()) + "." + std::to_string(++counter) +
         ".tmp";
}

}  // namespace

StagedOutputs::StagedOutputs(std::vector<std::string> owned) : fOwned(std::move(owned)) {}

StagedOutputs::~StagedOutputs() {
  if (fCommitted)
    return;
  for (const Staged& s : fStaged)
    ::unlink(s.temporary.c_str());
}

std::string StagedOutputs::stage(const std::string& path) {
  for (;;) {
    const std::string temporary = temporaryName(path);
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0 && errno == EEXIST)
      continue;  // left by a process of the same id that was killed
    if (fd < 0)
      cannotWrite(path, errno);
    ::close(fd);
    std::lock_guard<std::mutex> lock(fMutex);
    fStaged.push_back({path, temporary});
    return temporary;
  }
}

void StagedOutputs::writeText(const std::string& path, const std::string& text) {
  const std::string temporary = stage(path);
  std::FILE* file = std::fopen(temporary.c_str(), "wb");
  if (file == nullptr)
    cannotWrite(path, errno);
  const bool written = std::fwrite(text.data(), 1, text.size(), file) == text.size();
  const int error = errno;
  if (std::fclose(file) != 0 || !written)
    cannotWrite(path, written ? errno : error);
}

void StagedOutputs::commit() {
  std::lock_guard<std::mutex> lock(fMutex);
  for (const Staged& s : fStaged) {
    if (::rename(s.temporary.c_str(), s.path.c_str()) != 0)
      cannotWrite(s.path, errno);
  }
  fCommitted = true;
  for (const std::string& path : fOwned) {
    const bool written = std::any_of(fStaged.begin(), fStaged.end(),
                                     [&](const Staged& s) { return s.path == path; });
    if (!written)
      ::unlink(path.c_str());
  }
}

}  // namespace Sim
}  // namespace KR
