#pragma once
// SampleSeries: a run's samples kept in memory as columns, one element per 10 ms step, under the
// CSV's column names and in its order (krsim/report/csv_writer.h), for a caller that wants the
// whole series at once (a script plotting it) rather than a file. Numbers are kept as the
// sample holds them, not rounded as the CSV prints them; a cell the CSV leaves empty (no target
// in the step, an arm not measured, outside every phase) is NaN. Three columns are texts:
// "phase", "events" and "observation". Memory grows with the run: about 0.4 KB per step with
// the small humanoid's 12 joints.

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include <krsim/run/sample.h>
#include <krsim/run/scenario.h>

namespace KR {
namespace Sim {

class ScenarioRun;

class SampleSeries {
 public:
  /// `phases` name the samples' phase indices; `joints` are the joints of the samples' joint
  /// values, in their order.
  SampleSeries(std::vector<Phase> phases, std::vector<std::string> joints);

  /// A series that records `run`'s samples from now on.
  static std::shared_ptr<SampleSeries> follow(ScenarioRun& run);

  void add(const Sample& s);

  /// The CSV header's names, in its order.
  const std::vector<std::string>& columns() const { return fColumns; }
  /// Samples recorded.
  std::size_t size() const { return fSize; }
  /// Whether column `column` (an index of columns()) holds texts rather than numbers.
  bool isText(std::size_t column) const;
  /// A column of numbers; KRError for a text column or an index out of range.
  const std::vector<double>& numbers(std::size_t column) const;
  /// A column of texts; KRError for a column of numbers or an index out of range.
  std::vector<std::string> texts(std::size_t column) const;

 private:
  std::vector<Phase> fPhases;
  std::vector<std::string> fColumns;
  std::size_t fSize = 0;
  std::vector<std::vector<double>> fNumbers;  // one per column; empty for the text columns
  std::vector<std::string> fEvents;
  std::vector<std::string> fObservations;
};

}  // namespace Sim
}  // namespace KR
