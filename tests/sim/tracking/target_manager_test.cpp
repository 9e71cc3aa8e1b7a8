// The target manager: Namer ids and event names, what the world publishes, errors.

#include <string>
#include <vector>

#include <kr/error.h>
#include <krsim/tracking/target_manager.h>

#include "support/error_of.h"

#include "sim/tracking/tracking_fixture.h"

namespace {

using namespace krtest;

class TargetManagerTest : public TrackingTest {
 protected:
  void SetUp() override {
    build();
    manager = proxy(kTargetManagerModule);
  }
  void add(const std::string& kind, const KRValue& params = {}) {
    manager->call("addTarget", kind, params);
  }
  std::vector<int> ids(const std::string& kind) {
    return manager->call<std::vector<int>>("getTargetIds", kind);
  }
  std::shared_ptr<KR::KRProxy> manager;
};

TEST_F(TargetManagerTest, ReservesNamerIdsAndPublishesUnderTheirNames) {
  add(Target::TargetRedBall, KRValue(0.06f));
  add(Target::TargetLandMarks, KRValue{80, 81});
  EXPECT_EQ(ids(Target::TargetRedBall), std::vector<int>{10});
  EXPECT_EQ(ids(Target::TargetLandMarks), (std::vector<int>{50, 51}));
  EXPECT_THROW(Namer::getInstance().getId(51), KR::KRError);  // taken by the manager

  manager->call("setActiveTarget", std::string(Target::TargetLandMarks));
  EXPECT_EQ(manager->call<std::string>("getEventName"), "KRTracker/ObjectConverter50");
  EXPECT_EQ(manager->call<std::string>("getSecondEventName"), "KRTracker/ObjectConverter51");
  const auto direct = module<KR::Sim::TargetManager>(kTargetManagerModule);
  EXPECT_EQ(direct->kindOfEvent("KRTracker/ObjectConverter51"), Target::TargetLandMarks);
  EXPECT_EQ(direct->getTargetParams(Target::TargetLandMarks), (KRValue{80, 81}));

  // Nothing is published before "start", every registered target after, nothing once stopped.
  EXPECT_TRUE(sim->world().publishing().empty());
  manager->call("start");
  const auto published = sim->world().publishing();
  ASSERT_EQ(published.size(), 2u);
  EXPECT_EQ(published.at(Target::TargetRedBall),
            std::vector<std::string>{"KRTracker/ObjectConverter10"});
  EXPECT_EQ(published.at(Target::TargetLandMarks).size(), 2u);
  add(Target::TargetFace);
  EXPECT_EQ(sim->world().publishing().count(Target::TargetFace), 1u);
  manager->call("stopManager");
  EXPECT_TRUE(sim->world().publishing().empty());

  // Removing gives the ids back and forgets the active target.
  manager->call("removeTarget", std::string(Target::TargetLandMarks));
  EXPECT_EQ(Namer::getInstance().getId(51), "KRTracker/ObjectConverter51");
  Namer::getInstance().releaseId(51);
  EXPECT_EQ(manager->call<std::string>("getEventName"), "");
  EXPECT_EQ(manager->call<std::vector<std::string>>("getRegisteredTargets"),
            (std::vector<std::string>{Target::TargetFace, Target::TargetRedBall}));
  manager->call("removeAllTargets");
  EXPECT_FALSE(manager->call<bool>("isTargetManaged", std::string(Target::TargetRedBall)));
  EXPECT_EQ(Namer::getInstance().getId(10), "KRTracker/ObjectConverter10");
  Namer::getInstance().releaseId(10);
}

TEST_F(TargetManagerTest, AnIdTakenElsewhereMovesTheTargetOnByAHundred) {
  Namer::getInstance().getId(20);
  add(Target::TargetFace);
  EXPECT_EQ(ids(Target::TargetFace), std::vector<int>{120});
  Namer::getInstance().releaseId(20);
}

TEST_F(TargetManagerTest, ARawEventReplacesTheActiveTarget) {
  add(Target::TargetRedBall);
  manager->call("setActiveTarget", std::string(Target::TargetRedBall));
  manager->call("setActiveEvent", std::string("Custom/Event"));
  EXPECT_EQ(manager->call<std::string>("getEventName"), "Custom/Event");
  EXPECT_EQ(manager->call<std::string>("getSecondEventName"), "");
}

TEST_F(TargetManagerTest, RefusesWhatItCannotDo) {
  const std::string unsupported =
      "Unsupported target: \"Cat\". Could be: RedBall, Face, People, Sound, LandMarks.";
  const struct {
    std::string method;
    std::vector<KRValue> args;
    std::string message;
  } cases[] = {
      {"addTarget", {"Cat", KRValue()}, unsupported},
      {"setActiveTarget", {"Face"}, "Target \"Face\" is not registered."},
      {"removeTarget", {"Face"}, "Target \"Face\" is not registered."},
      {"setActiveEvent", {""}, "The event name is empty."},
      {"setExtractorPeriod", {"Face", 0}, "The period must be strictly positive, not 0 ms."},
      {"getExtractorPeriod", {"Cat"}, unsupported},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.method);
    const KR::KRError e = krtest::krErrorOf([&] { manager->callValues(c.method, c.args); });
    EXPECT_EQ(e.module(), kTargetManagerModule);
    EXPECT_EQ(e.method(), c.method);
    EXPECT_EQ(e.message(), c.message);
  }
}

TEST_F(TargetManagerTest, ExtractorPeriodsAreTheWorldsObservationPeriods) {
  EXPECT_EQ(manager->call<int>("getExtractorPeriod", std::string(Target::TargetSound)),
            KR::Sim::World::defaultPeriodMs(Target::TargetSound));
  manager->call("setExtractorPeriod", std::string(Target::TargetFace), 120);
  EXPECT_EQ(sim->world().getPeriodMs(Target::TargetFace), 120);
  EXPECT_EQ(manager->call<int>("getExtractorPeriod", std::string(Target::TargetFace)), 120);
}

TEST_F(TargetManagerTest, ActiveTargetPositionIsTheLastObservationInTheTorsoFrame) {
  const Position3D ball(1.2f, 0.3f, 0.1f);
  addTarget("ball", Target::TargetRedBall, ball);
  add(Target::TargetRedBall);
  manager->call("setActiveTarget", std::string(Target::TargetRedBall));
  EXPECT_TRUE(manager->call<std::vector<float>>("getActiveTargetPosition").empty());
  manager->call("start");
  sim->runFor(0.2);
  const auto p = manager->call<std::vector<float>>("getActiveTargetPosition");
  ASSERT_EQ(p.size(), 3u);
  const Position3D expected = KR::Math::pinv(sim->motion().getMapToTorso()) * ball;
  EXPECT_NEAR(p[0], expected.x, 1e-4);
  EXPECT_NEAR(p[1], expected.y, 1e-4);
  EXPECT_NEAR(p[2], expected.z, 1e-4);
}

}  // namespace
