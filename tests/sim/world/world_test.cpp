// The world: what each target's state says (seen, hidden, heard), which observations are
// published when and under which names, in both event layouts, with the camera's rate, latency
// and noise seen through the events, and detections dropped once their kind stops.

#include <cmath>
#include <map>

#include <gtest/gtest.h>

#include <kr/error.h>
#include <krsim/world/world.h>
#include <krtracker/tools/tools.h>
#include <krtracker/types/types/trackinfos.h>

#include "sim/helpers.h"

namespace {

using namespace krtest;

// Kibo with the servo model of a simulation run.
class WorldTest : public ::testing::Test, protected SimRobot {
 protected:
  WorldTest() : SimRobot("kibo.xml", false) {
    world->setPerception(KR::Sim::CameraConfig::ideal());
  }
  /// Advances time in 10 ms steps, updating the world; returns the observations raised.
  std::vector<std::pair<std::string, KRValue>> run(double seconds) {
    std::vector<std::pair<std::string, KRValue>> out;
    std::vector<int> ids;
    for (const auto& p : world->publishing()) {
      for (const auto& name : p.second) {
        ids.push_back(memory->subscribe(
            name, [&out](const std::string& n, const KRValue& v) { out.emplace_back(n, v); }));
      }
    }
    for (long i = std::lround(seconds / 0.01); i > 0; --i) {
      clock->advance(std::chrono::milliseconds(10));
      motion->step(0.01);
      world->update();
    }
    for (int id : ids)
      memory->unsubscribe(id);
    return out;
  }
  /// A point straight ahead of the top camera at distance d, in the map frame.
  Position3D ahead(float d) {
    const auto camera = motion->getMapToHeadEffector(0);
    return camera * Position3D(d, 0, 0);
  }
  TargetScript ball(const Path& path, Layout layout = Layout::Torso) {
    return {"ball", "RedBall", path, {}, layout};
  }
  /// A world of its own with one target, published on "Obs" every 10 ms: each observation
  /// for `steps` steps of 10 ms, with the time it arrived [s].
  std::vector<std::pair<double, KRValue>> observe(std::uint32_t seed,
                                                  const KR::Sim::CameraConfig& perception,
                                                  const TargetScript& target, int steps,
                                                  float noise = 0.0f) {
    World w(clock, memory, motion, seed);
    w.setPerception(perception);
    w.addTarget(target);
    w.setNoise(noise);
    w.setPeriodMs("RedBall", 10);
    w.startPublishing("RedBall", {"Obs"});
    std::vector<std::pair<double, KRValue>> seen;
    const int id = memory->subscribe("Obs", [&](const std::string&, const KRValue& v) {
      seen.emplace_back(clock->seconds(), v);
    });
    for (int i = 0; i < steps; ++i) {
      clock->advance(std::chrono::milliseconds(10));
      w.update();
    }
    memory->unsubscribe(id);
    return seen;
  }

