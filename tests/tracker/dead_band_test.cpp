// The dead bands of the head and of the arms, as one table: each row drives one chain through
// steps (a target through look-at or point-at, or angles through applyThreshold) and checks the
// answer, which remembered angles moved, and the lists (the head in place, an arm appended).

#include <algorithm>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <kr/model/trackermodel.h>
#include <krtracker/config/krgenerictrackerconfig.h>
#include <krtracker/tools/tools.h>

#include "geometry_test_util.h"

namespace {

using namespace geomtest;
using KR::Model::TrackerArmAngle, KR::Model::TrackerHeadAngle;

constexpr KR::Model::TRACK_EFFECTOR kTop = KR::Model::TRACK_EFFECTOR_CAMERA_TOP;

enum class Chain { Head, LeftArm, RightArm };

struct Step {
  enum Input { Target, AtTheHead, Angles };
  Input input;
  Position3D target;  // torso frame, for Target
  Floats proposed;    // for Angles: yaw and pitch, or the five arm angles
  KRValue threshold;  // head: the argument; arm: ARMS_THRESHOLD in the table (Target), else the
                      // argument
  bool changed;       // the answer
  std::vector<bool> moved;  // per remembered angle: took the new value; else kept its own
};

Step target(Position3D at, KRValue threshold, bool changed, std::vector<bool> moved) {
  return {Step::Target, at, {}, std::move(threshold), changed, std::move(moved)};
}
Step angles(Floats proposed, float threshold, bool changed, std::vector<bool> moved) {
  return {Step::Angles, {}, std::move(proposed), KRValue(threshold), changed, std::move(moved)};
}

struct DeadBandCase {
  std::string name;
  std::string robotFile;
  Chain chain;
  Names jointNames;   // what the lists receive, in order
  Floats remembered;  // the remembered command before the first step
  Names names;        // the lists before the first step
  Floats angles;
  std::vector<Step> steps;
};

DeadBandCase row(std::string name, std::string robotFile, Chain chain, Names jointNames,
                 Floats remembered, Names names, Floats angles, std::vector<Step> steps) {
  return {std::move(name),       std::move(robotFile),  chain,
          std::move(jointNames), std::move(remembered), std::move(names),
          std::move(angles),     std::move(steps)};
}

std::ostream& operator<<(std::ostream& out, const DeadBandCase& c) {
  return out << c.name;
}

const Names kHeadJoints{"HeadYaw", "HeadPitch"};
const Names kLeftArmJoints{"LShoulderPitch", "LShoulderRoll", "LElbowYaw", "LElbowRoll",
                           "LWristYaw"};
const Names kRightArmJoints{"RShoulderPitch", "RShoulderRoll", "RElbowYaw", "RElbowRoll",
                            "RWristYaw"};
const Names kRoverLeftArmJoints{"LShoulderPitch", "LShoulderRoll", "LElbowYaw", "LElbowRoll"};
const std::vector<bool> kAll{true, true, true, true, true};
const std::vector<bool> kNone{false, false, false, false, false};

const DeadBandCase kCases[] = {
    row("HeadAtZeroEveryCallIsAChangeAndNoSolutionLeavesAllAlone", "kibo.xml", Chain::Head,
        kHeadJoints, {0.0f, 0.0f}, {"", ""}, {0.0f, 0.0f},
        {target({1.0f, 0.4f, 0.1f}, 0.0f, true, kAll),
         target({1.0f, 0.4f, 0.1f}, 0.0f, true, kAll),  // unchanged, still a change at 0
         target({1.0f, 0.4001f, 0.1f}, 0.0f, true, kAll),
         {Step::AtTheHead, {}, {}, KRValue(0.0f), false, kNone}}),
    row("HeadWithinTheBandKeepsTheCommandAndBeyondItMovesOnlyThatAxis", "kibo.xml", Chain::Head,
        kHeadJoints, {0.0f, 0.0f}, {"", ""}, {0.0f, 0.0f},
        {target({1.0f, 0.4f, 0.1f}, 0.0f, true, kAll),
         target({1.0f, 0.42f, 0.12f}, 0.2f, false, kNone),
         target({0.2f, 1.0f, 0.12f}, 0.2f, true, {true, false})}),
    row("HeadApplyThresholdWritesTheFirstTwoEntriesInPlace", "rover.xml", Chain::Head, kHeadJoints,
        {0.1f, 0.2f}, {"x", "y", "z"}, {9.0f, 9.0f, 9.0f},
        {angles({0.12f, 0.17f}, 0.05f, false, kNone),
         angles({0.1f, 0.3f}, 0.05f, true, {false, true})}),
    row("ArmAtZeroEveryCallIsAChangeAppendedAfterTheLists", "kibo.xml", Chain::LeftArm,
        kLeftArmJoints, {0.0f, 0.0f, 0.0f, 0.0f, 0.0f}, {"Head"}, {0.0f},
        {target({0.7f, 0.3f, 0.2f}, 0.0f, true, kAll),
         target({0.7f, 0.3f, 0.2f}, 0.0f, true, kAll)}),  // unchanged, still a change at 0
    row("ArmThresholdIsReadOnEveryCallAndMayBeAnInt", "kibo.xml", Chain::RightArm, kRightArmJoints,
        {0.0f, 0.0f, 0.0f, 0.0f, 0.0f}, {}, {},
        {target({0.7f, 0.3f, 0.2f}, 0.0f, true, kAll),
         target({0.7f, 0.32f, 0.22f}, 0.5f, false, kNone),  // well inside a wide band
         target({0.7f, 0.32f, 0.22f}, KRValue(0), true, kAll)}),
    row("ArmWithoutWristAppendsFourAndIgnoresTheFifthAngle", "rover.xml", Chain::LeftArm,
        kRoverLeftArmJoints, {0.1f, 0.2f, 0.3f, 0.4f, 0.5f}, {}, {},
        {angles({0.11f, 0.21f, 0.31f, 0.41f, 2.0f}, 0.1f, false, kNone),  // only the absent wrist
         angles({0.11f, 0.21f, 0.9f, 0.41f, 0.5f}, 0.1f, true,
                {false, false, true, false, false})}),
};

/// One chain of a robot and its dead band, with the remembered command as plain floats.
class ChainUnderTest {
 public:
  ChainUnderTest(const std::string& robotFile, Chain chain)
      : fModel(loadModel(robotFile)),
        fChain(chain),
        fArm(chain == Chain::RightArm ? &fModel.rightArm : &fModel.leftArm) {}

