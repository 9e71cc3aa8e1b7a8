// The head camera on its own: its field of view for each head effector, its settings refused
// out of range, frames at its rate, detections delivered the latency later with their labels,
// the share of frames it misses, and the errors of its detector.

#include <cmath>

#include <gmock/gmock.h>

#include <kr/error.h>
#include <krsim/world/camera.h>

#include "sim/helpers.h"

namespace {

using namespace krtest;
using KR::Sim::Camera;
using KR::Sim::CameraConfig;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr std::int64_t kMs = 1000000;  // [ns]

// Kibo, with ideal servos.
class CameraTest : public ::testing::Test, protected SimRobot {
 protected:
  /// `count` detections of a point seen from the camera frame at `local`, all delivered.
  std::vector<KR::Sim::Detection> detectMany(const CameraConfig& config, const Position3D& local,
                                             int count, std::uint32_t seed = 11) {
    Camera camera(motion, seed);
    camera.setConfig(config);
    const Camera::View view = camera.view();
    for (int i = 0; i < count; ++i)
      camera.detect(view, view.mapToCamera() * local, clock->now(), i * 10 * kMs, 0, "Obs");
    return camera.deliver(static_cast<std::int64_t>(count) * 10 * kMs + 1000 * kMs);
  }
};

TEST_F(CameraTest, TheFieldOfViewIsTheConeOfTheChosenHeadCameraWithinRange) {
  // kibo: horizontal field of view 1.02 rad, vertical 0.79 rad, range 3.2 m.
  struct Case {
    const char* what;
    Position3D local;  // in the camera frame
    bool inView;
  };
  const Case cases[] = {
      {"straight ahead", {1.5f, 0, 0}, true},
      {"just inside the side edge", {1.0f, std::tan(0.5f), 0}, true},
      {"just outside the side edge", {1.0f, std::tan(0.52f), 0}, false},
      {"just inside the top edge", {1.0f, 0, std::tan(0.38f)}, true},
      {"just outside the top edge", {1.0f, 0, std::tan(0.40f)}, false},
      {"beyond range", {3.3f, 0, 0}, false},
      {"behind", {-1.0f, 0, 0}, false},
  };
  motion->setAngleNow("HeadYaw", 0.4f);
  Camera camera(motion, 1);
  for (int effector = 0; effector < KR::Model::kTrackEffectorCount; ++effector) {
    camera.setEffector(effector);
    const Transform pose = motion->getMapToHeadEffector(effector);
    EXPECT_TRUE(camera.view().mapToCamera().isNear(pose, 1e-6f));
    for (const auto& c : cases) {
      EXPECT_EQ(camera.isInFieldOfView(pose * c.local, robot->getCameraRange()), c.inView)
          << c.what << ", effector " << effector;
    }
  }
  EXPECT_THROW(camera.setEffector(3), KR::KRError);
  EXPECT_THROW(camera.setEffector(-1), KR::KRError);
  EXPECT_EQ(camera.effector(), 2);
}

TEST_F(CameraTest, SettingsOutOfRangeAreRefusedAndLeaveTheOldOnes) {
  struct Case {
    CameraConfig config;  // rate [Hz], latency [s], dropout, angle and distance noise
    bool valid;
  };
  const Case cases[] = {
      {{15.0, 0.08, 1.0, 0.003f, 0.02f}, true},  {{0.0, 0.0, 0.0, 0.0f, 0.0f}, true},
      {{-1.0, 0.08, 0.0, 0.003f, 0.02f}, false}, {{std::nan(""), 0.0, 0.0, 0.0f, 0.0f}, false},
      {{15.0, -0.01, 0.0, 0.0f, 0.0f}, false},   {{15.0, 0.08, 1.01, 0.0f, 0.0f}, false},
      {{15.0, 0.08, -0.1, 0.0f, 0.0f}, false},   {{15.0, 0.08, 0.0, -1e-3f, 0.0f}, false},
      {{15.0, 0.08, 0.0, 0.0f, -1.0f}, false},
  };
  for (const auto& c : cases) {
    const CameraConfig& k = c.config;
    SCOPED_TRACE(testing::Message()
                 << k.cameraRateHz << " Hz, " << k.latencyS << " s, " << k.dropout << ", "
                 << k.angleNoise << ", " << k.distanceNoise);
    Camera camera(motion, 1);
    camera.setConfig({30.0, 0.123, 0.0, 0.0f, 0.0f});
    if (c.valid) {
      camera.setConfig(k);
      EXPECT_EQ(camera.config().dropout, k.dropout);
      EXPECT_EQ(camera.config().latencyS, k.latencyS);
    } else {
      EXPECT_THAT([&] { camera.setConfig(k); },
                  testing::ThrowsMessage<KR::KRError>(testing::HasSubstr("lie in [0, 1]")));
      EXPECT_EQ(camera.config().latencyS, 0.123);
    }
  }
}

TEST_F(CameraTest, FramesComeAtTheRateAndResumeFromALateUpdateWithoutABurst) {
  Camera camera(motion, 1);
  camera.setConfig({20.0, 0.0, 0.0, 0.0f, 0.0f});  // a frame every 50 ms
  std::vector<std::int64_t> frames;
  for (std::int64_t t = 0; t <= 1000 * kMs; t += 10 * kMs) {
    if (camera.frameDue(t))
      frames.push_back(t);
  }
  ASSERT_EQ(frames.size(), 21u);
  for (std::size_t i = 0; i < frames.size(); ++i)
    EXPECT_EQ(frames[i], static_cast<std::int64_t>(i) * 50 * kMs);
  // Nothing for half a second, then one frame at once and the rate from there.
  EXPECT_TRUE(camera.frameDue(1537 * kMs));
  EXPECT_FALSE(camera.frameDue(1547 * kMs));
  EXPECT_FALSE(camera.frameDue(1586 * kMs));
  EXPECT_TRUE(camera.frameDue(1587 * kMs));
  // A rate of 0: a frame at every update.
  camera.setConfig(CameraConfig::ideal());
  for (std::int64_t t = 1590 * kMs; t < 1600 * kMs; t += kMs)
    EXPECT_TRUE(camera.frameDue(t));
}

TEST_F(CameraTest, DetectionsArriveTheLatencyLaterInOrderWithTheirLabels) {
  Camera camera(motion, 1);
  camera.setConfig({0.0, 0.05, 0.0, 0.0f, 0.0f});
  camera.setEffector(1);
  const Camera::View view = camera.view();
  const Position3D local(1.2f, 0.1f, -0.05f);
  const KR::KRTimePoint captured = clock->now();
  camera.detect(view, view.mapToCamera() * local, captured, 0, 3, "Obs");
  camera.detect(view, view.mapToCamera() * local, captured, 20 * kMs, 4, "Other");
  EXPECT_TRUE(camera.deliver(49 * kMs).empty());
  const auto first = camera.deliver(50 * kMs);
  ASSERT_EQ(first.size(), 1u);
  EXPECT_EQ(first[0].target, 3u);
  EXPECT_EQ(first[0].eventName, "Obs");
  EXPECT_EQ(first[0].effector, 1);
  EXPECT_EQ(first[0].captured, captured);
  EXPECT_EQ(first[0].deliverNs, 50 * kMs);
  EXPECT_NEAR(KR::Math::distance(first[0].cameraToObject, local), 0.0f, 1e-5f);
  const auto second = camera.deliver(100 * kMs);
  ASSERT_EQ(second.size(), 1u);
  EXPECT_EQ(second[0].target, 4u);
  EXPECT_TRUE(camera.deliver(1000 * kMs).empty());
}

TEST_F(CameraTest, AFrameMissesItsTargetAtTheDropoutRate) {
  for (const double dropout : {0.0, 0.3, 1.0}) {
    const auto seen = detectMany({0.0, 0.0, dropout, 0.0f, 0.0f}, {1.0f, 0, 0}, 1000);
    EXPECT_NEAR(static_cast<double>(seen.size()), 1000.0 * (1.0 - dropout), 45.0) << dropout;
  }
}

TEST_F(CameraTest, TheErrorIsAnAngleAndADistanceErrorThatGrowsWithDistance) {
  // Standard deviations of the bearing [rad] and of the distance [m] seen at distance d.
  auto spread = [&](float d) {
    double bearing = 0.0, distance = 0.0;
    const auto seen = detectMany({0.0, 0.0, 0.0, 0.004f, 0.02f}, {d, 0, 0}, 2000);
    for (const auto& o : seen) {
      const Position3D& p = o.cameraToObject;
      bearing += std::pow(std::atan2(p.y, p.x), 2);
      distance += std::pow(p.norm() - d, 2);
    }
    const double n = static_cast<double>(seen.size());
    return std::make_pair(std::sqrt(bearing / n), std::sqrt(distance / n));
  };
  const auto near = spread(1.0f);
  const auto far = spread(3.0f);
  EXPECT_NEAR(near.first, 0.004, 0.0004);
  EXPECT_NEAR(far.first, 0.004, 0.0004);
  EXPECT_NEAR(near.second, 0.02, 0.002);
  EXPECT_NEAR(far.second, 0.18, 0.018);
}

}  // namespace
