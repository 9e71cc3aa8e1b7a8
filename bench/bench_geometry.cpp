// Head look-at and arm point-at angles of the small humanoid, side by side with the same
// problems solved by orocos KDL. Every benchmark walks the same moving target, one sample per
// iteration, so that the dead bands see the changes of a real tracking loop and KDL starts
// each solve from the previous target's solution.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include <Eigen/Geometry>

#include <kr/math/eigen.h>
#include <kr/math/math.h>
#include <kr/model/kinematics.h>

#include <krtracker/config/krgenerictrackerconfig.h>
#include <krtracker/tools/tools.h>

#include "bench_support.h"
#include "kdl_peer.h"

namespace {

using KR::Math::Position3D;
using KR::Model::KRTrackerModel;
using KR::Model::TRACK_EFFECTOR_CAMERA_TOP;
using KR::Model::TRACK_EFFECTOR_DEPTH_CAMERA;
namespace tools = KR::Tracker::tools;

constexpr double kAgreement = 1e-3;  // [rad]

const KRTrackerModel& kibo() {
  static const KRTrackerModel model = krbench::loadKibo();
  return model;
}

/// Cycles through the target path.
class PathWalker {
 public:
  const Position3D& next() {
    const auto& path = krbench::targetPath();
    fIndex = fIndex + 1 == path.size() ? 0 : fIndex + 1;
    return path[fIndex];
  }

