#pragma once
// krtracker-sim run as a user runs it, in a process of its own (the program the build made,
// KRTRACKER_SIM_PROGRAM), its output kept in files, so that a test can signal it, look at its
// window or wait for it.

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

extern char** environ;

namespace krtest {

/// A path in the tests' temporary folder of this process alone: the plain run and the Xvfb
/// run of the same test may run at once.
inline std::string scratchPath(const std::string& name) {
  return testing::TempDir() + name + "_" + std::to_string(::getpid());
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
