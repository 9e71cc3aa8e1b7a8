// KR::Math: conversions there and back, the look-at solver checked by forward kinematics,
// fastAtan2 against the C library, and the small helpers' edges.

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <numeric>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <kr/error.h>
#include <kr/math/eigen.h>
#include <kr/math/math.h>
#include <kr/model/kinematics.h>

#include "support/error_of.h"

namespace {

using namespace KR::Math;

constexpr unsigned kSeed = 20260511u;

// Angles and transforms that stress the conversions: identity, gimbal lock, the +-pi wrap,
// tiny angles, then random ones.
std::vector<Position6D> poseCases() {
  std::vector<Position6D> cases = {{0, 0, 0, 0, 0, 0},
                                   {1, -2, 3, 0, 0, 0},
                                   {0, 0, 0, 1e-7f, -1e-7f, 1e-7f},
                                   {0.1f, 0.2f, 0.3f, 0.3f, kPi2 - 1e-3f, -0.4f},
                                   {0.1f, 0.2f, 0.3f, 0.3f, -kPi2 + 1e-3f, 2.5f},
                                   {0, 0, 0, kPi, 0, 0},
                                   {0, 0, 0, 0, 0, kPi},
                                   {-5, 4, -3, 3.1f, -1.2f, -3.1f}};
  std::mt19937 rng(kSeed);
  std::uniform_real_distribution<float> pos(-3.0f, 3.0f);
  std::uniform_real_distribution<float> ang(-kPi + 1e-3f, kPi - 1e-3f);
  std::uniform_real_distribution<float> pitch(-kPi2 + 1e-2f, kPi2 - 1e-2f);
  for (int i = 0; i < 200; ++i)
    cases.push_back({pos(rng), pos(rng), pos(rng), ang(rng), pitch(rng), ang(rng)});
  return cases;
}

Transform eigenTransform(const Position6D& p) {
  Eigen::Isometry3f e = Eigen::Isometry3f::Identity();
  e.translate(Eigen::Vector3f(p.x, p.y, p.z));
  e.rotate(Eigen::AngleAxisf(p.wz, Eigen::Vector3f::UnitZ()) *
           Eigen::AngleAxisf(p.wy, Eigen::Vector3f::UnitY()) *
           Eigen::AngleAxisf(p.wx, Eigen::Vector3f::UnitX()));
  return fromEigen(e);
}

TEST(MathTypes, VectorConstructorsPadWithZeros) {
  EXPECT_EQ(Position3D(std::vector<float>{1, 2}), Position3D(1, 2, 0));
  EXPECT_EQ(Position6D(std::vector<float>{1, 2, 3, 4, 5, 6, 7}), Position6D(1, 2, 3, 4, 5, 6));
  EXPECT_EQ(Position6D(std::vector<float>{}), Position6D());
  EXPECT_EQ(Pose2D(std::vector<float>{4, 5}), Pose2D(4, 5, 0));

  std::vector<float> twelve(12);
  std::iota(twelve.begin(), twelve.end(), 1.0f);
  EXPECT_EQ(Transform(twelve).toVector(), twelve);
  std::vector<float> sixteen = twelve;
  sixteen.insert(sixteen.end(), {0, 0, 0, 1});
  EXPECT_EQ(Transform(sixteen).toVector(), twelve);
}

TEST(MathTypes, TransformFromWrongLengthThrows) {
  for (std::size_t n : {0u, 3u, 11u, 13u, 15u, 17u}) {
    SCOPED_TRACE(n);
    const KR::KRError e = krtest::krErrorOf([n] { Transform(std::vector<float>(n, 1.0f)); });
    EXPECT_EQ(e.module(), "Math");
    EXPECT_EQ(e.method(), "Transform");
    EXPECT_NE(e.message().find(std::to_string(n)), std::string::npos) << e.what();
  }
}

TEST(MathTypes, TextFormsAreSpaceSeparated) {
  EXPECT_EQ(::testing::PrintToString(Position6D(1, 2, 3, 0, 0, 0.5f)), "1 2 3 0 0 0.5");
  EXPECT_EQ(::testing::PrintToString(Position3D(-1.25f, 0, 7)), "-1.25 0 7");
  EXPECT_EQ(::testing::PrintToString(Pose2D(0.1f, 2, -3)), "0.1 2 -3");
  EXPECT_EQ(::testing::PrintToString(Rotation3D(0, 1, 0)), "0 1 0");
  EXPECT_EQ(::testing::PrintToString(Transform::fromPosition(1, 2, 3)), "1 0 0 1 0 1 0 2 0 0 1 3");
}

TEST(MathTypes, IsNearComparesEveryElement) {
  const Transform a = transformFromPosition6D({1, 2, 3, 0.1f, 0.2f, 0.3f});
  std::vector<float> v = a.toVector();
  for (std::size_t i = 0; i < v.size(); ++i) {
    std::vector<float> w = v;
    w[i] += 2e-4f;
    EXPECT_FALSE(a.isNear(Transform(w))) << "element " << i;
    EXPECT_TRUE(a.isNear(Transform(w), 3e-4f)) << "element " << i;
    w[i] = std::numeric_limits<float>::quiet_NaN();
    EXPECT_FALSE(a.isNear(Transform(w), 1e9f)) << "element " << i;
  }
  EXPECT_TRUE(a.isNear(a, 0.0f));
}

// ---- transforms -------------------------------------------------------------------------

TEST(MathTransforms, ElementaryRotationsMatchEigen) {
  for (float a : {0.0f, 0.3f, -1.2f, kPi2, kPi, -2.9f}) {
    EXPECT_TRUE(Transform::fromRotX(a).isNear(eigenTransform({0, 0, 0, a, 0, 0}), 1e-6f)) << a;
    EXPECT_TRUE(Transform::fromRotY(a).isNear(eigenTransform({0, 0, 0, 0, a, 0}), 1e-6f)) << a;
    EXPECT_TRUE(Transform::fromRotZ(a).isNear(eigenTransform({0, 0, 0, 0, 0, a}), 1e-6f)) << a;
    EXPECT_TRUE(transformFromRotation(Rotation::fromRotX(a)).isNear(Transform::fromRotX(a)));
    EXPECT_TRUE(transformFromRotation(Rotation::fromRotY(a)).isNear(Transform::fromRotY(a)));
    EXPECT_TRUE(transformFromRotation(rotationFromRotZ(a)).isNear(Transform::fromRotZ(a)));
  }
  // A positive pitch turns the x axis downwards.
  EXPECT_LT((Rotation::fromRotY(0.5f) * Position3D(1, 0, 0)).z, 0.0f);
}

TEST(MathTransforms, Position6DProductsAndInversesMatchEigen) {
  const Transform identity;
  EXPECT_EQ(pinv(identity), identity);
  for (const Position6D& p : poseCases()) {
    const Transform t = transformFromPosition6D(p);
    EXPECT_TRUE(t.isNear(eigenTransform(p), 2e-6f)) << p;
    const Transform chain = Transform::fromPosition(p.x, p.y, p.z) * Transform::fromRotZ(p.wz) *
                            Transform::fromRotY(p.wy) * Transform::fromRotX(p.wx);
    EXPECT_TRUE(t.isNear(chain, 2e-6f)) << p;
    EXPECT_TRUE(transformFromRotation(rotationFromAngles(p.wx, p.wy, p.wz) * Rotation::fromRotZ(0))
                    .isNear(transformFromRotation(t.rotation()), 2e-6f));
    // Products and points agree with Eigen.
    const Transform u = transformFromPosition6D({p.wz, p.x, p.wy, p.y, p.wx, p.z});
    EXPECT_TRUE((t * u).isNear(fromEigen(toEigen(t) * toEigen(u)), 1e-5f)) << p;
    const Position3D q(0.3f, -1.1f, 2.0f);
    const Eigen::Vector3f eq = toEigen(t) * toEigen(q);
    EXPECT_LT(distance(t * q, fromEigen(eq)), 1e-5f) << p;
    // The conversions to Eigen and back are exact.
    const Rotation r = rotationFromAngles(p.wx, p.wy, p.wz);
    EXPECT_EQ(fromEigen(toEigen(t)), t);
    EXPECT_EQ(fromEigen(toEigen(r)), r);
    EXPECT_EQ(fromEigen(toEigen(q)), q);
    EXPECT_TRUE(toEigen(r).isApprox(toEigen(t).rotation(), 1e-6f)) << p;
    EXPECT_EQ(r.transpose().transpose(), r);
    EXPECT_TRUE((toEigen(r.transpose()) * toEigen(r)).isIdentity(1e-6f)) << p;
    // The inverse gives the identity both ways.
    EXPECT_TRUE((t * pinv(t)).isNear(identity, 1e-5f)) << p;
    EXPECT_TRUE((pinv(t) * t).isNear(identity, 1e-5f)) << p;
    EXPECT_TRUE(pinv(pinv(t)).isNear(t, 1e-5f)) << p;
    EXPECT_TRUE(pinv(t).isNear(fromEigen(toEigen(t).inverse()), 1e-5f)) << p;
    const Position3D point(1, 2, -3);
    EXPECT_NEAR(distance(pinv(t) * (t * point), point), 0.0f, 1e-5f) << p;
  }
}

TEST(MathTransforms, Position6DRoundTrip) {
  for (const Position6D& p : poseCases()) {
    const Transform t = transformFromPosition6D(p);
    const Position6D back = position6DFromTransform(t);
    // Angles can differ at the +-pi wrap and at the gimbal lock; the pose cannot.
    EXPECT_TRUE(transformFromPosition6D(back).isNear(t, 2e-5f)) << p << " -> " << back;
    EXPECT_GE(back.wy, -kPi2);
    EXPECT_LE(back.wy, kPi2);
    if (std::fabs(p.wy) < kPi2 - 0.05f && std::fabs(p.wx) < kPi - 1e-3f &&
        std::fabs(p.wz) < kPi - 1e-3f) {
      EXPECT_NEAR(back.wx, p.wx, 1e-4f) << p;
      EXPECT_NEAR(back.wy, p.wy, 1e-4f) << p;
      EXPECT_NEAR(back.wz, p.wz, 1e-4f) << p;
    }
    EXPECT_EQ(position3DFromTransform(t), Position3D(p.x, p.y, p.z));
    const Rotation3D r = rotation3DFromRotation(t.rotation());
    EXPECT_EQ(r, Rotation3D(back.wx, back.wy, back.wz));
    EXPECT_TRUE(transformFromRotation(rotationFromAngles(r.wx, r.wy, r.wz))
                    .isNear(transformFromRotation(t.rotation()), 2e-5f));
    // The accessors read the columns of the matrix.
    EXPECT_EQ(t.translation(), position3DFromTransform(t));
    EXPECT_EQ(Transform(t.rotation(), t.translation()), t);
    const Transform axes = transformFromPosition6D(p) * Transform::fromPosition(1, 2, 3);
    EXPECT_LT(
        distance(axes.translation() - t.translation(), t.xAxis() + t.yAxis() * 2 + t.zAxis() * 3),
        1e-5f)
        << p;
  }
}

TEST(MathTransforms, GimbalLockKeepsThePose) {
  for (float wy : {kPi2, -kPi2}) {
    const Transform t = transformFromPosition6D({0, 0, 0, 0.4f, wy, -0.7f});
    const Position6D back = position6DFromTransform(t);
    EXPECT_FLOAT_EQ(back.wx, 0.0f);
    EXPECT_TRUE(transformFromPosition6D(back).isNear(t, 1e-5f)) << back;
  }
}

TEST(MathTransforms, Pose2DIsAPlanarPosition6D) {
  for (const Pose2D& p : {Pose2D(0, 0, 0), Pose2D(1.5f, -2, 0.7f), Pose2D(-3, 0.2f, -3.1f)}) {
    const Transform t = transformFromPose2D(p);
    EXPECT_EQ(position6DFromPose2D(p), Position6D(p.x, p.y, 0, 0, 0, p.theta));
    EXPECT_TRUE(t.isNear(transformFromPosition6D(position6DFromPose2D(p)), 1e-6f));
    const Pose2D back = pose2DFromTransform(t);
    EXPECT_FLOAT_EQ(back.x, p.x);
    EXPECT_FLOAT_EQ(back.y, p.y);
    EXPECT_NEAR(back.theta, p.theta, 1e-6f);
  }
  // The yaw of a tilted transform is its Position6D yaw.
  const Transform tilted = transformFromPosition6D({1, 2, 3, 0.3f, -0.4f, 1.1f});
  EXPECT_NEAR(pose2DFromTransform(tilted).theta, 1.1f, 1e-5f);
}

// ---- distances and angles ---------------------------------------------------------------

TEST(MathDistances, DistanceIgnoresAnglesNormIncludesThem) {
  const Position6D a(1, 2, 3, 0.5f, -0.5f, 3.0f);
  const Position6D b(4, 6, 3, -2.0f, 1.0f, 0.0f);
  EXPECT_FLOAT_EQ(distance(a, b), 5.0f);
  EXPECT_FLOAT_EQ(distance(a, Position6D(1, 2, 3, 0, 0, 0)), 0.0f);
  EXPECT_FLOAT_EQ(Position6D(1, 2, 3, 4, 5, 6).norm(), std::sqrt(91.0f));
  EXPECT_FLOAT_EQ(Position6D(0, 0, 0, 3, 4, 0).norm(), 5.0f);
  EXPECT_FLOAT_EQ(distance(Position3D(1, 1, 1), Position3D(1, 4, 5)), 5.0f);
  EXPECT_FLOAT_EQ(Position3D(2, 3, 6).norm(), 7.0f);
}

TEST(MathDistances, AimErrorIsTheAngleOffTheXAxis) {
  // A frame at (1, 2, 3) turned a quarter left: its x axis is the world's y axis.
  const Transform frame = transformFromPosition6D({1, 2, 3, 0.4f, 0, kPi2});
  const struct {
    Position3D target;
    float expected;
  } cases[] = {
      {{1, 5, 3}, 0.0f},           // straight ahead
      {{1, 2.5f, 3.5f}, kPi / 4},  // half way up
      {{4, 2, 3}, kPi2},           // to the right
      {{1, -7, 3}, kPi},           // behind
      {{1, 1e4f, 3.01f}, 1e-6f},   // a tiny miss keeps its digits
      {{1, 2, 3}, kPi},            // the origin itself: no direction aims at it
  };
  for (const auto& c : cases) {
    EXPECT_NEAR(aimError(frame, c.target), c.expected, 1e-7f + 1e-6f * c.expected) << c.target;
  }
}

TEST(MathAngles, Modulo2PIWrapsIntoHalfOpenRange) {
  const std::pair<float, float> cases[] = {{0.0f, 0.0f},
                                           {1.0f, 1.0f},
                                           {-1.0f, -1.0f},
                                           {kPi, kPi},
                                           {-kPi, kPi},
                                           {k2Pi, 0.0f},
                                           {3 * kPi, kPi},
                                           {-3 * kPi + 0.25f, 0.25f - kPi},
                                           {7.0f, 7.0f - k2Pi},
                                           {-7.0f, k2Pi - 7.0f},
                                           {kPi + 0.5f, 0.5f - kPi},
                                           {100.0f, 100.0f - 32 * kPi}};
  for (const auto& [in, expected] : cases) {
    const float out = modulo2PI(in);
    EXPECT_NEAR(out, expected, 2e-5f) << in;
    EXPECT_TRUE(out > -kPi && out <= kPi) << in;
  }
  EXPECT_TRUE(std::isnan(modulo2PI(std::numeric_limits<float>::quiet_NaN())));
}

// The look-at solver without a sensor offset gives the same angles.
TEST(MathAngles, Polar3DTurnsTheXAxisOntoThePoint) {
  std::mt19937 rng(kSeed);
  std::uniform_real_distribution<float> c(-4.0f, 4.0f);
  for (int i = 0; i < 500; ++i) {
    const Position3D p(c(rng), c(rng), c(rng));
    float dist, yaw, pitch;
    std::tie(dist, yaw, pitch) = polar3DFromPosition3D(p);
    EXPECT_FLOAT_EQ(dist, p.norm());
    const Position3D dir =
        Rotation::fromRotZ(yaw) * (Rotation::fromRotY(pitch) * Position3D(1, 0, 0));
    EXPECT_LT(distance(dir * dist, p), 1e-5f * (1 + dist)) << p;
    float lookYaw = 0.0f, lookPitch = 0.0f;
    ASSERT_TRUE(computeLookAtAngles(p, Position3D(), Transform(), lookYaw, lookPitch));
    EXPECT_NEAR(lookYaw, yaw, 1e-5f) << p;
    EXPECT_NEAR(lookPitch, pitch, 1e-5f) << p;
  }
  // A point below the head gives a positive pitch (looking down).
  EXPECT_GT(std::get<2>(polar3DFromPosition3D({1, 0, -1})), 0.0f);
  EXPECT_FLOAT_EQ(std::get<1>(polar3DFromPosition3D({-1, 0, 0})), kPi);
}

TEST(MathAngles, PointAtAnglesTurnTheXAxisOntoTheDirection) {
  std::mt19937 rng(kSeed + 1);
  std::uniform_real_distribution<float> c(-2.0f, 2.0f);
  std::vector<Position3D> dirs = {{1, 0, 0}, {0, 1, 0}, {0, 0, -1}, {-1, 0, 0}, {0, 0, 1}};
  for (int i = 0; i < 500; ++i)
    dirs.emplace_back(c(rng), c(rng), c(rng));
  for (const Position3D& d : dirs) {
    float wy = 9.0f, wz = 9.0f;
    oldComputePointAtAnglesWyWz(d, wy, wz);
    const Position3D dir = Rotation::fromRotY(wy) * (Rotation::fromRotZ(wz) * Position3D(1, 0, 0));
    EXPECT_LT(distance(dir, d.normalize()), 1e-5f) << d;
    EXPECT_LE(std::fabs(wz), kPi2) << d;
  }
}

// ---- look-at solver ---------------------------------------------------------------------

struct LookAtCase {
  Position3D target;
  Position3D head;
  Transform neckToEffector;
};

// Angle between the effector's line of sight and the direction to the target (above pi/2
// when the target lies behind the effector), for a head with its pitch joint at `offset`.
float offsetSightError(const Position3D& target, const Position3D& head, const Position3D& offset,
                       const Transform& effector, float yaw, float pitch) {
  KR::Model::TrackerHead h("Head");
  h.headPosition = head;
  h.yawToPitch = offset;
  h.effectorTransforms[0] = effector;
  return aimError(KR::Model::headEffectorPose(h, 0, yaw, pitch), target);
}

float sightError(const LookAtCase& c, float yaw, float pitch) {
  return offsetSightError(c.target, c.head, Position3D(), c.neckToEffector, yaw, pitch);
}

TEST(MathLookAt, LineOfSightPassesThroughTheTarget) {
  std::mt19937 rng(kSeed + 2);
  std::uniform_real_distribution<float> offset(-0.15f, 0.15f);
  std::uniform_real_distribution<float> tilt(-0.8f, 0.8f);
  std::uniform_real_distribution<float> unit(-1.0f, 1.0f);
  std::uniform_real_distribution<float> range(0.5f, 6.0f);
  std::uniform_real_distribution<float> yawDist(-kPi, kPi);
  std::uniform_real_distribution<float> elevation(-0.9f, 0.9f);
  for (int i = 0; i < 20000; ++i) {
    LookAtCase c;
    c.head = Position3D(unit(rng), unit(rng), unit(rng));
    // Offsets and tilts of any kind, but a sensor that still looks roughly forward.
    c.neckToEffector = transformFromPosition6D(
        {offset(rng), offset(rng), offset(rng), tilt(rng), tilt(rng), 0.2f * tilt(rng)});
    const float az = yawDist(rng), el = elevation(rng), r = range(rng);
    c.target = c.head + Position3D(r * std::cos(el) * std::cos(az), r * std::cos(el) * std::sin(az),
                                   r * std::sin(el));
    float yaw = 0.0f, pitch = 0.0f;
    const auto where = [&] {
      return ::testing::Message() << "target " << c.target << " head " << c.head << " effector "
                                  << c.neckToEffector << " yaw " << yaw << " pitch " << pitch;
    };
    ASSERT_TRUE(computeLookAtAngles(c.target, c.head, c.neckToEffector, yaw, pitch)) << where();
    ASSERT_LT(sightError(c, yaw, pitch), 1e-4f) << where();
    ASSERT_TRUE(yaw > -kPi && yaw <= kPi) << where();
    // Forward-looking: the head turns towards the target, not away from it over its back.
    ASSERT_GE((Rotation::fromRotZ(-yaw) * (c.target - c.head)).x, -1e-5f) << where();
  }
}

TEST(MathLookAt, ExactAtCloseRangeAndSteepAngles) {
  // Targets just outside the sensor's offset and nearly overhead still solve exactly.
  const Transform sensor = transformFromPosition6D({0.06f, 0.0f, 0.07f, 0, 0.6f, 0});
  const Position3D head(0, 0, 0.4f);
  const Position3D targets[] = {{0.2f, 0, 0.4f},   {0.1f, 0.05f, 0.45f}, {0.01f, 0, 3.0f},
                                {0, 0.01f, -2.0f}, {-0.5f, 0.0f, 0.4f},  {0, 0.3f, 0.4f}};
  for (const Position3D& t : targets) {
    float yaw = 0.0f, pitch = 0.0f;
    ASSERT_TRUE(computeLookAtAngles(t, head, sensor, yaw, pitch)) << t;
    EXPECT_LT(sightError({t, head, sensor}, yaw, pitch), 1e-4f) << t;
  }
}

TEST(MathLookAt, WithoutOffsetATargetBehindIsAtTheWrap) {
  // Directly behind: yaw at the wrap, pitch level.
  float yaw = 0.0f, pitch = 1.0f;
  ASSERT_TRUE(computeLookAtAngles({-2, 0, 0}, Position3D(), Transform(), yaw, pitch));
  EXPECT_NEAR(std::fabs(yaw), kPi, 1e-6f);
  EXPECT_NEAR(pitch, 0.0f, 1e-6f);
}

TEST(MathLookAt, NoSolutionLeavesOutputsUntouched) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const struct {
    const char* what;
    LookAtCase c;
  } cases[] = {
      {"target at the head position", {{0.1f, 0.2f, 0.3f}, {0.1f, 0.2f, 0.3f}, Transform()}},
      {"target at the head, offset sensor",
       {{0, 0, 0.5f}, {0, 0, 0.5f}, Transform::fromPosition(0.05f, 0, 0.07f)}},
      {"target inside the sideways offset",
       {{0.05f, 0, 0}, {0, 0, 0}, Transform::fromPosition(0, 0.2f, 0)}},
      {"target between the head and the sensor",
       {{0.1f, 0, 0}, {0, 0, 0}, Transform::fromPosition(0.2f, 0, 0)}},
      {"overhead target out of reach of a side-shifted sensor",
       {{0, 0, 0.5f}, {0, 0, 0}, Transform::fromPosition(0, 0.3f, 0)}},
      {"NaN target", {{nan, 0, 1}, {0, 0, 0}, Transform()}},
  };
  for (const auto& k : cases) {
    float yaw = 0.25f, pitch = -0.5f;
    EXPECT_FALSE(computeLookAtAngles(k.c.target, k.c.head, k.c.neckToEffector, yaw, pitch))
        << k.what;
    EXPECT_EQ(yaw, 0.25f) << k.what;
    EXPECT_EQ(pitch, -0.5f) << k.what;
  }
}