 private:
  std::size_t fIndex = 0;
};

/// The path in the robot frame, for the whole-body look-at.
const std::vector<Position3D>& robotFramePath() {
  static const std::vector<Position3D> path = [] {
    const Position3D torsoOffset(0.0f, 0.0f, krbench::torsoInRobot().z);
    std::vector<Position3D> points;
    points.reserve(krbench::targetPath().size());
    for (const Position3D& p : krbench::targetPath()) {
      points.push_back(p + torsoOffset);
    }
    return points;
  }();
  return path;
}

struct Lists {
  Lists() {
    names.reserve(32);
    angles.reserve(32);
  }
  void clear() {
    names.clear();
    angles.clear();
  }
  std::vector<std::string> names;
  std::vector<float> angles;
};

// ---- closed form ---------------------------------------------------------------------------

void BM_LookAtAngles_Head(benchmark::State& state) {
  const KRTrackerModel& model = kibo();
  PathWalker walker;
  Lists lists;
  krbench::timeWithAllocations(state, [&] {
    lists.clear();
    benchmark::DoNotOptimize(tools::computeLookAtAngles(
        walker.next(), model, TRACK_EFFECTOR_CAMERA_TOP, false, lists.names, lists.angles));
  });
}
BENCHMARK(BM_LookAtAngles_Head);

void BM_LookAtAnglesWithThreshold(benchmark::State& state) {
  const KRTrackerModel& model = kibo();
  const float threshold = KR::Tracker::getConfigFloatValue(KR::Tracker::HEAD_THRESHOLD);
  PathWalker walker;
  Lists lists;
  KR::Model::TrackerHeadAngle remembered;
  krbench::timeWithAllocations(state, [&] {
    benchmark::DoNotOptimize(tools::computeLookAtAnglesWithThreshold(
        walker.next(), model.head, TRACK_EFFECTOR_CAMERA_TOP, threshold, remembered, lists.names,
        lists.angles));
  });
}
BENCHMARK(BM_LookAtAnglesWithThreshold);

void BM_LookAtWB(benchmark::State& state) {
  const KRTrackerModel& model = kibo();
  const float threshold = KR::Tracker::getConfigFloatValue(KR::Tracker::WHOLEBODY_THRESHOLD);
  const std::vector<Position3D>& path = robotFramePath();
  std::size_t i = 0;
  Lists lists;
  lists.names.resize(2);
  lists.angles.resize(2);
  KR::Model::TrackerHeadAngle remembered;
  krbench::timeWithAllocations(state, [&] {
    i = i + 1 == path.size() ? 0 : i + 1;
    benchmark::DoNotOptimize(tools::computeLookAtWB(path[i], model, TRACK_EFFECTOR_CAMERA_TOP,
                                                    threshold, remembered, lists.names,
                                                    lists.angles));
  });
}
BENCHMARK(BM_LookAtWB);

void BM_PointAtAngles_OneArm(benchmark::State& state) {
  const KRTrackerModel& model = kibo();
  PathWalker walker;
  Lists lists;
  krbench::timeWithAllocations(state, [&] {
    lists.clear();
    tools::computePointAtAngles(walker.next(), model.leftArm, lists.names, lists.angles);
  });
}
BENCHMARK(BM_PointAtAngles_OneArm);

void BM_PointAtAngles_BothArms(benchmark::State& state) {
  const KRTrackerModel& model = kibo();
  PathWalker walker;
  Lists lists;
  krbench::timeWithAllocations(state, [&] {
    lists.clear();
    const Position3D& target = walker.next();
    tools::computePointAtAngles(target, model.leftArm, lists.names, lists.angles);
    tools::computePointAtAngles(target, model.rightArm, lists.names, lists.angles);
  });
}
BENCHMARK(BM_PointAtAngles_BothArms);

void BM_PointAtAnglesWithThreshold_OneArm(benchmark::State& state) {
  const KRTrackerModel& model = kibo();
  PathWalker walker;
  Lists lists;
  KR::Model::TrackerArmAngle remembered;
  krbench::timeWithAllocations(state, [&] {
    lists.clear();
    benchmark::DoNotOptimize(tools::computePointAtAnglesWithThreshold(
        walker.next(), model.leftArm, remembered, lists.names, lists.angles));
  });
}
BENCHMARK(BM_PointAtAnglesWithThreshold_OneArm);

void BM_PointAtAnglesWithThreshold_BothArms(benchmark::State& state) {
  const KRTrackerModel& model = kibo();
  PathWalker walker;
  Lists lists;
  KR::Model::TrackerArmAngle left;
  KR::Model::TrackerArmAngle right;
  krbench::timeWithAllocations(state, [&] {
    lists.clear();
    const Position3D& target = walker.next();
    benchmark::DoNotOptimize(tools::computePointAtAnglesWithThreshold(target, model.leftArm, left,
                                                                      lists.names, lists.angles));
    benchmark::DoNotOptimize(tools::computePointAtAnglesWithThreshold(target, model.rightArm, right,
                                                                      lists.names, lists.angles));
  });
}
BENCHMARK(BM_PointAtAnglesWithThreshold_BothArms);

// The floor of any transform work: one isometry product, its inverse and a point transform.
void BM_EigenIsometryFloor(benchmark::State& state) {
  const Eigen::Isometry3f a =
      KR::Math::toEigen(KR::Math::transformFromPosition6D({0.1f, 0.2f, 0.3f, 0.01f, 0.02f, 0.4f}));
  const Eigen::Isometry3f b =
      KR::Math::toEigen(KR::Math::transformFromPosition6D({0.05f, 0.0f, 0.1f, 0.0f, 0.2f, 0.0f}));
  PathWalker walker;
  for (auto _ : state) {
    Eigen::Isometry3f ab = a * b;
    benchmark::DoNotOptimize(ab);
    const Eigen::Vector3f p = ab.inverse() * KR::Math::toEigen(walker.next());
    benchmark::DoNotOptimize(p);
  }
}
BENCHMARK(BM_EigenIsometryFloor);

// The transcendental calls alone, chained as in the solvers: two square roots (double) and two
// atan2 for the head; one hypot, five atan2 and four sine-cosine pairs for an arm.
void BM_TrigFloor_LookAt(benchmark::State& state) {
  PathWalker walker;
  for (auto _ : state) {
    const Position3D& p = walker.next();
    const double r = std::sqrt(double(p.x) * p.x + double(p.y) * p.y + double(p.z) * p.z);
    const double u = std::sqrt(r * r - double(p.z) * p.z);
    const float pitch = KR::Math::fastAtan2(float(p.z * u), float(p.x * r));
    benchmark::DoNotOptimize(KR::Math::fastAtan2(p.y + pitch, float(u)));
  }
}
BENCHMARK(BM_TrigFloor_LookAt);

void BM_TrigFloor_PointAt(benchmark::State& state) {
  PathWalker walker;
  for (auto _ : state) {
    const Position3D& p = walker.next();
    const float a2 = KR::Math::fastAtan2(p.y, std::hypot(p.x, p.z));
    const float a1 = KR::Math::fastAtan2(-p.z, p.x);
    const float x = std::cos(a1) * std::cos(a2) * p.x + std::sin(a1) * std::sin(a2);
    const float y = std::cos(a2) * p.y - std::sin(a2) * std::sin(a1);
    const float a4 = KR::Math::fastAtan2(y, x);
    const float a3 = KR::Math::fastAtan2(p.z * a4, y);
    const float z = std::cos(a4) * std::sin(a3) + std::sin(a4) * std::cos(a3);
    benchmark::DoNotOptimize(KR::Math::fastAtan2(z, x + a3));
  }
}
BENCHMARK(BM_TrigFloor_PointAt);

// ---- KDL -----------------------------------------------------------------------------------

void BM_KdlLookAt(benchmark::State& state) {
  krbench::KdlHeadPeer peer(kibo().head, TRACK_EFFECTOR_CAMERA_TOP);
  PathWalker walker;
  float yaw = 0.0f;
  float pitch = 0.0f;
  krbench::timeWithAllocations(
      state, [&] { benchmark::DoNotOptimize(peer.solve(walker.next(), yaw, pitch)); });
}
BENCHMARK(BM_KdlLookAt);

void BM_KdlPointAt_OneArm(benchmark::State& state) {
  krbench::KdlArmPeer peer(kibo().leftArm);
  PathWalker walker;
  float a[3];
  krbench::timeWithAllocations(
      state, [&] { benchmark::DoNotOptimize(peer.solve(walker.next(), a[0], a[1], a[2])); });
}
BENCHMARK(BM_KdlPointAt_OneArm);

void BM_KdlPointAt_BothArms(benchmark::State& state) {
  krbench::KdlArmPeer left(kibo().leftArm);
  krbench::KdlArmPeer right(kibo().rightArm);
  PathWalker walker;
  float a[3];
  krbench::timeWithAllocations(state, [&] {
    const Position3D& target = walker.next();
    benchmark::DoNotOptimize(left.solve(target, a[0], a[1], a[2]));
    benchmark::DoNotOptimize(right.solve(target, a[0], a[1], a[2]));
  });
}
BENCHMARK(BM_KdlPointAt_BothArms);

// ---- one-time checks -----------------------------------------------------------------------

/// Both solvers along the whole path: the same head angles within kAgreement, and the closed
/// form's sensor aimed at each target (checked by forward kinematics) within kAgreement.
double checkHeadAgreement(KR::Model::TRACK_EFFECTOR effector) {
  const KRTrackerModel& model = kibo();
  krbench::KdlHeadPeer peer(model.head, effector);
  double worst = 0.0;
  int index = 0;
  for (const Position3D& target : krbench::targetPath()) {
    float yaw = 0.0f;
    float pitch = 0.0f;
    krbench::require(tools::xComputeLookAtArticular(target, model.head, effector, yaw, pitch),
                     "closed-form look-at failed at sample " + std::to_string(index));
    float kdlYaw = 0.0f;
    float kdlPitch = 0.0f;
    krbench::require(peer.solve(target, kdlYaw, kdlPitch),
                     "KDL look-at did not converge at sample " + std::to_string(index));
    const double gap = std::max(std::fabs(yaw - kdlYaw), std::fabs(pitch - kdlPitch));
    krbench::require(gap < kAgreement, "look-at, effector " + std::to_string(effector) +
                                           ", sample " + std::to_string(index) + ": closed form (" +
                                           std::to_string(yaw) + ", " + std::to_string(pitch) +
                                           "), KDL (" + std::to_string(kdlYaw) + ", " +
                                           std::to_string(kdlPitch) + ")");
    const float aim =
        KR::Math::aimError(KR::Model::headEffectorPose(model.head, effector, yaw, pitch), target);
    krbench::require(aim < kAgreement, "look-at, effector " + std::to_string(effector) +
                                           ", sample " + std::to_string(index) + ": misses by " +
                                           std::to_string(aim) + " rad");
    worst = std::max(worst, gap);
    ++index;
  }
  return worst;
}

/// The same for an arm: shoulder pitch, shoulder roll and elbow roll, and the forearm aimed.
double checkArmAgreement(const KR::Model::TrackerArm& arm) {
  krbench::KdlArmPeer peer(arm);
  double worst = 0.0;
  int index = 0;
  for (const Position3D& target : krbench::targetPath()) {
    float a[5];
    tools::xComputePointAtAngles(target, arm, a[0], a[1], a[2], a[3], a[4]);
    float k[3];
    krbench::require(peer.solve(target, k[0], k[1], k[2]),
                     "KDL point-at did not converge at sample " + std::to_string(index));
    const double gap =
        std::max({std::fabs(a[0] - k[0]), std::fabs(a[1] - k[1]), std::fabs(a[3] - k[2])});
    krbench::require(gap < kAgreement,
                     "point-at, " + arm.name + ", sample " + std::to_string(index) +
                         ": closed form (" + std::to_string(a[0]) + ", " + std::to_string(a[1]) +
                         ", " + std::to_string(a[3]) + "), KDL (" + std::to_string(k[0]) + ", " +
                         std::to_string(k[1]) + ", " + std::to_string(k[2]) + ")");
    const float aim =
        KR::Math::aimError(KR::Model::forearmPose(arm, a[0], a[1], a[2], a[3]), target);
    krbench::require(aim < kAgreement, "point-at, " + arm.name + ", sample " +
                                           std::to_string(index) + ": misses by " +
                                           std::to_string(aim) + " rad");
    worst = std::max(worst, gap);
    ++index;
  }
  return worst;
}

/// The success path of every geometry function, once the caller's lists have room, leaves
/// the heap alone.
void checkNoAllocation() {
  const KRTrackerModel& model = kibo();
  Lists lists;
  Lists headLists;
  headLists.names.resize(2);
  headLists.angles.resize(2);
  KR::Model::TrackerHeadAngle head;
  KR::Model::TrackerHeadAngle wholeBody;
  KR::Model::TrackerArmAngle left;
  KR::Model::TrackerArmAngle right;
  const std::vector<Position3D>& path = krbench::targetPath();
  const std::vector<Position3D>& wholeBodyPath = robotFramePath();
  const std::uint64_t count = krbench::allocationsOf([&] {
    for (std::size_t i = 0; i < path.size(); ++i) {
      const Position3D& target = path[i];
      lists.clear();
      tools::computeLookAtAngles(target, model, TRACK_EFFECTOR_CAMERA_TOP, false, lists.names,
                                 lists.angles);
      tools::computePointAtAngles(target, model.leftArm, lists.names, lists.angles);
      tools::computePointAtAnglesWithThreshold(target, model.rightArm, right, lists.names,
                                               lists.angles);
      tools::computePointAtAnglesWithThreshold(target, model.leftArm, left, lists.names,
                                               lists.angles);
      tools::computeLookAtAnglesWithThreshold(target, model.head, TRACK_EFFECTOR_CAMERA_TOP, 0.05f,
                                              head, headLists.names, headLists.angles);
      tools::computeLookAtWB(wholeBodyPath[i], model, TRACK_EFFECTOR_DEPTH_CAMERA, 0.05f, wholeBody,
                             headLists.names, headLists.angles);
    }
  });
  krbench::require(count == 0,
                   "the geometry allocated " + std::to_string(count) + " times along the path");
}

void checks() {
  const double head = std::max(checkHeadAgreement(TRACK_EFFECTOR_CAMERA_TOP),
                               checkHeadAgreement(TRACK_EFFECTOR_DEPTH_CAMERA));
  const double arms =
      std::max(checkArmAgreement(kibo().leftArm), checkArmAgreement(kibo().rightArm));
  checkNoAllocation();
  std::fprintf(stderr,
               "checks passed: closed form and KDL agree within %.1e rad (look-at) and %.1e rad "
               "(point-at) over %zu targets; no heap use in the geometry\n",
               head, arms, krbench::targetPath().size());
}

}  // namespace

int main(int argc, char** argv) {
  return krbench::runMain(argc, argv, checks);
}
