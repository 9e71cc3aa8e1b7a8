// The arms looker: which targets an arm can point at, and the arms pointing at a target
// within reach and going back to rest outside it.

#include <string>
#include <vector>

#include <kr/error.h>
#include <krsim/tracking/arms_looker.h>

#include "sim/tracking/tracking_fixture.h"

namespace {

using namespace krtest;

class ArmsLookerTest : public TrackingTest {
 protected:
  /// Forearm of an arm against the direction to a map point [deg].
  double pointingDeg(const std::string& arm, const Position3D& mapPoint) {
    const KR::Math::Transform forearm =
        sim->motion().getMapToTorso() * sim->motion().getTorsoToForearm(arm);
    return KR::Math::aimError(forearm, mapPoint) * 180.0 / M_PI;
  }
};

TEST_F(ArmsLookerTest, ArmsAreWithinReachWhenTheyCanPointAtTheTarget) {
  const auto& model = sim->robot().trackerModel();
  struct Case {
    Position3D target;  // torso frame
    bool left;
    bool right;
  };
  const std::vector<Case> cases{
      {{1.0f, 0.0f, 0.0f}, true, true},  // straight ahead
      {{0.8f, 0.6f, 0.3f}, true, true},  // ahead, to the left, up
      // Far to the left: the left shoulder cannot roll so far and its elbow only bends inwards,
      // while the right arm reaches across with its elbow.
      {{0.1f, 1.0f, 0.0f}, false, true},
      {{-1.0f, 0.0f, 0.0f}, false, false},  // behind
      {{2.5f, 0.0f, 0.0f}, false, false},   // beyond kMaxReach
      {{0.05f, 0.1f, 0.1f}, false, true},   // at the left shoulder, 0.2 m from the right one
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.target);
    float leftError = 0.0f;
    EXPECT_EQ(KR::Sim::ArmsLooker::isWithinReach(model.leftArm, c.target, &leftError), c.left);
    EXPECT_EQ(KR::Sim::ArmsLooker::isWithinReach(model.rightArm, c.target), c.right);
    if (c.left) {
      EXPECT_LE(leftError, KR::Sim::ArmsLooker::kReachTolerance);
    }
  }
}

TEST_F(ArmsLookerTest, BothArmsPointAtATargetWithinReachAndGoBackToRestOutsideIt) {
  const Position3D at(1.0f, 0.2f, 0.5f);
  addPath("ball", Target::TargetRedBall, Path({{0.0, at}, {2.0, at}, {2.1, {2.8f, 0.2f, 0.5f}}}));
  sim->callTracker("setEffector", std::string("Arms"));
  track(Target::TargetRedBall);
  const auto arms = module<KR::Sim::ArmsLooker>(kArmsLookerModule)->snapshot();
  EXPECT_EQ(arms.effector, "Arms");
  EXPECT_FALSE(arms.wholeBody);
  sim->runFor(1.0);
  EXPECT_LT(pointingDeg("LArm", at), 1.5);
  EXPECT_LT(pointingDeg("RArm", at), 1.5);
  sim->runUntil(3.5);  // now 2.8 m away: out of reach
  const auto& model = sim->robot().trackerModel();
  EXPECT_NEAR(sim->motion().getAngle(model.leftArm.joints[0].name), 1.4f, 1e-3);
  EXPECT_NEAR(sim->motion().getAngle(model.rightArm.joints[0].name), 1.4f, 1e-3);
  EXPECT_THROW(proxy(kArmsLookerModule)->call("setImplParam", KRValue{"Legs", true}), KR::KRError);
}

}  // namespace
