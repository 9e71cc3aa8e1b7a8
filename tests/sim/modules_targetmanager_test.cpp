// The target manager: Namer ids and event names, what the world publishes, errors.

#include <kr/error.h>
#include <kr/target/targets.h>
#include <krsim/modules/targetmanager.h>
#include <krtracker/tools/namer/namer.h>

#include "sim/modules_fixture.h"

namespace {

using KR::KRValue;
using KR::Sim::TargetManager;
using KR::Tracker::Namer;
namespace Target = KR::Tracker::Target;

class TargetManagerTest : public krtest::ModulesTest {
 protected:
  void SetUp() override {
    build();
    manager = module<TargetManager>("_KRTargetManager");
    proxy = sim->broker().getProxy("_KRTargetManager");
  }
  std::shared_ptr<TargetManager> manager;
  std::shared_ptr<KR::KRProxy> proxy;
};

TEST_F(TargetManagerTest, ReservesNamerIdsAndPublishesUnderTheirNames) {
  proxy->call("addTarget", std::string(Target::TargetRedBall), KRValue(0.06f));
  proxy->call("addTarget", std::string(Target::TargetLandMarks), KRValue{80, 81});
  EXPECT_EQ(proxy->call<std::vector<int>>("getTargetIds", std::string(Target::TargetRedBall)),
            std::vector<int>{10});
  EXPECT_EQ(proxy->call<std::vector<int>>("getTargetIds", std::string(Target::TargetLandMarks)),
            (std::vector<int>{50, 51}));
  EXPECT_THROW(Namer::getInstance().getId(51), KR::KRError);  // taken by the manager

  proxy->call("setActiveTarget", std::string(Target::TargetLandMarks));
  EXPECT_EQ(proxy->call<std::string>("getEventName"), "KRTracker/ObjectConverter50");
  EXPECT_EQ(proxy->call<std::string>("getSecondEventName"), "KRTracker/ObjectConverter51");
  EXPECT_EQ(manager->kindOfEvent("KRTracker/ObjectConverter51"), Target::TargetLandMarks);
  EXPECT_EQ(manager->getTargetParams(Target::TargetLandMarks), (KRValue{80, 81}));

  // Nothing is published before "start", every registered target after, nothing once stopped.
  EXPECT_TRUE(sim->world().publishing().empty());
  proxy->call("start");
  const auto published = sim->world().publishing();
  ASSERT_EQ(published.size(), 2u);
  EXPECT_EQ(published.at(Target::TargetRedBall),
            std::vector<std::string>{"KRTracker/ObjectConverter10"});
  EXPECT_EQ(published.at(Target::TargetLandMarks).size(), 2u);
  proxy->call("addTarget", std::string(Target::TargetFace), KRValue());
  EXPECT_EQ(sim->world().publishing().count(Target::TargetFace), 1u);
  proxy->call("stopManager");
  EXPECT_TRUE(sim->world().publishing().empty());

  // Removing gives the ids back and forgets the active target.
  proxy->call("removeTarget", std::string(Target::TargetLandMarks));
  EXPECT_EQ(Namer::getInstance().getId(51), "KRTracker/ObjectConverter51");
  Namer::getInstance().releaseId(51);
  EXPECT_EQ(proxy->call<std::string>("getEventName"), "");
  EXPECT_EQ(proxy->call<std::vector<std::string>>("getRegisteredTargets"),
            (std::vector<std::string>{Target::TargetFace, Target::TargetRedBall}));
  proxy->call("removeAllTargets");
  EXPECT_FALSE(proxy->call<bool>("isTargetManaged", std::string(Target::TargetRedBall)));
  EXPECT_EQ(Namer::getInstance().getId(10), "KRTracker/ObjectConverter10");
  Namer::getInstance().releaseId(10);
}

TEST_F(TargetManagerTest, AnIdTakenElsewhereMovesTheTargetOnByAHundred) {
  Namer::getInstance().getId(20);
  proxy->call("addTarget", std::string(Target::TargetFace), KRValue());
  EXPECT_EQ(manager->getTargetIds(Target::TargetFace), std::vector<int>{120});
  Namer::getInstance().releaseId(20);
}

TEST_F(TargetManagerTest, ARawEventReplacesTheActiveTarget) {
  proxy->call("addTarget", std::string(Target::TargetRedBall), KRValue());
  proxy->call("setActiveTarget", std::string(Target::TargetRedBall));
  proxy->call("setActiveEvent", std::string("Custom/Event"));
  EXPECT_EQ(proxy->call<std::string>("getEventName"), "Custom/Event");
  EXPECT_EQ(proxy->call<std::string>("getSecondEventName"), "");
}

TEST_F(TargetManagerTest, RefusesWhatItCannotDo) {
  struct Case {
    std::string method;
    std::vector<KRValue> args;
    std::string message;
  };
  const std::vector<Case> cases{
      {"addTarget",
       {"Cat", KRValue()},
       "Unsupported target: \"Cat\". Could be: RedBall, Face, People, Sound, LandMarks."},
      {"setActiveTarget", {"Face"}, "Target \"Face\" is not registered."},
      {"removeTarget", {"Face"}, "Target \"Face\" is not registered."},
      {"setActiveEvent", {""}, "The event name is empty."},
      {"setExtractorPeriod", {"Face", 0}, "The period must be strictly positive, not 0 ms."},
      {"getExtractorPeriod",
       {"Cat"},
       "Unsupported target: \"Cat\". Could be: RedBall, Face, People, Sound, LandMarks."},
  };
  for (const auto& c : cases) {
    try {
      proxy->callValues(c.method, c.args);
      ADD_FAILURE() << c.method << " did not throw";
    } catch (const KR::KRError& e) {
      EXPECT_EQ(e.module(), "_KRTargetManager") << c.method;
      EXPECT_EQ(e.method(), c.method);
      EXPECT_EQ(e.message(), c.message) << c.method;
    }
  }
}

TEST_F(TargetManagerTest, ExtractorPeriodsAreTheWorldsObservationPeriods) {
  EXPECT_EQ(proxy->call<int>("getExtractorPeriod", std::string(Target::TargetSound)),
            KR::Sim::World::defaultPeriodMs(Target::TargetSound));
  proxy->call("setExtractorPeriod", std::string(Target::TargetFace), 120);
  EXPECT_EQ(sim->world().getPeriodMs(Target::TargetFace), 120);
  EXPECT_EQ(proxy->call<int>("getExtractorPeriod", std::string(Target::TargetFace)), 120);
}

TEST_F(TargetManagerTest, ActiveTargetPositionIsTheLastObservationInTheTorsoFrame) {
  const KR::Math::Position3D ball(1.2f, 0.3f, 0.1f);
  addTarget("ball", Target::TargetRedBall, ball);
  proxy->call("addTarget", std::string(Target::TargetRedBall), KRValue());
  proxy->call("setActiveTarget", std::string(Target::TargetRedBall));
  EXPECT_TRUE(proxy->call<std::vector<float>>("getActiveTargetPosition").empty());
  proxy->call("start");
  sim->runFor(0.2);
  const auto p = proxy->call<std::vector<float>>("getActiveTargetPosition");
  ASSERT_EQ(p.size(), 3u);
  const KR::Math::Position3D expected = KR::Math::pinv(sim->motion().getMapToTorso()) * ball;
  EXPECT_NEAR(p[0], expected.x, 1e-4);
  EXPECT_NEAR(p[1], expected.y, 1e-4);
  EXPECT_NEAR(p[2], expected.z, 1e-4);
}

}  // namespace
