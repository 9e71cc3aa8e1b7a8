// The measures on hand-made series whose figures are known in advance.

#include <cmath>

#include <gtest/gtest.h>

#include <krsim/measures.h>

namespace {

using KR::Sim::MeasureSample;
using KR::Sim::PhaseMeter;
using KR::Sim::PhaseSetup;

MeasureSample seen(double t, double horizontalDeg) {
  MeasureSample s;
  s.time = t;
  s.inView = s.perceived = s.hasLineOfSight = true;
  s.horizontalDeg = horizontalDeg;
  s.lineOfSightDeg = std::fabs(horizontalDeg);
  return s;
}

// The target jumps 20 degrees to the left at 10 s: the error closes linearly over 0.5 s,
// swings 4 degrees past the target, comes back and stays within 1 degree from 11.00 s on.
TEST(MeasuresTest, StepGivesOvershootSettlingAndTimeToOnTarget) {
  PhaseMeter meter({"step", 10.0, 3.0, true, true});
  for (int i = 1; i <= 300; ++i) {
    const double t = 10.0 + 0.01 * i;
    double e = 0.0;
    if (t <= 10.5 + 1e-9) {
      e = 20.0 * (1.0 - (t - 10.0) / 0.5);  // 20 -> 0
    } else if (t <= 10.7 + 1e-9) {
      e = -4.0 * std::sin((t - 10.5) / 0.2 * 1.5707963);  // to -4
    } else if (t < 11.0 - 1e-9) {
      e = -4.0 + 2.8 * (t - 10.7) / 0.3;  // back toward -1.2
    } else {
      e = -0.5;
    }
    meter.add(seen(t, e));
  }
  const auto m = meter.result();
  ASSERT_TRUE(m.overshootDeg && m.settlingS && m.timeToOnTargetS);
  EXPECT_NEAR(*m.overshootDeg, 4.0, 1e-3);
  EXPECT_NEAR(*m.settlingS, 1.0, 0.011);
  // Under 3 degrees from 10.43 s: 17 / 20 of the way in 0.5 s.
  EXPECT_NEAR(*m.timeToOnTargetS, 0.43, 0.011);
  EXPECT_NEAR(*m.losMaxDeg, 19.6, 1e-9);  // the first sample is already a step in
}

// A steady 2 degree offset with +-0.5 degree alternating on it: bias 2, jitter 0.5, the RMS
// their quadratic sum, the 95th percentile the upper value; on target all the time.
TEST(MeasuresTest, BiasAndJitterAreSeparated) {
  PhaseMeter meter({"steady", 0.0, 3.0, true, false});
  for (int i = 1; i <= 1000; ++i)
    meter.add(seen(0.01 * i, i % 2 ? 2.5 : 1.5));
  const auto m = meter.result();
  EXPECT_NEAR(*m.losBiasDeg, 2.0, 1e-9);
  EXPECT_NEAR(*m.losJitterDeg, 0.5, 1e-9);
  EXPECT_NEAR(*m.losRmsDeg, std::sqrt(4.25), 1e-9);
  EXPECT_NEAR(*m.losP95Deg, 2.5, 1e-9);
  EXPECT_DOUBLE_EQ(*m.losMaxDeg, 2.5);
  EXPECT_DOUBLE_EQ(*m.onTargetPct, 100.0);
  EXPECT_NEAR(*m.timeToOnTargetS, 0.01, 1e-9);
  EXPECT_FALSE(m.overshootDeg || m.settlingS || m.armsRmsDeg);  // not a step, no arms
}

// On target for 2 s, hidden from 2 s to 5 s (the tracker reports the loss at 3 s), searched
// for out of view until 7 s, on target again from 7.5 s: 5.5 s counted from the loss, not the
// 0.5 s from re-detection. Line of sight counts every sample in view, hidden ones included.
TEST(MeasuresTest, TimeToOnTargetCountsFromTheLossWithTheSearch) {
  PhaseMeter meter({"lost", 0.0, 3.0, true, false});
  for (int i = 1; i <= 1000; ++i) {
    const double t = 0.01 * i;
    MeasureSample s = seen(t, 1.0);
    if (t > 2.0 && t <= 5.0) {
      s.perceived = false;
      s.inView = t <= 4.0;
      s.horizontalDeg = s.lineOfSightDeg = 10.0;
    } else if (t > 5.0 && t <= 7.5) {
      s.inView = s.perceived = t > 7.0;
      s.lineOfSightDeg = 40.0;
    }
    s.trackerLost = t > 3.0 && t <= 7.2;
    meter.add(s);
  }
  meter.addEvent("KRTracker/TargetLost");
  meter.addEvent("KRTracker/TargetDetected");
  meter.addEvent("KRTracker/TargetLost");
  const auto m = meter.result();
  EXPECT_NEAR(*m.timeToOnTargetS, 5.5, 1e-6);
  EXPECT_NEAR(*m.losMaxDeg, 40.0, 1e-9);
  EXPECT_NEAR(*m.onTargetPct, 100.0 * (200 + 250) / 1000, 1e-9);
  ASSERT_EQ(m.events.size(), 2u);
  EXPECT_EQ(m.events[0].second, 2u);

  // A loss that never ends leaves the time to on-target unknown, not the earlier one.
  PhaseMeter never({"gone", 0.0, 3.0, true, false});
  never.add(seen(0.01, 0.5));
  MeasureSample gone = seen(0.02, 0.5);
  gone.perceived = gone.inView = false;
  never.add(gone);
  EXPECT_FALSE(never.result().timeToOnTargetS);
}

TEST(MeasuresTest, ArmsOnlyPhasesHaveNoLineOfSightFiguresAndSeedsAggregate) {
  PhaseMeter meter({"point", 0.0, 3.0, false, false});
  MeasureSample s = seen(0.01, 10.0);
  s.armDeg = {3.0, 4.0};
  meter.add(s);
  const auto m = meter.result();
  EXPECT_NEAR(*m.armsRmsDeg, std::sqrt(12.5), 1e-9);
  EXPECT_FALSE(m.losRmsDeg || m.timeToOnTargetS || m.onTargetPct);

  std::vector<std::optional<double>> seeds;
  for (int i = 1; i <= 20; ++i)
    seeds.push_back(static_cast<double>(i));
  seeds.push_back(std::nullopt);
  const auto [mean, p95] = KR::Sim::meanAndP95(seeds);
  EXPECT_DOUBLE_EQ(*mean, 10.5);
  EXPECT_DOUBLE_EQ(*p95, 19.0);
  EXPECT_FALSE(KR::Sim::meanAndP95({std::nullopt}).first);
}

}  // namespace