// ---- look-at with the pitch joint away from the yaw axis ---------------------------------

std::uint32_t floatBits(float v) {
  std::uint32_t b = 0;
  std::memcpy(&b, &v, sizeof b);
  return b;
}

// The look-at solver as it was before the head model gained yawToPitch, kept verbatim as the
// reference: with yawToPitch zero every result must stay bit for bit the same.
bool referenceLookAtAngles(const Position3D& target, const Position3D& headPosition,
                           const Transform& neckToEffector, float& yaw, float& pitch) {
  const double tx = double(target.x) - headPosition.x;
  const double ty = double(target.y) - headPosition.y;
  const double tz = double(target.z) - headPosition.z;
  const double tt = tx * tx + ty * ty + tz * tz;
  if (!(tt > 1e-12)) {
    return false;
  }
  const double ox = neckToEffector.r1_c4, oy = neckToEffector.r2_c4, oz = neckToEffector.r3_c4;
  const double dx = neckToEffector.r1_c1, dy = neckToEffector.r2_c1, dz = neckToEffector.r3_c1;
  const double dd = dx * dx + dy * dy + dz * dz;
  if (!(dd > 1e-12)) {
    return false;
  }
  const double invDd = 1.0 / dd;
  const double od = ox * dx + oy * dy + oz * dz;
  const double oo = ox * ox + oy * oy + oz * oz;
  const double disc = od * od - dd * (oo - tt);
  if (!(disc >= 0.0)) {
    return false;
  }
  const double txy = tx * tx + ty * ty;
  double u2 = txy - oy * oy;
  const double s = (std::sqrt(disc) - od) * invDd;
  if (!(s > 0.0)) {
    return false;
  }
  const double qx = ox + s * dx, qy = oy + s * dy, qz = oz + s * dz;
  if (dy != 0.0) {
    u2 = txy - qy * qy;
  }
  if (u2 < -1e-12 * std::max(1.0, tt)) {
    return false;
  }
  const double u = std::sqrt(std::max(0.0, u2));
  const float pitchY = float(u * qz - tz * qx), pitchX = float(u * qx + tz * qz);
  const float yawY = float(u * ty - qy * tx), yawX = float(u * tx + qy * ty);
  pitch = fastAtan2(pitchY, pitchX);
  yaw = fastAtan2(yawY, yawX);
  return true;
}

