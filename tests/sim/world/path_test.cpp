// Scripted paths: interpolation between keyframes, held outside them, orbits, and keyframes
// kept in time order.

#include <cmath>

#include <gtest/gtest.h>

#include <kr/error.h>
#include <krsim/world/path.h>

namespace {

using KR::Math::Position3D;
using KR::Sim::Path;

TEST(PathTest, InterpolatesBetweenKeyframesAndHoldsOutside) {
  Path path({{1.0, {0, 0, 0}}, {3.0, {2, -4, 1}}});
  path.add(4.0, {2, -4, 3});
  EXPECT_EQ(path.at(0.0), Position3D(0, 0, 0));
  EXPECT_EQ(path.at(2.0), Position3D(1, -2, 0.5f));
  EXPECT_EQ(path.at(3.5), Position3D(2, -4, 2));
  EXPECT_EQ(path.at(9.0), Position3D(2, -4, 3));
  EXPECT_EQ(Path::fixed({1, 2, 3}).at(50.0), Position3D(1, 2, 3));
  EXPECT_EQ(Path().at(1.0), Position3D());
  EXPECT_THROW(path.add(3.9, {}), KR::KRError);
  EXPECT_THROW(Path({{2.0, {}}, {1.0, {}}}), KR::KRError);
}

TEST(PathTest, ThenAppendsALaterPathAndRefusesAnEarlierOne) {
  Path path = Path::fixed({1, 0, 0});
  path.then(Path({{2.0, {1, 0, 0}}, {4.0, {1, 2, 0}}}));
  ASSERT_EQ(path.keyframes().size(), 3u);
  EXPECT_EQ(path.at(1.0), Position3D(1, 0, 0));
  EXPECT_EQ(path.at(3.0), Position3D(1, 1, 0));
  EXPECT_THROW(path.then(Path::fixed({})), KR::KRError);  // starts at 0 s, before 4 s
}

TEST(PathTest, OrbitsStayOnTheirCircleAndEndOnTime) {
  const Path orbit = Path::orbit({1, 1, 0}, 2.0f, 0.3f, 0.0f, 0.5f, 10.0, 13.02, 0.05);
  EXPECT_DOUBLE_EQ(orbit.keyframes().back().time, 13.02);
  for (double t = 10.0; t <= 13.0; t += 0.37) {
    const Position3D p = orbit.at(t);
    EXPECT_NEAR(std::hypot(p.x - 1, p.y - 1), 2.0, 2e-3) << t;  // chords sag < 1 mm
    EXPECT_FLOAT_EQ(p.z, 0.3f);
  }
  const Position3D end = orbit.at(13.02);
  EXPECT_NEAR(std::atan2(end.y - 1, end.x - 1), 0.5 * 3.02, 1e-5);
}

}  // namespace