  bool step(const Step& s, Floats& remembered, Names& names, Floats& angles) {
    if (fChain == Chain::Head) {
      TrackerHeadAngle head;
      head.yaw = remembered[0], head.pitch = remembered[1];
      const bool changed = headStep(s, head, names, angles);
      remembered = {head.yaw, head.pitch};
      return changed;
    }
    TrackerArmAngle arm;
    std::copy(remembered.begin(), remembered.end(), arm.angles.begin());
    const bool changed = armStep(s, arm, names, angles);
    remembered.assign(arm.angles.begin(), arm.angles.end());
    return changed;
  }

  /// The angles that the step proposes: the solution for its target, or its angles.
  Floats proposed(const Step& s) const {
    if (s.input == Step::Angles)
      return s.proposed;
    if (s.input == Step::AtTheHead)
      return {};
    if (fChain == Chain::Head) {
      float yaw = 0.0f, pitch = 0.0f;
      EXPECT_TRUE(tools::xComputeLookAtArticular(s.target, fModel.head, kTop, yaw, pitch));
      return {yaw, pitch};
    }
    Floats a(5);
    tools::xComputePointAtAngles(s.target, *fArm, a[0], a[1], a[2], a[3], a[4]);
    return a;
  }

  /// Whether the chain writes over the first entries of the lists (else it appends).
  bool inPlace() const { return fChain == Chain::Head; }

 private:
  bool headStep(const Step& s, TrackerHeadAngle& head, Names& names, Floats& angles) {
    const float threshold = s.threshold.asFloat();
    switch (s.input) {
      case Step::Target:
        return tools::computeLookAtAnglesWithThreshold(s.target, fModel.head, kTop, threshold, head,
                                                       names, angles);
      case Step::AtTheHead:
        return tools::computeLookAtAnglesWithThreshold(fModel.head.headPosition, fModel.head, kTop,
                                                       threshold, head, names, angles);
      case Step::Angles:
        break;
    }
    return tools::applyThreshold(threshold, s.proposed[0], s.proposed[1], fModel.head, head, names,
                                 angles);
  }
  bool armStep(const Step& s, TrackerArmAngle& arm, Names& names, Floats& angles) {
    if (s.input == Step::Target) {
      KR::Tracker::setConfigValue(KR::Tracker::ARMS_THRESHOLD, s.threshold);
      return tools::computePointAtAnglesWithThreshold(s.target, *fArm, arm, names, angles);
    }
    const Floats& p = s.proposed;
    return tools::applyThreshold(s.threshold.asFloat(), p[0], p[1], p[2], p[3], p[4], *fArm, arm,
                                 names, angles);
  }

  const KRTrackerModel fModel;
  const Chain fChain;
  const KR::Model::TrackerArm* fArm;
};

class DeadBand : public ::testing::TestWithParam<DeadBandCase> {
 protected:
  void TearDown() override { KR::Tracker::resetConfig(); }
};

TEST_P(DeadBand, OnlyAnglesBeyondTheBandMoveAndTheListsCarryTheCommand) {
  const DeadBandCase& c = GetParam();
  ChainUnderTest chain(c.robotFile, c.chain);
  Floats remembered = c.remembered;
  Names names = c.names;
  Floats angles = c.angles;
  for (std::size_t i = 0; i < c.steps.size(); ++i) {
    SCOPED_TRACE(::testing::Message() << "step " << i);
    const Step& s = c.steps[i];
    const Floats before = remembered;
    const Floats proposed = chain.proposed(s);
    Names expectedNames = names;
    Floats expectedAngles = angles;
    EXPECT_EQ(chain.step(s, remembered, names, angles), s.changed);
    ASSERT_EQ(remembered.size(), before.size());
    for (std::size_t k = 0; k < remembered.size(); ++k) {
      SCOPED_TRACE(::testing::Message() << "angle " << k);
      EXPECT_EQ(remembered[k], s.moved[k] ? proposed.at(k) : before[k]);
    }
    // The lists carry the chain's joints and remembered angles, in place or appended.
    const Floats command(remembered.begin(), remembered.begin() + c.jointNames.size());
    if (chain.inPlace()) {
      std::copy(c.jointNames.begin(), c.jointNames.end(), expectedNames.begin());
      std::copy(command.begin(), command.end(), expectedAngles.begin());
    } else {
      expectedNames.insert(expectedNames.end(), c.jointNames.begin(), c.jointNames.end());
      expectedAngles.insert(expectedAngles.end(), command.begin(), command.end());
    }
    EXPECT_EQ(names, expectedNames);
    EXPECT_EQ(angles, expectedAngles);
  }
}

INSTANTIATE_TEST_SUITE_P(HeadAndArms, DeadBand, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<DeadBandCase>& info) {
                           return info.param.name;
                         });

}  // namespace
