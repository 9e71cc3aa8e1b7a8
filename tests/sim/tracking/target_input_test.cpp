// TargetInput: the latest target sample of one KRMemory event while it is fresh.

#include <chrono>
#include <memory>

#include <gtest/gtest.h>

#include <krsim/robot/clock.h>
#include <krsim/robot/memory.h>
#include <krsim/tracking/target_input.h>
#include <krtracker/types/types/trackinfos.h>

namespace {

using namespace std::chrono_literals;
using KR::KRValue;
using KR::Sim::SimClock, KR::Sim::SimMemory, KR::Sim::TargetInput;
using KR::Tracker::types::TrackInfos;

class TargetInputTest : public ::testing::Test {
 protected:
  /// A valid sample at x [m].
  static KRValue sampleAt(float x) {
    return TrackInfos(KR::Math::Position6D(x, 0.0f, 0.5f, 0.0f, 0.0f, 0.0f), 100, 0, 0, x, 0.02f)
        .toKRValue();
  }

  std::shared_ptr<SimClock> clock = std::make_shared<SimClock>();
  std::shared_ptr<SimMemory> memory = std::make_shared<SimMemory>(clock);
};

TEST_F(TargetInputTest, KeepsTheLatestSampleWhileItIsAtMostMaxAgeOld) {
  TargetInput input(memory, clock, "Target");
  EXPECT_FALSE(input.fresh(clock->now(), 50ms));  // nothing yet
  memory->raiseEvent("Target", sampleAt(1.0f));
  clock->advance(10ms);
  memory->raiseEvent("Target", sampleAt(2.0f));
  const KR::KRTimePoint received = clock->now();
  clock->advance(50ms);
  const auto sample = input.fresh(clock->now(), 50ms);
  ASSERT_TRUE(sample);
  EXPECT_EQ(sample->info.getWorldToObject3D().x, 2.0f);
  EXPECT_EQ(sample->received, received);
  EXPECT_FALSE(input.fresh(clock->now() + 1ns, 50ms));  // one nanosecond too old
  input.clear();
  EXPECT_FALSE(input.fresh(clock->now(), 50ms));
}

TEST_F(TargetInputTest, DropsPayloadsThatDoNotParseAndHandsOnNoInvalidSample) {
  TargetInput input(memory, clock, "Target");
  memory->raiseEvent("Target", sampleAt(1.0f));
  memory->raiseEvent("Target", KRValue("not a sample"));
  const auto sample = input.fresh(clock->now(), 50ms);
  ASSERT_TRUE(sample);
  EXPECT_EQ(sample->info.getWorldToObject3D().x, 1.0f);
  memory->raiseEvent("Target", TrackInfos().toKRValue());  // parses, but is not valid
  EXPECT_FALSE(input.fresh(clock->now(), 50ms));
}

TEST_F(TargetInputTest, UnsubscribesWhenDestroyed) {
  {
    TargetInput input(memory, clock, "Target");
    EXPECT_EQ(memory->subscriberCount("Target"), 1u);
  }
  EXPECT_EQ(memory->subscriberCount("Target"), 0u);
}

}  // namespace
