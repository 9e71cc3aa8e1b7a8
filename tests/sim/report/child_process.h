#pragma once
// krtracker-sim run as a user runs it, in a process of its own (the program the build made,
// KRTRACKER_SIM_PROGRAM), its output kept in files, so that a test can signal it, look at its
// window or wait for it.

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

extern char** environ;

namespace krtest {

/// A path in a temporary folder of this process alone, made by mkdtemp: the plain run and the
/// Xvfb run of the same test may run at once, and so may two suites that share /tmp. The folder
/// goes when the process ends, if the tests removed what they put in it.
inline std::string scratchPath(const std::string& name) {
  struct Folder {
    std::string path = testing::TempDir() + "krtracker_test_XXXXXX";
    Folder() {
      if (::mkdtemp(path.data()) == nullptr)
        ADD_FAILURE() << "cannot make a folder like " << path << ": " << std::strerror(errno);
    }
    ~Folder() { ::rmdir(path.c_str()); }
  };
  static const Folder folder;
  return folder.path + "/" + name;
}

class ChildProgram {
 public:
  /// Starts the program with `args`, its standard output and error into `out` and `err`.
  ChildProgram(const std::vector<std::string>& args, const std::string& out,
               const std::string& err) {
    std::vector<std::string> all = {KRTRACKER_SIM_PROGRAM};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : all)
      argv.push_back(&a[0]);
    argv.push_back(nullptr);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&files, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (posix_spawn(&fPid, argv[0], &files, nullptr, argv.data(), environ) != 0)
      fPid = -1;
    posix_spawn_file_actions_destroy(&files);
  }
  ~ChildProgram() {
    if (fPid > 0 && !fDone) {
      ::kill(fPid, SIGKILL);
      wait();
    }
  }
  ChildProgram(const ChildProgram&) = delete;
  ChildProgram& operator=(const ChildProgram&) = delete;

  bool started() const { return fPid > 0; }
  void signal(int s) const { ::kill(fPid, s); }
  /// Waits for the end; its exit code, or 128 + the signal that killed it.
  int wait() {
    int status = 0;
    ::waitpid(fPid, &status, 0);
    fDone = true;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

 private:
  pid_t fPid = -1;
  bool fDone = false;
};

}  // namespace krtest