TEST(MathLookAtOffset, ZeroOffsetIsBitForBitTheFormerSolver) {
  // The effectors of both robots, a sideways one, a rolled one, and the plain x axis; heads at
  // both robots' positions; a grid of targets around them, near, far, above, below, behind.
  const Transform effectors[] = {
      Transform(),
      transformFromPosition6D({0.061f, 0, 0.072f, 0, 0, 0}),
      transformFromPosition6D({0.054f, 0, 0.021f, 0, 0.61f, 0}),
      transformFromPosition6D({0.057f, 0, 0.049f, 0, 0.2f, 0}),
      transformFromPosition6D({0.088f, 0, 0.066f, 0, 0, 0}),
      transformFromPosition6D({0.091f, 0, 0.011f, 0, 0.6f, 0}),
      transformFromPosition6D({0.03f, 0.04f, 0.05f, 0.2f, 0.1f, 0.25f}),
      transformFromPosition6D({-0.01f, -0.05f, 0.02f, -0.4f, -0.3f, -0.1f})};
  const Position3D heads[] = {{0.004f, 0, 0.141f}, {-0.012f, 0, 0.214f}, {0, 0, 0}};
  std::size_t compared = 0, solved = 0;
  for (const Transform& e : effectors) {
    for (const Position3D& h : heads) {
      for (float x = -3.0f; x <= 3.0f; x += 0.25f) {
        for (float y = -3.0f; y <= 3.0f; y += 0.375f) {
          for (float z = -1.5f; z <= 2.5f; z += 0.3125f) {
            const Position3D t(x, y, z);
            float y0 = 7.0f, p0 = 7.0f, y1 = 7.0f, p1 = 7.0f, y2 = 7.0f, p2 = 7.0f;
            const bool ok0 = referenceLookAtAngles(t, h, e, y0, p0);
            const bool ok1 = computeLookAtAngles(t, h, Position3D(), e, y1, p1);
            const bool ok2 = computeLookAtAngles(t, h, e, y2, p2);
            ASSERT_EQ(ok0, ok1) << t;
            ASSERT_EQ(ok0, ok2) << t;
            ASSERT_EQ(floatBits(y0), floatBits(y1)) << t << " head " << h << " effector " << e;
            ASSERT_EQ(floatBits(p0), floatBits(p1)) << t << " head " << h << " effector " << e;
            ASSERT_EQ(floatBits(y0), floatBits(y2)) << t;
            ASSERT_EQ(floatBits(p0), floatBits(p2)) << t;
            ++compared;
            solved += ok0;
          }
        }
      }
    }
  }
  EXPECT_GT(compared, 100000u);
  EXPECT_GT(solved, compared * 9 / 10);
}