  std::shared_ptr<SimMemory> memory = std::make_shared<SimMemory>(clock);
  std::shared_ptr<World> world = std::make_shared<World>(clock, memory, motion, 7);
};

TEST_F(WorldTest, ATargetIsPerceivedInViewUnlessHiddenAndASoundWithinRangeInAnyDirection) {
  const auto camera = motion->getMapToHeadEffector(0);
  TargetScript script = ball(Path::fixed(camera * Position3D(1.5f, 0, 0)));
  script.hidden = {{1.0, 2.0}};
  world->addTarget(script);
  struct Sound {
    const char* name;
    Position3D local;  // camera frame
    float maxRange;
    bool heard, perceived;
  };
  const Sound sounds[] = {
      {"behind", {-4.5f, 0, 0}, 0.0f, true, true},       // within the 5 m of hearing
      {"too far", {-5.5f, 0, 0}, 0.0f, true, false},     // beyond them
      {"far but loud", {0, 7.0f, 0}, 8.0f, true, true},  // its own range
      {"near but faint", {0, -1.5f, 0}, 1.0f, true, false},
      {"seen behind", {-1.0f, 0, 0}, 0.0f, false, false},  // not a sound
  };
  for (const auto& s : sounds) {
    TargetScript sound = ball(Path::fixed(camera * s.local));
    sound.name = s.name;
    sound.kind = "Sound";
    sound.maxRange = s.maxRange;
    sound.heard = s.heard;
    world->addTarget(sound);
  }
  run(0.5);
  EXPECT_TRUE(world->state("ball").perceived);
  for (const auto& s : sounds) {
    EXPECT_EQ(world->state(s.name).perceived, s.perceived) << s.name;
    EXPECT_EQ(world->state(s.name).inFieldOfView, s.perceived) << s.name;
  }
  run(1.0);
  EXPECT_TRUE(world->state("ball").inFieldOfView);
  EXPECT_FALSE(world->state("ball").perceived);
  run(1.0);
  EXPECT_TRUE(world->state("ball").perceived);
  EXPECT_EQ(world->state("ball").position, camera * Position3D(1.5f, 0, 0));
  EXPECT_THROW(world->state("nothing"), KR::KRError);
}

TEST_F(WorldTest, TargetsMovedAndHiddenByHandKeepTheirPastAndChangeFromNowOn) {
  const Position3D start = ahead(1.5f);
  const Position3D aside = start + Position3D(0, 0, 5.0f);  // far above the cone
  world->addTarget(ball(Path({{0.0, start}, {10.0, start + Position3D(1, 0, 0)}})));
  run(1.0);
  EXPECT_TRUE(world->state("ball").perceived);
  const Position3D before = world->targetPosition("ball", 0.5);
  world->moveTarget("ball", aside);
  EXPECT_EQ(world->state("ball").position, aside);  // at once
  run(0.5);
  EXPECT_FALSE(world->state("ball").inFieldOfView);
  EXPECT_EQ(world->targetPosition("ball", 0.5), before);  // the past is kept
  EXPECT_EQ(world->targetPosition("ball", 9.0), aside);   // the scripted future is not

  world->moveTarget("ball", start);
  run(0.5);
  EXPECT_TRUE(world->state("ball").perceived);
  world->setHidden("ball", true);
  run(0.5);
  EXPECT_TRUE(world->state("ball").inFieldOfView);
  EXPECT_FALSE(world->state("ball").perceived);
  world->setHidden("ball", false);
  run(0.5);
  EXPECT_TRUE(world->state("ball").perceived);

  EXPECT_THROW(world->moveTarget("cup", start), KR::KRError);
  EXPECT_THROW(world->setHidden("cup", true), KR::KRError);
}

TEST_F(WorldTest, ObservationsArePublishedOncePerPeriodOnlyWhilePublishing) {
  world->addTarget(ball(Path::fixed(ahead(1.0f))));
  EXPECT_TRUE(run(0.5).empty());
  world->startPublishing("RedBall", {"KRTracker/ObjectConverter3"});
  EXPECT_EQ(world->getPeriodMs("RedBall"), 50);
  EXPECT_EQ(run(1.0).size(), 20u);
  world->setPeriodMs("RedBall", 200);
  EXPECT_EQ(run(1.0).size(), 5u);
  EXPECT_THROW(world->setPeriodMs("RedBall", 0), KR::KRError);
  world->stopPublishing("RedBall");
  EXPECT_TRUE(run(0.5).empty());
}

TEST_F(WorldTest, BothLayoutsConvertBackToTheTargetInTheOdometryFrame) {
  motion->resetPose({0.7f, -0.3f, 0.4f});
  motion->setOdometryDrift(0.05f, 0.1f);
  motion->move(0.1f, 0.0f, 0.3f);
  run(1.0);
  motion->stopMove();
  motion->setAngleNow("HeadYaw", 0.3f);
  motion->setAngleNow("HeadPitch", 0.1f);
  const Position3D target = ahead(1.2f);
  const Position3D expected = KR::Math::pinv(motion->getMapToOdometry()) * target;
  ASSERT_GT(KR::Math::distance(expected, target), 0.01f) << "the odometry must have drifted";

  for (Layout layout : {Layout::World, Layout::Torso}) {
    TargetScript script = ball(Path::fixed(target), layout);
    script.headThreshold = 0.25f;
    const auto observed = observe(7, KR::Sim::CameraConfig::ideal(), script, 1);
    ASSERT_EQ(observed.size(), 1u);
    const KRValue& event = observed[0].second;
    ASSERT_EQ(event.size(), layout == Layout::World ? 4u : 5u);

    KR::Tracker::types::TrackInfos info;
    ASSERT_TRUE(KR::Tracker::tools::convertTrackerEventToTrackInfo(
        event, "test", "Obs", broker->getProxy("KRMotion", 0), info));
    const Position3D seen = info.getWorldToObject3D();
    EXPECT_NEAR(seen.x, expected.x, 1e-4);
    EXPECT_NEAR(seen.y, expected.y, 1e-4);
    EXPECT_NEAR(seen.z, expected.z, 1e-4);
    EXPECT_FLOAT_EQ(info.getHeadThreshold(), 0.25f);
    EXPECT_EQ(info.getTimestamp(),
              std::chrono::duration_cast<std::chrono::microseconds>(clock->now().time_since_epoch())
                      .count() *
                  1000);
  }
}

TEST_F(WorldTest, TheNearestTargetOfAKindIsPublishedAndLandmarksGoToTheirOwnEvents) {
  TargetScript near = ball(Path::fixed(ahead(0.8f)), Layout::World);
  near.name = "near face";
  near.kind = "Face";
  TargetScript far = near;
  far.name = "far face";
  far.path = Path::fixed(ahead(1.6f));
  world->addTarget(far);
  world->addTarget(near);
  for (int i = 0; i < 2; ++i) {
    TargetScript mark = far;
    mark.kind = "LandMarks";
    mark.name = "landmark " + std::to_string(i);
    mark.path = Path::fixed(ahead(1.0f + static_cast<float>(i)));
    world->addTarget(mark);
  }
  world->startPublishing("Face", {"FaceEvent"});
  world->startPublishing("LandMarks", {"First", "Second"});
  const auto events = run(0.01);
  ASSERT_EQ(events.size(), 3u);
  const auto odometryOf = [&](float d) {
    return KR::Math::pinv(motion->getMapToOdometry()) * ahead(d);
  };
  std::map<std::string, float> expectedX{{"FaceEvent", odometryOf(0.8f).x},
                                         {"First", odometryOf(1.0f).x},
                                         {"Second", odometryOf(2.0f).x}};
  for (const auto& e : events) {
    ASSERT_EQ(expectedX.count(e.first), 1u) << e.first;
    EXPECT_NEAR(e.second[0][0].asFloat(), expectedX[e.first], 1e-5) << e.first;
  }
  EXPECT_EQ(world->kinds(), (std::vector<std::string>{"Face", "LandMarks"}));
}

TEST_F(WorldTest, NoiseDependsOnlyOnTheSeed) {
  auto xs = [&](std::uint32_t seed, float noise) {
    std::vector<float> out;
    for (const auto& o : observe(seed, KR::Sim::CameraConfig::ideal(),
                                 ball(Path::fixed(ahead(1.0f)), Layout::World), 50, noise))
      out.push_back(o.second[0][0].asFloat());
    return out;
  };
  EXPECT_EQ(xs(3, 0.01f), xs(3, 0.01f));
  EXPECT_NE(xs(3, 0.01f), xs(4, 0.01f));
  const auto exact = xs(3, 0.0f);
  ASSERT_EQ(exact.size(), 50u);
  const auto noisy = xs(3, 0.01f);
  double sum = 0.0;
  for (std::size_t i = 0; i < exact.size(); ++i)
    sum += std::pow(noisy[i] - exact[i], 2);
  EXPECT_NEAR(std::sqrt(sum / 50.0), 0.01, 0.004);
}

/// Seconds since the start of the stamp of an observation of either layout.
double stampOf(const KRValue& event, const SimClock& clock) {
  const KRValue& t = event[event[0].size() == 6 && event[1].size() == 2 ? 1 : 2];
  const auto stamp = std::chrono::seconds(t[0].asInt()) + std::chrono::microseconds(t[1].asInt());
  return std::chrono::duration<double>(KR::KRTimePoint(stamp) - clock.start()).count();
}

TEST_F(WorldTest, DetectionsComeAtTheCameraRateLateByTheLatencyStampedWithTheirCapture) {
  struct Case {
    double rateHz, latencyS;
    std::size_t minCount, maxCount;
  };
  // The camera's own rates, latencies and dropouts: camera_test.cpp.
  for (const Case c : {Case{15.0, 0.08, 29, 31}, Case{10.0, 0.15, 19, 21}}) {
    SCOPED_TRACE(c.rateHz);
    const double start = clock->seconds();
    const auto seen =
        observe(5, {c.rateHz, c.latencyS, 0.0, 0.0f, 0.0f}, ball(Path::fixed(ahead(1.0f))), 200);
    EXPECT_GE(seen.size(), c.minCount);
    EXPECT_LE(seen.size(), c.maxCount);
    for (std::size_t i = 0; i < seen.size(); ++i) {
      // Delivered at the first step after the latency, stamped when the frame was taken.
      const double stamp = stampOf(seen[i].second, *clock);
      EXPECT_GE(seen[i].first - stamp, c.latencyS - 1e-6);
      EXPECT_LT(seen[i].first - stamp, c.latencyS + 0.01);
      EXPECT_GT(stamp, start);
      if (i > 0) {
        EXPECT_NEAR(stamp - stampOf(seen[i - 1].second, *clock), 1.0 / c.rateHz, 0.0101);
      }
    }
  }
}

TEST_F(WorldTest, ADetectionOutsideTheFieldOfViewNeverReachesTheTracker) {
  // A noisy camera, and a ball that sweeps from far left to far right of it and back.
  KR::Sim::CameraConfig perception;
  perception.angleNoise = 0.05f;
  perception.dropout = 0.1;
  world->setPerception(perception);
  const auto camera = motion->getMapToHeadEffector(0);
  const float half = 0.5f * robot->getCameraHorizontalFov();
  Path sweep;
  for (int i = 0; i <= 8; ++i) {
    const float a = (i % 2 == 0 ? -1.5f : 1.5f) * half;
    sweep.add(0.5 * i, camera * Position3D(2.0f * std::cos(a), 2.0f * std::sin(a), 0.0f));
  }
  world->addTarget(ball(sweep, Layout::World));
  world->startPublishing("RedBall", {"Obs"});
  const auto events = run(4.5);
  ASSERT_GT(events.size(), 10u);
  std::size_t outside = 0;
  for (double t = 0.0; t < 4.5; t += 0.01) {
    outside += world->isInFieldOfView(sweep.at(t), 10.0f) ? 0 : 1;
  }
  ASSERT_GT(outside, 100u) << "the sweep must leave the field of view";
  for (const auto& e : events) {
    const double captured = stampOf(e.second, *clock);
    EXPECT_TRUE(world->isInFieldOfView(sweep.at(captured), 10.0f)) << captured;
  }
}

TEST_F(WorldTest, DetectionsInFlightAreDroppedWhenTheirKindStopsBeingPublished) {
  KR::Sim::CameraConfig perception = KR::Sim::CameraConfig::ideal();
  perception.latencyS = 0.1;
  world->setPerception(perception);
  world->addTarget(ball(Path::fixed(ahead(1.0f))));
  std::vector<double> arrivals;
  const int id = memory->subscribe(
      "Obs", [&](const std::string&, const KRValue&) { arrivals.push_back(clock->seconds()); });
  world->startPublishing("RedBall", {"Obs"});
  run(0.05);  // captured at 0.01 s, on its way until 0.11 s
  world->stopPublishing("RedBall");
  run(0.5);
  EXPECT_TRUE(arrivals.empty());
  // Published again: what is captured from then on arrives.
  world->startPublishing("RedBall", {"Obs"});
  run(0.2);
  memory->unsubscribe(id);
  ASSERT_EQ(arrivals.size(), 2u);  // captured at 0.56 and 0.61 s
  EXPECT_NEAR(arrivals[0], 0.66, 1e-9);
  EXPECT_NEAR(arrivals[1], 0.71, 1e-9);
}

}  // namespace
