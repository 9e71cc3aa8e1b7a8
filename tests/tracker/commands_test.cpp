// One-shot look-at and point-at commands of the tracker: validation, the exact requests sent
// to the motion service, suspension of tracking around a command, and remote failures.

#include <algorithm>
#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <kr/math/math.h>
#include <krtracker/tools/tools.h>

#include "geometry_test_util.h"
#include "support/error_of.h"
#include "tracker_fixture.h"

namespace {

using namespace krtest;
using namespace geomtest;

std::string motionCall(const std::string& method, std::vector<KRValue> args, bool posted = false) {
  return formatCall({"KRMotion", method, std::move(args), posted});
}

std::string getTransformCall(KR::Math::FRAME frame) {
  return motionCall("getTransform", {KRValue("Torso"), KRValue(static_cast<int>(frame)), true});
}

// Joint names and angles for the motion service.
using Angles = std::pair<std::vector<std::string>, std::vector<float>>;

std::string speedCall(const Angles& a, float speed, bool arms) {
  return motionCall("_trackerWithSpeed", {KRValue(a.first), KRValue(a.second),
                                          KRValue(std::vector<float>{speed}), false, arms});
}

std::string moveToCall(float bodyAngle, bool posted) {
  return motionCall("moveTo", {0.0f, 0.0f, bodyAngle}, posted);
}

std::vector<std::string> concat(std::vector<std::vector<std::string>> parts) {
  std::vector<std::string> out;
  for (auto& part : parts)
    out.insert(out.end(), part.begin(), part.end());
  return out;
}

class CommandsTest : public TrackerTest {
 protected:
  void SetUp() override {
    TrackerTest::SetUp();
    scriptTorsoRaised(module("KRMotion"));
    module("KRMotion").answer("robotIsWakeUp", true);
    log.clear();
  }