TEST(MathLookAtOffset, ZeroOffsetKeepsTheNeckPoseBitForBit) {
  KR::Model::TrackerHead head("Head");
  head.headPosition = {0.004f, 0, 0.141f};
  for (float yaw = -2.0f; yaw <= 2.0f; yaw += 0.1f) {
    for (float pitch = -0.7f; pitch <= 0.5f; pitch += 0.05f) {
      const Transform former = transformFromPosition3D(head.headPosition) *
                               Transform::fromRotZ(yaw) * Transform::fromRotY(pitch);
      const std::vector<float> a = former.toVector(),
                               b = KR::Model::headNeckPose(head, yaw, pitch).toVector();
      for (std::size_t i = 0; i < a.size(); ++i) {
        ASSERT_EQ(floatBits(a[i]), floatBits(b[i])) << yaw << " " << pitch << " element " << i;
      }
    }
  }
}

TEST(MathLookAtOffset, LineOfSightPassesThroughTheTarget) {
  // Pan-tilt heads: the tilt joint up to 10 cm forward (or behind), sideways and above the pan
  // joint; sensors offset and tilted, also turned sideways (the case solved by Newton steps).
  std::mt19937 rng(kSeed + 7);
  std::uniform_real_distribution<float> forward(-0.1f, 0.1f);
  std::uniform_real_distribution<float> offset(-0.1f, 0.1f);
  std::uniform_real_distribution<float> tilt(-0.8f, 0.8f);
  std::uniform_real_distribution<float> turn(-0.5f, 0.5f);
  std::uniform_real_distribution<float> unit(-1.0f, 1.0f);
  std::uniform_real_distribution<float> range(0.6f, 6.0f);
  std::uniform_real_distribution<float> yawDist(-kPi, kPi);
  std::uniform_real_distribution<float> elevation(-0.9f, 0.9f);
  float worst = 0.0f;
  for (int i = 0; i < 40000; ++i) {
    const Position3D head(unit(rng), unit(rng), unit(rng));
    const Position3D p(forward(rng), 0.5f * offset(rng), offset(rng));
    // Every fourth case keeps the line of sight square to the pitch axis (the usual mounting,
    // closed form); every fourth has the axes meet (x = 0, closed form).
    const float sideways = i % 4 == 0 ? 0.0f : turn(rng);
    const Position3D offsetUsed = i % 4 == 1 ? Position3D(0, p.y, p.z) : p;
    const Transform e =
        transformFromPosition6D({0.08f * unit(rng), 0.08f * unit(rng), 0.08f * unit(rng),
                                 i % 4 == 0 ? 0.0f : tilt(rng), tilt(rng), sideways});
    const float az = yawDist(rng), el = elevation(rng), r = range(rng);
    const Position3D target = head + Position3D(r * std::cos(el) * std::cos(az),
                                                r * std::cos(el) * std::sin(az), r * std::sin(el));
    float yaw = 0.0f, pitch = 0.0f;
    const auto where = [&] {
      return ::testing::Message() << "case " << i << " target " << target << " head " << head
                                  << " offset " << offsetUsed << " effector " << e << " yaw " << yaw
                                  << " pitch " << pitch;
    };
    ASSERT_TRUE(computeLookAtAngles(target, head, offsetUsed, e, yaw, pitch)) << where();
    const float err = offsetSightError(target, head, offsetUsed, e, yaw, pitch);
    ASSERT_LT(err, 1e-4f) << where();
    worst = std::max(worst, err);
    ASSERT_TRUE(yaw > -kPi && yaw <= kPi) << where();
  }
  RecordProperty("worst_aim_error_rad", std::to_string(worst));
}

