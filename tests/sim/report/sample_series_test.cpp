// The series of a run in memory against the CSV of the same run: the same columns in the same
// order, and in each cell the value the CSV prints (to its decimals), NaN where it is empty.

#include <cmath>
#include <cstdlib>
#include <sstream>

#include <gtest/gtest.h>

#include <kr/error.h>
#include <krsim/report/csv_writer.h>
#include <krsim/report/sample_series.h>

#include "sim/helpers.h"
#include "sim/run/aim_scenario.h"

namespace {

using namespace krtest;
using KR::Sim::CsvWriter;
using KR::Sim::SampleSeries;

std::vector<std::string> cellsOf(const std::string& line) {
  std::vector<std::string> cells;
  std::string cell;
  std::istringstream in(line);
  while (std::getline(in, cell, ','))
    cells.push_back(cell);
  if (!line.empty() && line.back() == ',')
    cells.push_back("");
  return cells;
}

/// Half a unit of the last decimal the CSV printed.
double printedTolerance(const std::string& cell) {
  const auto dot = cell.find('.');
  const int decimals = dot == std::string::npos ? 0 : static_cast<int>(cell.size() - dot - 1);
  return 0.5 * std::pow(10.0, -decimals) + 1e-9;
}

TEST(SampleSeriesTest, HoldsTheCsvsColumnsAndInEachCellTheValueItPrints) {
  KR::Sim::SimulationConfig config;
  config.physics = "kinematic";
  Scenario scenario = aimScenario();
  scenario.phases[0].end = 2.2;  // the last samples outside every phase: empty target cells
  ScenarioRun run(scenario, config);
  std::ostringstream csv;
  CsvWriter::follow(run, csv);
  const auto series = SampleSeries::follow(run);
  run.runToEnd();

  std::istringstream lines(csv.str());
  std::string line;
  std::getline(lines, line);
  EXPECT_EQ(series->columns(), cellsOf(line));
  ASSERT_EQ(series->size(), 300u);
  std::vector<std::vector<std::string>> texts(series->columns().size());
  for (std::size_t c = 0; c < texts.size(); ++c) {
    if (series->isText(c))
      texts[c] = series->texts(c);
  }
  std::size_t row = 0;
  std::size_t empty = 0;
  for (; std::getline(lines, line); ++row) {
    const auto cells = cellsOf(line);
    ASSERT_EQ(cells.size(), series->columns().size()) << line;
    for (std::size_t c = 0; c < cells.size(); ++c) {
      SCOPED_TRACE(series->columns()[c] + " at row " + std::to_string(row));
      if (series->isText(c)) {
        EXPECT_EQ(texts[c][row], cells[c]);
        continue;
      }
      const double value = series->numbers(c)[row];
      if (cells[c].empty()) {
        ++empty;
        EXPECT_TRUE(std::isnan(value)) << value;
      } else {
        EXPECT_NEAR(value, std::strtod(cells[c].c_str(), nullptr), printedTolerance(cells[c]));
      }
    }
  }
  EXPECT_EQ(row, series->size());
  EXPECT_GT(empty, 0u);  // both kinds of cell were compared
  EXPECT_EQ(texts[1][100], "look");
  EXPECT_EQ(texts[1][299], "");
  EXPECT_EQ(texts[22][100], "TargetDetected");
}

TEST(SampleSeriesTest, RefusesAColumnOfTheOtherKindOrOutOfRange) {
  SampleSeries series({}, {"HeadYaw"});
  EXPECT_THROW(series.numbers(1), KR::KRError);  // phase
  EXPECT_THROW(series.texts(0), KR::KRError);    // time
  EXPECT_THROW(series.numbers(series.columns().size()), KR::KRError);
  EXPECT_NO_THROW(series.numbers(series.columns().size() - 1));
}

}  // namespace
