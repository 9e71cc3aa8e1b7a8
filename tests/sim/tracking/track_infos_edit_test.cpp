// The smoother's edits of a target sample: whether an event carries its own head threshold,
// and a sample with another threshold or another pose and time, the rest kept.

#include <chrono>

#include <gtest/gtest.h>

#include <krsim/tracking/track_infos_edit.h>

namespace {

using KR::KRValue;
using KR::Math::Position6D;
using KR::Tracker::types::TrackInfos;

const TrackInfos kSample(Position6D(1.0f, 0.2f, 0.5f, 0.0f, 0.1f, 0.3f), 100, 250000, 1, 1.2f,
                         0.03f);

TEST(TrackInfosEdit, AnEventCarriesAHeadThresholdBeyondTheElementsOfItsLayout) {
  const KRValue pose6{1.0f, 0.0f, 0.4f, 0.0f, 0.0f, 0.0f};
  const KRValue stamp{100, 0};
  const struct {
    const char* name;
    KRValue event;
    bool carries;
  } cases[] = {
      {"world layout, three elements", KRValue{pose6, stamp, 0}, false},
      {"world layout, four", KRValue{pose6, stamp, 0, 0.05f}, true},
      {"torso layout, four", KRValue{KRValue{1.0f, 0.0f, 0.4f}, stamp, 0, 0.06f}, false},
      {"torso layout, five", KRValue{KRValue{1.0f, 0.0f, 0.4f}, stamp, 0, 0.06f, 0.05f}, true},
      {"too short", KRValue{pose6, stamp}, false},
      {"not an array", KRValue(0.05f), false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(KR::Sim::eventCarriesHeadThreshold(c.event), c.carries) << c.name;
  }
}

TEST(TrackInfosEdit, AnotherHeadThresholdKeepsTheRestOfTheSample) {
  const TrackInfos edited = KR::Sim::withHeadThreshold(kSample, 0.07f);
  EXPECT_EQ(edited.getHeadThreshold(), 0.07f);
  EXPECT_EQ(edited.getWorldToObject6D().toVector(), kSample.getWorldToObject6D().toVector());
  EXPECT_EQ(edited.getTimestamp(), kSample.getTimestamp());
  EXPECT_EQ(edited.getTrackEffector(), 1);
  EXPECT_EQ(edited.getDistance(), 1.2f);
  EXPECT_TRUE(edited.isValid());
}

TEST(TrackInfosEdit, AnotherPoseAndTimeKeepTheRestOfTheSampleToTheMicrosecond) {
  const Position6D pose(2.0f, -0.5f, 0.4f, 0.0f, 0.0f, 1.0f);
  const KR::KRTimePoint time{std::chrono::nanoseconds(123456789999)};
  const TrackInfos edited = KR::Sim::withPose(kSample, pose, time);
  EXPECT_EQ(edited.getWorldToObject6D().toVector(), pose.toVector());
  EXPECT_EQ(edited.getTimestamp(), 123456789000);  // whole microseconds
  EXPECT_EQ(edited.getTrackEffector(), 1);
  EXPECT_EQ(edited.getDistance(), 1.2f);
  EXPECT_EQ(edited.getHeadThreshold(), 0.03f);
  EXPECT_TRUE(edited.isValid());
}

}  // namespace