TEST(MathLookAtOffset, NoSolutionLeavesOutputsUntouched) {
  const Position3D p(0.07f, 0, 0.05f);
  const struct {
    const char* what;
    Position3D target;
    Transform effector;
  } cases[] = {
      {"target at the head position", {0, 0, 0.5f}, Transform()},
      {"NaN target", {std::numeric_limits<float>::quiet_NaN(), 0, 1}, Transform()},
      {"sensor looking along the pitch axis",
       {2, 0, 0.5f},
       transformFromPosition6D({0, 0, 0, 0, 0, kPi2})},
  };
  for (const auto& k : cases) {
    float yaw = 0.25f, pitch = -0.5f;
    EXPECT_FALSE(computeLookAtAngles(k.target, {0, 0, 0.5f}, p, k.effector, yaw, pitch)) << k.what;
    EXPECT_EQ(yaw, 0.25f) << k.what;
    EXPECT_EQ(pitch, -0.5f) << k.what;
  }
}

// ---- small helpers ----------------------------------------------------------------------

TEST(MathHelpers, ApplyThresholdIsADeadBand) {
  struct Case {
    float threshold, value, stored;
    bool taken;
  };
  // Zero threshold takes even an equal value; a move exactly at the threshold (either way)
  // is taken, one just inside is not; negative moves count by their size.
  const Case cases[] = {{0.0f, 1.0f, 1.0f, true},   {0.0f, -3.0f, 2.0f, true},
                        {0.5f, 1.5f, 1.0f, true},   {0.5f, 0.5f, 1.0f, true},
                        {0.5f, 1.49f, 1.0f, false}, {0.5f, 0.51f, 1.0f, false},
                        {0.1f, -0.2f, 0.0f, true},  {10.0f, 9.0f, 0.0f, false}};
  for (const Case& c : cases) {
    float stored = c.stored;
    EXPECT_EQ(DSP::applyThreshold(c.threshold, c.value, stored), c.taken)
        << c.threshold << " " << c.value << " " << c.stored;
    EXPECT_EQ(stored, c.taken ? c.value : c.stored);
  }
}

