#pragma once
// CsvWriter: a run's samples as CSV, one line per 10 ms step, streamed as the run records them
// so that nothing grows with the length of the run. Columns: the sample (krsim/run/sample.h),
// the phase's index and on-target threshold, the step's events and observation, then each
// joint as commanded and as measured. Texts (phase names, events, joint names) are quoted as
// RFC 4180 says when they need it.

#include <iosfwd>
#include <string>
#include <vector>

#include <krsim/run/sample.h>
#include <krsim/run/scenario.h>

namespace KR {
namespace Sim {

class ScenarioRun;

class CsvWriter {
 public:
  /// Writes the header to `out` at once. `phases` name the samples' phase indices; `joints` are
  /// the joints of the samples' joint values, in their order.
  CsvWriter(std::ostream& out, std::vector<Phase> phases, std::vector<std::string> joints);

  /// Streams `run`'s samples to `out` from now on, the header at once; `out` must outlive the
  /// run's steps.
  static void follow(ScenarioRun& run, std::ostream& out);
  /// The header line, without its end of line.
  static std::string header(const std::vector<std::string>& joints);
  /// A field as RFC 4180 writes it: as it is, or in double quotes (each quote doubled) when it
  /// holds a comma, a quote or a line break.
  static std::string field(const std::string& text);

  /// One line.
  void write(const Sample& s);

 private:
  std::ostream* fOut;
  std::vector<Phase> fPhases;
  std::vector<std::string> fJoints;
};

}  // namespace Sim
}  // namespace KR
