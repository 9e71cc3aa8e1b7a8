// The tables printed at the end of a run, from hand-made figures: columns aligned under their
// two-line header, "-" for what was not measured, the follow and pose columns only when a phase
// has them, the events below; and the many-seed table.

#include <limits>
#include <sstream>

#include <gtest/gtest.h>

#include <krsim/report/summary_table.h>

#include "sim/helpers.h"

namespace {

using namespace krtest;
using KR::Sim::formatSeedSummary;
using KR::Sim::formatSummary;

std::vector<std::string> wordsOf(const std::string& line) {
  std::istringstream in(line);
  std::vector<std::string> words;
  for (std::string w; in >> w;)
    words.push_back(w);
  return words;
}

PhaseMeasures lookMeasures() {
  PhaseMeasures m;
  m.name = "look";
  m.timeToOnTargetS = 1.07;
  m.losRmsDeg = 2.5;
  m.losP95Deg = 3.25;
  m.losMaxDeg = 25.123;
  m.losBiasDeg = 1.0;
  m.losJitterDeg = 0.5;
  m.onTargetPct = 62.34;
  m.armsRmsDeg = 0.04;  // no overshoot nor settling: not a step
  m.events = {{"KRTracker/TargetDetected", 1}, {"KRTracker/TargetLost", 2}};
  return m;
}

const std::string kHeader =
    "phase  on target  LoS RMS    p95    max   bias  jitter  on target  overshoot  settling  "
    "arms RMS\n"
    "       after [s]    [deg]  [deg]  [deg]  [deg]   [deg]        [%]      [deg]       [s]     "
    "[deg]\n";

TEST(SummaryTableTest, OneRowPerPhaseAlignedUnderTheHeaderWithTheEventsBelow) {
  PhaseSummary look;
  look.measures = lookMeasures();
  EXPECT_EQ(formatSummary({look}),
            kHeader +
                "look        1.07     2.50   3.25  25.12   1.00    0.50       62.3          -"
                "         -      0.04\n"
                "Events:\n"
                "  look: KRTracker/TargetDetected x1, KRTracker/TargetLost x2\n");
}

TEST(SummaryTableTest, FollowAndPoseColumnsAppearWhenAPhaseMeasuredThem) {
  PhaseSummary follow;
  follow.measures.name = "follow";
  follow.relativeErrorM.add(0.03);
  follow.relativeErrorM.add(0.04);
  PhaseSummary pose;
  pose.measures.name = "pose";
  pose.localisationM.add(0.021);
  pose.localisationDeg.add(1.5);
  PhaseSummary missing;  // the tracker never answered with a position: the columns are shown
  missing.measures.name = "missing";
  missing.localisationMissing = 1;

  const auto all = linesOf(formatSummary({follow, pose}));
  ASSERT_EQ(all.size(), 7u);
  EXPECT_NE(all[0].find("arms RMS  follow RMS  follow max  pose max  pose max"), std::string::npos)
      << all[0];
  EXPECT_NE(all[1].find("[deg]         [m]         [m]       [m]     [deg]"), std::string::npos)
      << all[1];
  // Ten measures not taken, then the follow and pose figures (RMS and max, max and max).
  const std::vector<std::string> none(10, "-");
  auto row = [&](const std::string& name, std::vector<std::string> tail) {
    std::vector<std::string> words{name};
    words.insert(words.end(), none.begin(), none.end());
    words.insert(words.end(), tail.begin(), tail.end());
    return words;
  };
  EXPECT_EQ(wordsOf(all[2]), row("follow", {"0.035", "0.040", "-", "-"}));
  EXPECT_EQ(wordsOf(all[3]), row("pose", {"-", "-", "0.021", "1.50"}));
  EXPECT_EQ(all[4], "Events:");
  EXPECT_EQ(all[5], "  follow: none");

  const auto onlyFollow = linesOf(formatSummary({follow}));
  EXPECT_EQ(onlyFollow[0].find("pose"), std::string::npos) << onlyFollow[0];
  const auto onlyMissing = linesOf(formatSummary({missing}));
  EXPECT_EQ(onlyMissing[0].find("follow"), std::string::npos) << onlyMissing[0];
  EXPECT_EQ(wordsOf(onlyMissing[2]), row("missing", {"-", "-"}));
}

TEST(SummaryTableTest, ManySeedsGiveAMeanAndA95thPercentileRowPerPhaseOneSeedOneRow) {
  KR::Sim::SeedAggregate look{lookMeasures(), lookMeasures()};
  look.p95.losRmsDeg = 4.0;
  look.p95.name = "look";
  const auto many = linesOf(formatSeedSummary({look}, 20));
  ASSERT_EQ(many.size(), 4u);  // no events below
  // The first column as wide as "look mean".
  EXPECT_EQ(many[0].rfind("phase      on target", 0), 0u) << many[0];
  EXPECT_EQ(wordsOf(many[2]),
            (std::vector<std::string>{"look", "mean", "1.07", "2.50", "3.25", "25.12", "1.00",
                                      "0.50", "62.3", "-", "-", "0.04"}));
  EXPECT_EQ(wordsOf(many[3]).at(3), "4.00");
  EXPECT_EQ(many[3].rfind("look p95 ", 0), 0u) << many[3];

  const auto one = linesOf(formatSeedSummary({look}, 1));
  ASSERT_EQ(one.size(), 3u);
  EXPECT_EQ(one[0] + "\n" + one[1] + "\n", kHeader);
  auto mean = wordsOf(many[2]);
  mean.erase(mean.begin() + 1);  // the mean's figures, unlabelled
  EXPECT_EQ(wordsOf(one[2]), mean);
}

// Finding: a phase without a line of sight has no row; a time never reached reads "never",
// and the runs that never found the target are counted.
TEST(SummaryTableTest, FindingTablesSayNeverAndCountTheRunsThatNeverFound) {
  PhaseMeasures found = lookMeasures();
  found.foundAfterS = 1.5;
  found.foundAfterLostS = 0.25;
  found.acquisitionS = 0.13;
  found.searchS = 1.0;
  found.losRmsTrackingDeg = 1.25;
  PhaseMeasures arms;
  arms.name = "arms";
  const auto single = linesOf(KR::Sim::formatFinding({found, arms}));
  ASSERT_EQ(single.size(), 4u);
  EXPECT_EQ(wordsOf(single[3]),
            (std::vector<std::string>{"look", "1.50", "0.25", "0.13", "1.00", "1.25"}));
  KR::Sim::FindingAggregate a;
  a.name = "re-find";
  a.runs = 32;
  a.neverFound = 4;
  a.foundMedianS = 2.0;
  a.foundP90S = std::numeric_limits<double>::infinity();
  a.afterLostMedianS = 0.5;
  a.afterLostP90S = 1.75;
  const auto many = linesOf(KR::Sim::formatSeedFinding({a}));
  ASSERT_EQ(many.size(), 4u);
  EXPECT_EQ(wordsOf(many[3]),
            (std::vector<std::string>{"re-find", "2.00", "never", "0.50", "1.75", "4/32"}));
  EXPECT_EQ(KR::Sim::formatFinding({arms}), "");
}

}  // namespace