  // What the head or arms must receive, from the library's own geometry.
  Angles lookAngles(const Position3D& p, bool wholeBody, int effector = 0) {
    Angles a;
    EXPECT_TRUE(tools::computeLookAtAngles(p, tracker->fModel,
                                           static_cast<KR::Model::TRACK_EFFECTOR>(effector),
                                           wholeBody, a.first, a.second));
    return a;
  }
  Angles pointAngles(const Position3D& p, const std::vector<const KR::Model::TrackerArm*>& arms) {
    Angles a;
    for (const KR::Model::TrackerArm* arm : arms)
      tools::computePointAtAngles(p, *arm, a.first, a.second);
    return a;
  }
  std::vector<std::string> takeAfterPosted() {
    harness.broker->waitForPostedCalls();
    return take();
  }
};

// ---- validation --------------------------------------------------------------------------------

TEST_F(CommandsTest, InvalidArgumentsAreRefusedBeforeAnyRemoteCall) {
  struct Case {
    const char* what;
    std::function<void()> command;
    std::string message;
  };
  const std::vector<float> ok{1.0f, 0.0f, 0.3f}, one{1}, two{1, 2}, four{1, 2, 3, 4};
  const std::vector<Case> cases = {
      {"2 values", [&] { tracker->lookAt(two, FRAME_TORSO, 0.5f, false); },
       "lookAt: Position is not valid. Must be [x, y, z]."},
      {"4 values, effector form", [&] { tracker->lookAt(four, FRAME_TORSO, 0, 0.5f, false); },
       "lookAt: Position is not valid. Must be [x, y, z]."},
      {"effector 3", [&] { tracker->lookAt(ok, FRAME_TORSO, 3, 0.5f, false); },
       "lookAt: EffectorId is not valid."},
      {"effector -1", [&] { tracker->lookAt(ok, FRAME_TORSO, -1, 0.5f, true); },
       "lookAt: EffectorId is not valid."},
      {"fraction 0", [&] { tracker->lookAt(ok, FRAME_TORSO, 0.0f, false); },
       "lookAt: Expected a fraction for pFractionMaxSpeed."},
      {"fraction above 1", [&] { tracker->lookAt(ok, FRAME_WORLD, 2, 1.5f, true); },
       "lookAt: Expected a fraction for pFractionMaxSpeed."},
      {"lookAtAndMove 1 value", [&] { tracker->lookAtAndMove(one, 0.5f, false, true); },
       "lookAt: Position is not valid. Must be [x, y, z] in FRAME_TORSO."},
      {"lookAtAndMove fraction", [&] { tracker->lookAtAndMove(ok, -1.0f, false, true); },
       "lookAt: Expected a fraction for pFractionMaxSpeed."},
      {"pointAt 2 values", [&] { tracker->pointAt("LArm", two, FRAME_TORSO, 0.5f); },
       "pointAt: Position is not valid could be [x, y, z] in FRAME_TORSO."},
      {"pointAt fraction", [&] { tracker->pointAt("Arms", ok, FRAME_TORSO, 0.0f); },
       "pointAt: Expected a fraction for pFractionMaxSpeed."},
      {"robot cannot point",
       [&] {
         tracker->fCanPointAt = false;
         tracker->pointAt("LArm", ok, FRAME_TORSO, 0.5f);
       },
       "pointAt: is not possible with this robot."},
  };
  // An unknown arm is refused too.
  EXPECT_THROW(tracker->pointAt("Head", ok, FRAME_TORSO, 0.5f), std::runtime_error);
  for (const Case& c : cases) {
    EXPECT_EQ(errorOf(c.command), "KRTracker.GenericTracker::" + c.message) << c.what;
    EXPECT_TRUE(take().empty()) << c.what;
  }
}

// ---- looking -----------------------------------------------------------------------------------

TEST_F(CommandsTest, HeadOnlyAndWholeBodyLooks) {
  const std::vector<float> point{1.0f, 0.2f, 0.3f};
  const Position3D torsoPoint(point);

  tracker->lookAt(point, FRAME_TORSO, 0.5f, false);
  const auto head = lookAngles(torsoPoint, false);
  EXPECT_EQ(take(), (Calls{getTransformCall(FRAME_TORSO), speedCall(head, 0.5f, false)}));

  // The effector form uses the given sensor.
  tracker->lookAt(point, FRAME_TORSO, 1, 0.25f, false);
  const auto bottom = lookAngles(torsoPoint, false, 1);
  EXPECT_NE(bottom.second, head.second);
  EXPECT_EQ(take(), (Calls{getTransformCall(FRAME_TORSO), speedCall(bottom, 0.25f, false)}));

  // The whole body works in the robot frame and sends the pitch first.
  tracker->lookAt(point, FRAME_TORSO, 0.5f, true);
  const auto wb = lookAngles(torsoPoint + Position3D(0, 0, kTorsoHeight), true);
  EXPECT_EQ(take(), (Calls{getTransformCall(FRAME_ROBOT),
                           motionCall("_lookAtWb", {wb.second[1], wb.second[0]})}));
}

TEST_F(CommandsTest, LookingBehindTurnsFirstBlockingForTheWholeBodyPostedForTheHead) {
  const std::vector<float> point{-1.0f, 0.5f, 0.2f};
  const KR::Model::TrackerHead& h = tracker->fModel.head;

  // Whole body: the turn is awaited before the look.
  {
    Position3D p = Position3D(point) + Position3D(0, 0, kTorsoHeight);
    float bodyAngle = 0.0f;
    ASSERT_TRUE(tools::computeAngleLookBehind(h.yaw.min, h.yaw.max, p, bodyAngle));
    const auto wb = lookAngles(p, true);
    tracker->lookAtAndMove(point, 0.5f, true, true);
    EXPECT_EQ(takeAfterPosted(), (Calls{getTransformCall(FRAME_ROBOT), moveToCall(bodyAngle, false),
                                        motionCall("_lookAtWb", {wb.second[1], wb.second[0]})}));
  }
  // Head only: the turn is posted and the head command follows at once.
  {
    Position3D p(point);
    float bodyAngle = 0.0f;
    ASSERT_TRUE(tools::computeAngleLookBehind(h.yaw.min, h.yaw.max, p, bodyAngle));
    const auto head = lookAngles(p, false);
    tracker->lookAtAndMove(point, 0.8f, false, true);
    EXPECT_EQ(takeAfterPosted(), (Calls{getTransformCall(FRAME_TORSO), moveToCall(bodyAngle, true),
                                        speedCall(head, 0.8f, false)}));
  }
}

TEST_F(CommandsTest, NoTurnWithoutPermission) {
  const std::vector<float> point{-1.0f, 0.5f, 0.2f};
  const auto head = lookAngles(Position3D(point), false);
  const Calls expected{getTransformCall(FRAME_TORSO), speedCall(head, 0.5f, false)};

  tracker->lookAt(point, FRAME_TORSO, 0.5f, false);  // lookAt never turns
  EXPECT_EQ(takeAfterPosted(), expected);
  tracker->lookAtAndMove(point, 0.5f, false, false);  // turning not allowed by the caller
  EXPECT_EQ(takeAfterPosted(), expected);
  tracker->fCanLookBehind = false;  // nor by the robot
  tracker->lookAtAndMove(point, 0.5f, false, true);
  EXPECT_EQ(takeAfterPosted(), expected);
}

TEST_F(CommandsTest, ARobotThatIsNotAwakeGetsNoCommand) {
  tracker->fCanNavigate = true;
  const std::vector<float> point{1.0f, 0.2f, 0.3f};
  const auto head = lookAngles(Position3D(point), false);

  tracker->lookAt(point, FRAME_TORSO, 0.5f, false);
  EXPECT_EQ(take(), (Calls{getTransformCall(FRAME_TORSO), motionCall("robotIsWakeUp", {}),
                           speedCall(head, 0.5f, false)}));

  module("KRMotion").answer("robotIsWakeUp", false);
  tracker->lookAt(point, FRAME_TORSO, 0.5f, false);
  tracker->pointAt("LArm", point, FRAME_TORSO, 0.5f);
  EXPECT_EQ(take(), (Calls{getTransformCall(FRAME_TORSO), motionCall("robotIsWakeUp", {}),
                           getTransformCall(FRAME_TORSO), motionCall("robotIsWakeUp", {})}));
  EXPECT_TRUE(records().empty());
}

TEST_F(CommandsTest, AnUnsolvableLookSendsNothingAndKeepsTracking) {
  startTracking();
  tracker->lookAt(tracker->fModel.head.headPosition.toVector(), FRAME_TORSO, 0.5f, false);
  EXPECT_EQ(take(), (Calls{getTransformCall(FRAME_TORSO)}));
  EXPECT_EQ(records(), (Records{rec(Level::verbose, "xLookAt", "computeLookAtAngles fail.")}));
  EXPECT_TRUE(tracker->isActive());
}

// ---- pointing ----------------------------------------------------------------------------------

TEST_F(CommandsTest, PointingSendsTheChosenArmsLeftFirst) {
  const std::vector<float> point{0.8f, 0.1f, 0.3f};
  const KR::Model::TrackerArm* left = &tracker->fModel.leftArm;
  const KR::Model::TrackerArm* right = &tracker->fModel.rightArm;
  struct Case {
    const char* effector;
    std::vector<const KR::Model::TrackerArm*> arms;
  };
  const Case cases[] = {{"Arms", {left, right}}, {"LArm", {left}}, {"RArm", {right}}};
  for (const Case& c : cases) {
    tracker->pointAt(c.effector, point, FRAME_TORSO, 0.6f);
    const auto arms = pointAngles(Position3D(point), c.arms);
    EXPECT_EQ(take(), (Calls{getTransformCall(FRAME_TORSO), speedCall(arms, 0.6f, true)}))
        << c.effector;
  }
  // Both arms: ten joints in one request, the left arm's first.
  EXPECT_EQ(pointAngles(Position3D(point), {left, right}).first.front(), "LShoulderPitch");
  EXPECT_EQ(pointAngles(Position3D(point), {left, right}).first.size(), 10u);
}

TEST_F(CommandsTest, PointingBehindTurnsByTheWholeBearingWhenTheRobotCan) {
  const std::vector<float> point{-0.5f, 0.3f, 0.2f};
  const float bodyAngle = std::atan2(0.3f, -0.5f);
  tracker->pointAt("RArm", point, FRAME_TORSO, 0.5f);

  // After the turn the point is straight ahead, at the same distance and height.
  const float range = std::hypot(0.5f, 0.3f);
  const auto arm = pointAngles({range, 0.0f, 0.2f}, {&tracker->fModel.rightArm});
  const std::vector<KR::KRCallRecord> sent = harness.recorder->records();
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_EQ(formatCall(sent[0]), getTransformCall(FRAME_TORSO));
  EXPECT_EQ(formatCall(sent[1]), moveToCall(bodyAngle, false));
  // The rotated point carries float rounding: compare the angles, not the text.
  EXPECT_EQ(sent[2].method, "_trackerWithSpeed");
  ASSERT_EQ(sent[2].args.size(), 5u);
  EXPECT_EQ(sent[2].args[0], KRValue(arm.first));
  EXPECT_EQ(sent[2].args[2], KRValue(std::vector<float>{0.5f}));
  EXPECT_EQ(sent[2].args[3], KRValue(false));
  EXPECT_EQ(sent[2].args[4], KRValue(true));
  ASSERT_EQ(sent[2].args[1].size(), arm.second.size());
  for (std::size_t i = 0; i < arm.second.size(); ++i)
    EXPECT_NEAR(sent[2].args[1][i].asFloat(), arm.second[i], 1e-5f) << i;
}

TEST_F(CommandsTest, PointingBehindARobotThatCannotTurnOnlyWarns) {
  tracker->fCanLookBehind = false;
  tracker->pointAt("RArm", {-0.2f, 0.0f, 0.0f}, FRAME_TORSO, 0.5f);
  EXPECT_EQ(take(), (Calls{getTransformCall(FRAME_TORSO)}));
  EXPECT_EQ(records(), (Records{rec(Level::warning, "xPointAt",
                                    "pointAt: x position must be strictly positive for "
                                    "this robot. Given target: -0.2 0 0")}));

  // x exactly 0 is not behind.
  tracker->pointAt("RArm", {0.0f, -0.3f, 0.1f}, FRAME_TORSO, 0.5f);
  const auto arm = pointAngles({0.0f, -0.3f, 0.1f}, {&tracker->fModel.rightArm});
  EXPECT_EQ(take(), (Calls{getTransformCall(FRAME_TORSO), speedCall(arm, 0.5f, true)}));
}

// ---- tracking around a command -----------------------------------------------------------------

TEST_F(CommandsTest, ACommandDuringTrackingSuspendsTheLookerAndRestarts) {
  startTracking("Face");
  const std::vector<float> point{1.0f, -0.2f, 0.1f};
  const auto head = lookAngles(Position3D(point), false);
  const auto arms = pointAngles(Position3D(point), {&tracker->fModel.leftArm});

  tracker->lookAt(point, FRAME_TORSO, 0.5f, false);
  const Calls look = take();
  tracker->pointAt("LArm", point, FRAME_TORSO, 0.5f);
  const Calls pointing = take();

  // The same steps run on their own give the sequences expected around each command.
  tracker->xStopHeadTracking();
  const Calls stopHead = take();
  tracker->restart();
  const Calls restart = take();
  tracker->xStopArmLooker();
  const Calls stopArms = take();
  tracker->restart();
  const Calls restartAfterArms = take();
  ASSERT_NE(std::find(stopHead.begin(), stopHead.end(), "_HeadLooker.stopLooker()"),
            stopHead.end());
  ASSERT_NE(std::find(stopArms.begin(), stopArms.end(), "_ArmsLooker.stopLooker()"),
            stopArms.end());
  ASSERT_NE(std::find(restart.begin(), restart.end(), "_KRTargetManager.setActiveTarget(\"Face\")"),
            restart.end());

  EXPECT_EQ(
      look,
      concat({{getTransformCall(FRAME_TORSO)}, stopHead, {speedCall(head, 0.5f, false)}, restart}));
  EXPECT_EQ(pointing, concat({{getTransformCall(FRAME_TORSO)},
                              stopArms,
                              {speedCall(arms, 0.5f, true)},
                              restartAfterArms}));
  EXPECT_TRUE(tracker->isActive());
  EXPECT_EQ(tracker->getActiveTarget(), "Face");
}

// ---- remote failures ---------------------------------------------------------------------------

TEST_F(CommandsTest, RemoteFailuresAreLoggedAndTrackingStillRestarts) {
  startTracking("Face");
  module("KRMotion").throwOn("_trackerWithSpeed", "head busy");
  EXPECT_NO_THROW(tracker->lookAt({1, 0, 0}, FRAME_TORSO, 0.5f, false));
  EXPECT_NO_THROW(tracker->pointAt("Arms", {1, 0, 0}, FRAME_TORSO, 0.5f));
  const Calls calls = take();
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "_KRTargetManager.setActiveTarget(\"Face\")"),
            2);

  // A failed turn does not prevent the look.
  module("KRMotion").reset("_trackerWithSpeed");
  module("KRMotion").throwOn("moveTo", "cannot turn");
  EXPECT_NO_THROW(tracker->lookAtAndMove({-1, 0.5f, 0.2f}, 0.5f, true, true));
  EXPECT_NO_THROW(tracker->pointAt("LArm", {-0.5f, 0.3f, 0.2f}, FRAME_TORSO, 0.5f));
  const std::vector<KR::KRCallRecord> sent = harness.recorder->records();
  EXPECT_EQ(std::count_if(sent.begin(), sent.end(),
                          [](const KR::KRCallRecord& r) {
                            return r.method == "_lookAtWb" || r.method == "_trackerWithSpeed";
                          }),
            2);

  // A failure asking the wake state skips the command.
  tracker->fCanNavigate = true;
  module("KRMotion").throwOn("robotIsWakeUp", "no state");
  take();
  EXPECT_NO_THROW(tracker->pointAt("RArm", {1, 0, 0}, FRAME_TORSO, 0.5f));
  for (const std::string& c : take())
    EXPECT_EQ(c.find("_trackerWithSpeed"), std::string::npos) << c;

  Records errors;
  for (const ko::log::Record& r : records())
    if (r.location == "xLookAt" || r.location == "xPointAt")
      errors.push_back(r);
  EXPECT_EQ(errors, (Records{rec(Level::error, "xLookAt", "head busy"),
                             rec(Level::error, "xPointAt", "head busy"),
                             rec(Level::error, "xLookAt", "cannot turn"),
                             rec(Level::error, "xPointAt", "cannot turn"),
                             rec(Level::error, "xPointAt", "no state")}));
}

}  // namespace