TEST(MathHelpers, IsFractionStrictAcceptsZeroExclusiveToOneInclusive) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  for (float f : {1.0f, 0.5f, 1e-30f, std::numeric_limits<float>::denorm_min()})
    EXPECT_TRUE(Validation::isFractionStrict(f)) << f;
  for (float f : {0.0f, -0.0f, -0.1f, std::nextafter(1.0f, 2.0f), 2.0f, nan})
    EXPECT_FALSE(Validation::isFractionStrict(f)) << f;
}

TEST(MathHelpers, ClipDataClamps) {
  for (const auto& [in, out] : {std::pair{3.0f, 2.0f}, {-3.0f, -1.0f}, {0.5f, 0.5f}}) {
    float v = in;
    clipData(-1.0f, 2.0f, v);
    EXPECT_EQ(v, out) << in;
  }
}

// ---- fastAtan2 -------------------------------------------------------------------------
// It replaces the C library's atan2f on the look-at and point-at paths: same special values,
// same accuracy class.

std::string pair(float y, float x) {
  std::ostringstream os;
  os.precision(9);
  os << "fastAtan2(" << y << ", " << x << ")";
  return os.str();
}

TEST(FastAtan2, SpecialValuesAndAxesMatchTheCLibraryBitForBit) {
  const float inf = std::numeric_limits<float>::infinity();
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float values[] = {0.0f, -0.0f, 1.0f, -1.0f, 2.5f, -2.5f, inf, -inf, nan};
  for (float y : values) {
    for (float x : values) {
      // Both finite and non-zero: a general angle, checked for accuracy below. Otherwise the
      // point lies on an axis or is special, and the answer must be the library's.
      if (std::isfinite(x) && std::isfinite(y) && x != 0.0f && y != 0.0f) {
        continue;
      }
      const float expected = std::atan2(y, x);
      const float got = fastAtan2(y, x);
      if (std::isnan(expected)) {
        EXPECT_TRUE(std::isnan(got)) << pair(y, x);
      } else {
        EXPECT_EQ(floatBits(got), floatBits(expected))
            << pair(y, x) << " = " << got << ", library " << expected;
      }
    }
  }
}

TEST(FastAtan2, AsAccurateAsTheCLibraryOverAllQuadrantsAndScales) {
  std::mt19937 rng(20261121u);
  std::uniform_real_distribution<float> mantissa(0.5f, 1.0f);
  std::uniform_int_distribution<int> exponent(-30, 30);
  std::bernoulli_distribution negative(0.5);
  const auto draw = [&] {
    const float v = std::ldexp(mantissa(rng), exponent(rng));
    return negative(rng) ? -v : v;
  };
  for (int i = 0; i < 200000; ++i) {
    // Half the pairs of similar magnitude, where the quadrant logic matters most. The C
    // library's atan2f itself strays up to 1.46 ulp from the exact angle on these inputs.
    const float y = draw();
    const float x =
        i % 2 == 0 ? draw() : std::copysign(std::fabs(y) * mantissa(rng) * 2.0f, draw());
    const double exact = std::atan2(double(y), double(x));
    const float nearest = float(exact);
    const double ulp = std::nextafter(std::fabs(nearest), HUGE_VALF) - std::fabs(nearest);
    const double error = std::fabs(double(fastAtan2(y, x)) - exact) / ulp;
    ASSERT_LE(error, 1.5) << pair(y, x) << ", exact " << exact;
  }
}

}  // namespace
