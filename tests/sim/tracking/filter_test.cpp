// The smoother's constant-velocity filter on synthetic series.

#include <cmath>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

#include <krsim/tracking/filter.h>

namespace {

using KR::Math::Position3D;
using KR::Sim::ConstantVelocityFilter;

constexpr double kPeriod = 1.0 / 15.0;  // a detection per camera frame

/// Feeds `path` sampled every kPeriod from t = 0 to `end`; returns the filter.
template <class Path>
ConstantVelocityFilter feed(const Path& path, double end, ConstantVelocityFilter f = {}) {
  for (double t = 0.0; t <= end + 1e-9; t += kPeriod)
    f.update(t, path(t));
  return f;
}

TEST(ConstantVelocityFilter, LocksOntoAConstantVelocityAndPredictsAhead) {
  const Position3D v(0.4f, -0.3f, 0.05f);
  auto path = [&](double t) { return Position3D(1.0f, 0.5f, 0.3f) + v * static_cast<float>(t); };
  const auto f = feed(path, 2.0);
  EXPECT_LT(KR::Math::distance(f.velocity(), v), 1e-3f);
  EXPECT_LT(KR::Math::distance(f.position(), path(f.time())), 1e-4f);
  // Predicted 0.1 s ahead; never further than the horizon, never into the past.
  EXPECT_LT(KR::Math::distance(f.predict(f.time() + 0.1), path(f.time() + 0.1)), 1e-3f);
  EXPECT_LT(KR::Math::distance(f.predict(f.time() + 5.0), path(f.time() + f.gains().maxPrediction)),
            1e-3f);
  EXPECT_EQ(f.predict(f.time() - 1.0), f.position());
}

TEST(ConstantVelocityFilter, ComesToRestWhereTheTargetStopsWithinAFewFrames) {
  // 0.5 m/s along x, stopping at x = 1 at t = 1.
  auto path = [](double t) {
    return Position3D(0.5f * static_cast<float>(std::min(t, 1.0)) + 0.5f, 0, 0);
  };
  auto f = feed(path, 1.0);
  double settled = -1.0;
  float farthest = 0.0f;  // how far the estimate overshoots the stop
  for (double t = 1.0 + kPeriod; t < 3.0; t += kPeriod) {
    f.update(t, path(t));
    if (settled < 0.0 && std::fabs(f.predict(t + 0.1).x - 1.0f) < 0.005f &&
        f.velocity().norm() < 0.05f)
      settled = t - 1.0;
    farthest = std::max(farthest, f.position().x - 1.0f);
  }
  EXPECT_GT(settled, 0.0);
  EXPECT_LT(settled, 0.8);
  EXPECT_LT(farthest, 0.03f);
}

TEST(ConstantVelocityFilter, AJumpOrASilenceRestartsItAtRestAndBadInputIsIgnored) {
  struct Case {
    const char* name;
    double gap;     // silence before the new measurement [s]
    Position3D to;  // where the target is then
    bool restarts;
  };
  const Position3D still(1.0f, 0.0f, 0.3f);
  const Case cases[] = {
      {"30 degrees sideways at 1 m", kPeriod, {0.866f, 0.5f, 0.3f}, true},
      {"a small step", kPeriod, {1.0f, 0.1f, 0.3f}, false},
      {"back after a second", 1.0, {1.0f, 0.1f, 0.3f}, true},
  };
  for (const Case& c : cases) {
    auto f = feed([&](double) { return still; }, 1.0);
    ASSERT_TRUE(f.update(f.time() + c.gap, c.to));
    if (c.restarts) {
      EXPECT_EQ(f.position(), c.to) << c.name;
      EXPECT_EQ(f.velocity(), Position3D()) << c.name;
    } else {
      EXPECT_GT(KR::Math::distance(f.position(), c.to), 0.01f) << c.name << ": blended";
      EXPECT_GT(f.velocity().norm(), 0.1f) << c.name;
    }
  }
  auto f = feed([&](double) { return still; }, 1.0);
  const double last = f.time();
  const float nan = std::numeric_limits<float>::quiet_NaN();
  EXPECT_FALSE(f.update(last + kPeriod, {nan, 0.0f, 0.0f}));
  EXPECT_FALSE(f.update(last + kPeriod, {std::numeric_limits<float>::infinity(), 0.0f, 0.0f}));
  EXPECT_EQ(f.position(), still);
  EXPECT_EQ(f.time(), last);
  // A late measurement is blended at its place; time and velocity stay.
  EXPECT_TRUE(f.update(last - 0.2, still + Position3D(0.1f, 0, 0)));
  EXPECT_EQ(f.time(), last);
  EXPECT_EQ(f.velocity(), Position3D());
  f.reset();
  EXPECT_FALSE(f.hasSample());
}

}  // namespace
