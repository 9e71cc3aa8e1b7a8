#pragma once
// StagedOutputs: a run's output files written whole or not at all. Each file is first written
// to a temporary file beside it (".NAME.PID.N.tmp" in the same folder, so that the rename is
// atomic) and all are renamed over their paths together by commit(), once the run has ended:
// a run that fails before commit() leaves the previous files as they were and removes its
// temporary files; an interrupted run commits what ran. The files the run owns but did not
// write (an older run's plot when this one drew none) are removed by commit(), so that the
// outputs side by side always come from one run.

#include <mutex>
#include <string>
#include <vector>

namespace KR {
namespace Sim {

class StagedOutputs {
 public:
  /// `owned`: files this run replaces whether or not it writes them.
  explicit StagedOutputs(std::vector<std::string> owned = {});
  /// Removes the temporary files of a run that was not committed.
  ~StagedOutputs();
  StagedOutputs(const StagedOutputs&) = delete;
  StagedOutputs& operator=(const StagedOutputs&) = delete;

  /// The temporary file that stands for `path` until commit(), created empty with the mode a
  /// new file gets (0666 less the umask). std::runtime_error "cannot write PATH: reason".
  std::string stage(const std::string& path);
  /// Stages `path` and writes `text` into it whole.
  void writeText(const std::string& path, const std::string& text);
  /// Renames every staged file over its path and removes the owned files that were not
  /// staged. std::runtime_error "cannot write PATH: reason" (the files not renamed yet stay
  /// as they were).
  void commit();

 private:
  struct Staged {
    std::string path;
    std::string temporary;
  };

  std::mutex fMutex;
  std::vector<std::string> fOwned;
  std::vector<Staged> fStaged;
  bool fCommitted = false;
};

}  // namespace Sim
}  // namespace KR
