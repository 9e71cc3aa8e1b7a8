// KR::Math: value types, transforms and the look-at solver.

#include <algorithm>
#include <cmath>
#include <limits>
#include <ostream>
#include <string>

#include <Eigen/Geometry>

#include <kr/error.h>
#include <kr/math/eigen.h>
#include <kr/math/math.h>
#include <kr/math/types.h>

namespace KR {
namespace Math {

// The fields of Rotation and Transform are consecutive floats, row by row: Eigen works on
// them in place through row-major maps.
static_assert(sizeof(Rotation) == 9 * sizeof(float), "Rotation must be nine packed floats");
static_assert(sizeof(Transform) == 12 * sizeof(float), "Transform must be twelve packed floats");

namespace {

using Matrix3x4 = Eigen::Matrix<float, 3, 4, Eigen::RowMajor>;
using Matrix3 = Eigen::Matrix<float, 3, 3, Eigen::RowMajor>;

Eigen::Map<Matrix3x4> map(Transform& t) {
  return Eigen::Map<Matrix3x4>(&t.r1_c1);
}
Eigen::Map<const Matrix3x4> map(const Transform& t) {
  return Eigen::Map<const Matrix3x4>(&t.r1_c1);
}
Eigen::Map<Matrix3> map(Rotation& r) {
  return Eigen::Map<Matrix3>(&r.r1_c1);
}
Eigen::Map<const Matrix3> map(const Rotation& r) {
  return Eigen::Map<const Matrix3>(&r.r1_c1);
}

float at(const std::vector<float>& v, std::size_t i) {
  return i < v.size() ? v[i] : 0.0f;
}

// An elementary rotation, shared by Rotation and Transform: the one turning row/column I
// toward J (x: 1, 2; y: 2, 0; z: 0, 1).
template <typename M, int I, int J>
M elementaryRotation(float angle) {
  M m;
  auto e = map(m);
  const float c = std::cos(angle);
  const float s = std::sin(angle);
  e(I, I) = c;
  e(I, J) = -s;
  e(J, I) = s;
  e(J, J) = c;
  return m;
}

// R = Rz(wz) * Ry(wy) * Rx(wx), written into the 3x3 block of m.
template <typename M>
void setAngles(M& m, float wx, float wy, float wz) {
  const float cx = std::cos(wx), sx = std::sin(wx);
  const float cy = std::cos(wy), sy = std::sin(wy);
  const float cz = std::cos(wz), sz = std::sin(wz);
  m.r1_c1 = cz * cy;
  m.r1_c2 = cz * sy * sx - sz * cx;
  m.r1_c3 = cz * sy * cx + sz * sx;
  m.r2_c1 = sz * cy;
  m.r2_c2 = sz * sy * sx + cz * cx;
  m.r2_c3 = sz * sy * cx - cz * sx;
  m.r3_c1 = -sy;
  m.r3_c2 = cy * sx;
  m.r3_c3 = cy * cx;
}

// Space-separated floats with the stream's own formatting.
std::ostream& writeAll(std::ostream& os, std::initializer_list<float> values) {
  bool first = true;
  for (float v : values) {
    if (!first) {
      os << ' ';
    }
    os << v;
    first = false;
  }
  return os;
}

}  // namespace

// ---- value types ------------------------------------------------------------------------

Position3D::Position3D(const std::vector<float>& v) : x(at(v, 0)), y(at(v, 1)), z(at(v, 2)) {}

Position6D::Position6D(const std::vector<float>& v)
    : x(at(v, 0)), y(at(v, 1)), z(at(v, 2)), wx(at(v, 3)), wy(at(v, 4)), wz(at(v, 5)) {}

float Position6D::norm() const {
  return std::sqrt(x * x + y * y + z * z + wx * wx + wy * wy + wz * wz);
}

Pose2D::Pose2D(const std::vector<float>& v) : x(at(v, 0)), y(at(v, 1)), theta(at(v, 2)) {}

Rotation Rotation::operator*(const Rotation& o) const {
  Rotation r;
  map(r).noalias() = map(*this) * map(o);
  return r;
}

Position3D Rotation::operator*(const Position3D& p) const {
  return fromEigen(Eigen::Vector3f(map(*this) * toEigen(p)));
}

Rotation Rotation::transpose() const {
  Rotation r;
  map(r) = map(*this).transpose();
  return r;
}

bool Rotation::operator==(const Rotation& o) const {
  return map(*this) == map(o);
}

Rotation Rotation::fromRotX(float angle) {
  return elementaryRotation<Rotation, 1, 2>(angle);
}

Rotation Rotation::fromRotY(float angle) {
  return elementaryRotation<Rotation, 2, 0>(angle);
}

Rotation Rotation::fromRotZ(float angle) {
  return elementaryRotation<Rotation, 0, 1>(angle);
}

Transform::Transform(const std::vector<float>& v) {
  if (v.size() != 12 && v.size() != 16) {
    throw KRError("Math", "Transform", "expected 12 or 16 floats, got " + std::to_string(v.size()));
  }
  map(*this) = Eigen::Map<const Matrix3x4>(v.data());
}

Transform::Transform(const Rotation& r, const Position3D& t) {
  map(*this) << map(r), toEigen(t);
}

Transform Transform::operator*(const Transform& o) const {
  const auto a = map(*this);
  const auto b = map(o);
  Transform t;
  auto c = map(t);
  c.leftCols<3>().noalias() = a.leftCols<3>() * b.leftCols<3>();
  c.col(3).noalias() = a.leftCols<3>() * b.col(3) + a.col(3);
  return t;
}

Position3D Transform::operator*(const Position3D& p) const {
  const auto m = map(*this);
  return fromEigen(Eigen::Vector3f(m.leftCols<3>() * toEigen(p) + m.col(3)));
}

bool Transform::operator==(const Transform& o) const {
  return map(*this) == map(o);
}

bool Transform::isNear(const Transform& o, float epsilon) const {
  // Written so that a NaN on either side is never near anything.
  return ((map(*this) - map(o)).array().abs() <= epsilon).all();
}

Rotation Transform::rotation() const {
  Rotation r;
  map(r) = map(*this).leftCols<3>();
  return r;
}

std::vector<float> Transform::toVector() const {
  const float* first = map(*this).data();
  return std::vector<float>(first, first + 12);
}

Transform Transform::fromRotX(float angle) {
  return elementaryRotation<Transform, 1, 2>(angle);
}

Transform Transform::fromRotY(float angle) {
  return elementaryRotation<Transform, 2, 0>(angle);
}

Transform Transform::fromRotZ(float angle) {
  return elementaryRotation<Transform, 0, 1>(angle);
}

Transform Transform::fromPosition(float x, float y, float z) {
  Transform t;
  t.r1_c4 = x;
  t.r2_c4 = y;
  t.r3_c4 = z;
  return t;
}

std::ostream& operator<<(std::ostream& os, const Position3D& p) {
  return writeAll(os, {p.x, p.y, p.z});
}

std::ostream& operator<<(std::ostream& os, const Position6D& p) {
  return writeAll(os, {p.x, p.y, p.z, p.wx, p.wy, p.wz});
}

std::ostream& operator<<(std::ostream& os, const Pose2D& p) {
  return writeAll(os, {p.x, p.y, p.theta});
}

std::ostream& operator<<(std::ostream& os, const Rotation3D& r) {
  return writeAll(os, {r.wx, r.wy, r.wz});
}

std::ostream& operator<<(std::ostream& os, const Transform& t) {
  const std::vector<float> v = t.toVector();
  for (std::size_t i = 0; i < v.size(); ++i) {
    os << (i == 0 ? "" : " ") << v[i];
  }
  return os;
}

// ---- transforms -------------------------------------------------------------------------

Transform transformFromPosition6D(const Position6D& p) {
  return Transform(rotationFromAngles(p.wx, p.wy, p.wz), {p.x, p.y, p.z});
}

Transform transformFromPose2D(const Pose2D& p) {
  return Transform(Rotation::fromRotZ(p.theta), {p.x, p.y, 0.0f});
}

Transform transformFromPosition3D(const Position3D& p) {
  return Transform::fromPosition(p.x, p.y, p.z);
}

Transform transformFromRotation(const Rotation& r) {
  return Transform(r, {});
}

Position6D position6DFromTransform(const Transform& t) {
  const Rotation3D a = rotation3DFromRotation(t.rotation());
  return {t.r1_c4, t.r2_c4, t.r3_c4, a.wx, a.wy, a.wz};
}

Position3D position3DFromTransform(const Transform& t) {
  return t.translation();
}

Pose2D pose2DFromTransform(const Transform& t) {
  return {t.r1_c4, t.r2_c4, rotation3DFromRotation(t.rotation()).wz};
}

Position6D position6DFromPose2D(const Pose2D& p) {
  return {p.x, p.y, 0.0f, 0.0f, 0.0f, p.theta};
}

Transform pinv(const Transform& t) {
  const Rotation inverse = t.rotation().transpose();
  return Transform(inverse, -(inverse * t.translation()));
}

Rotation rotationFromRotZ(float angle) {
  return Rotation::fromRotZ(angle);
}

Rotation rotationFromAngles(float wx, float wy, float wz) {
  Rotation r;
  setAngles(r, wx, wy, wz);
  return r;
}

// At the gimbal lock (cos pitch ~ 0) roll is set to 0 and the whole turn goes to yaw.
Rotation3D rotation3DFromRotation(const Rotation& r) {
  const float cy = std::hypot(r.r1_c1, r.r2_c1);
  const float wy = std::atan2(-r.r3_c1, cy);
  if (cy < 1e-6f) {
    return {0.0f, wy, std::atan2(-r.r1_c2, r.r2_c2)};
  }
  return {std::atan2(r.r3_c2, r.r3_c3), wy, std::atan2(r.r2_c1, r.r1_c1)};
}

// ---- distances --------------------------------------------------------------------------

float distance(const Position6D& a, const Position6D& b) {
  const float dx = a.x - b.x, dy = a.y - b.y, dz = a.z - b.z;
  return std::sqrt(dx * dx + dy * dy + dz * dz);
}

float distance(const Position3D& a, const Position3D& b) {
  return (a - b).norm();
}

float aimError(const Transform& frame, const Position3D& target) {
  const Position3D toTarget = target - frame.translation();
  if (toTarget == Position3D()) {
    return kPi;
  }
  const Position3D axis = frame.xAxis();
  return std::atan2(axis.cross(toTarget).norm(), axis.dot(toTarget));
}

// ---- angles -----------------------------------------------------------------------------

float modulo2PI(float angle) {
  // fmod is exact in float; the period is k2Pi so that kPi and -kPi map onto each other.
  float a = std::fmod(angle, k2Pi);
  if (a > kPi) {
    a -= k2Pi;
  } else if (a <= -kPi) {
    a += k2Pi;
  }
  return a;
}

std::tuple<float, float, float> polar3DFromPosition3D(const Position3D& p) {
  return {p.norm(), std::atan2(p.y, p.x), std::atan2(-p.z, std::hypot(p.x, p.y))};
}

bool computeLookAtAngles(const Position3D& target, const Position3D& headPosition,
                         const Transform& neckToEffector, float& yaw, float& pitch) {
  // Effector pose: T(head) * Rz(yaw) * Ry(pitch) * [Rn | o]. Its line of sight is
  // o + s*d in the neck frame, d = Rn * e_x. The head rotation maps the point q = o + s*d
  // onto t = target - head, so |q| = |t| gives s, and then pitch and yaw follow from the
  // z component and the horizontal angle. Double precision keeps the quadratic and the
  // angle differences exact to well below the float resolution of the inputs.
  const double tx = double(target.x) - headPosition.x;
  const double ty = double(target.y) - headPosition.y;
  const double tz = double(target.z) - headPosition.z;
  const double tt = tx * tx + ty * ty + tz * tz;
  if (!(tt > 1e-12)) {  // also refuses NaN
    return false;
  }

  const double ox = neckToEffector.r1_c4, oy = neckToEffector.r2_c4, oz = neckToEffector.r3_c4;
  const double dx = neckToEffector.r1_c1, dy = neckToEffector.r2_c1, dz = neckToEffector.r3_c1;
  const double dd = dx * dx + dy * dy + dz * dz;  // 1 for a rotation; kept for robustness
  if (!(dd > 1e-12)) {
    return false;
  }
  // The effector terms do not depend on the target, so the reciprocal is ready before the
  // square root below needs it: a product on the dependency chain instead of a division.
  const double invDd = 1.0 / dd;

  // |o + s d|^2 = |t|^2  ->  dd s^2 + 2 (o.d) s + |o|^2 - |t|^2 = 0, larger root.
  const double od = ox * dx + oy * dy + oz * dz;
  const double oo = ox * ox + oy * oy + oz * oz;
  const double disc = od * od - dd * (oo - tt);
  if (!(disc >= 0.0)) {
    return false;
  }
  // Ry(pitch) keeps qy and turns (qx, qz) onto (u, tz) with u >= 0 (looking forward). Since
  // |q| = |t|, u^2 = qx^2 + qz^2 - tz^2 = tx^2 + ty^2 - qy^2. With the line of sight in the
  // head's sagittal plane (dy = 0, the usual mounting) qy = oy does not wait for s, and the two
  // square roots run side by side.
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
  // pitch = angle(qx, qz) - angle(u, tz); yaw = angle(tx, ty) - angle(u, qy); written as
  // one atan2 each so that both land in (-pi, pi]. The float atan2 is accurate enough here
  // (about 1e-7 rad) and cheaper than the double one.
  // Both pairs are formed before either atan2, so that little stays live across the calls.
  const float pitchY = float(u * qz - tz * qx), pitchX = float(u * qx + tz * qz);
  const float yawY = float(u * ty - qy * tx), yawX = float(u * tx + qy * ty);
  pitch = fastAtan2(pitchY, pitchX);
  yaw = fastAtan2(yawY, yawX);
  return true;
}

namespace {

// The look-at problem with a pitch axis offset from the yaw axis by p = yawToPitch, in the
// frame turned by yaw (origin at the yaw joint). The pitch axis is the line through p along y.
// The point q = o + s*d of the line of sight (pitch frame) is carried by Ry(pitch) about that
// axis and then by Rz(yaw) onto t = target - head. Both rotations keep what they turn about:
// the height above the yaw joint (tz), the distance from the yaw axis (rho), the coordinate
// along the pitch axis and the distance from it. With w the target in the turned frame:
// w_y = qy + py, w_x = W = sqrt(rho^2 - w_y^2) >= 0 (looking forward), w_z = tz, and
//   F(s) = (W(s) - px)^2 + (tz - pz)^2 - (qx^2 + qz^2) = 0,
// quadratic in s when px = 0 (the axes meet) or dy = 0 (qy does not depend on s).
struct OffsetLookAt {
  OffsetLookAt(const Position3D& target, const Position3D& headPosition,
               const Position3D& yawToPitch, const Transform& neckToEffector)
      : tx(double(target.x) - headPosition.x),
        ty(double(target.y) - headPosition.y),
        tz(double(target.z) - headPosition.z),
        px(yawToPitch.x),
        ox(neckToEffector.r1_c4),
        oz(neckToEffector.r3_c4),
        dx(neckToEffector.r1_c1),
        dz(neckToEffector.r3_c1),
        rho2(tx * tx + ty * ty),
        uz(tz - yawToPitch.z),
        tt(rho2 + tz * tz),
        A(dx * dx + dz * dz),
        B(ox * dx + oz * dz),
        C(ox * ox + oz * oz),
        a(double(neckToEffector.r2_c4) + double(yawToPitch.y)),
        b(neckToEffector.r2_c1) {}

  const double tx, ty, tz;
  const double px;
  const double ox, oz;  // the line of sight's origin, across the pitch axis
  const double dx, dz;  // and its direction
  const double rho2;
  const double uz;  // the target's height above the pitch axis
  const double tt;
  const double A;  // |d| in the plane square to the pitch axis
  const double B;
  const double C;
  const double a;  // w_y = a + b s
  const double b;
};

// Larger root of k2 s^2 + 2 k1 s + k0 = 0, or NaN.
double largerRoot(double k2, double k1, double k0) {
  const double disc = k1 * k1 - k2 * k0;
  if (!(k2 > 1e-12) || !(disc >= 0.0)) {
    return std::numeric_limits<double>::quiet_NaN();
  }
  return (std::sqrt(disc) - k1) / k2;
}

// Newton on F from the square mounting's root; F' = 2 (W - px) W' - 2 (A s + B). False when
// it leaves the domain or does not converge.
bool refineOffsetRoot(const OffsetLookAt& q, double& s) {
  for (int i = 0; i < 12 && std::isfinite(s); ++i) {
    const double wy = q.a + q.b * s;
    const double w2 = q.rho2 - wy * wy;
    if (!(w2 > 0.0)) {
      return false;
    }
    const double w = std::sqrt(w2);
    const double f = (w - q.px) * (w - q.px) + q.uz * q.uz - (q.A * s * s + 2.0 * q.B * s + q.C);
    const double df = -2.0 * (w - q.px) * wy * q.b / w - 2.0 * (q.A * s + q.B);
    if (!(df != 0.0)) {
      return false;
    }
    const double step = f / df;
    s -= step;
    if (std::fabs(step) <= 1e-13 * (1.0 + std::fabs(s))) {
      return true;
    }
  }
  return false;
}

// The distance s along the line of sight at which it meets the target; false where none does.
bool offsetSightDistance(const OffsetLookAt& q, double& s) {
  if (q.px == 0.0) {
    // rho^2 - (a + b s)^2 + uz^2 = A s^2 + 2 B s + C.
    s = largerRoot(q.A + q.b * q.b, q.B + q.a * q.b, q.C + q.a * q.a - q.rho2 - q.uz * q.uz);
    return true;
  }
  const double w0 = q.rho2 - q.a * q.a;
  if (!(w0 >= 0.0)) {
    return false;
  }
  const double u = std::sqrt(w0) - q.px;
  s = largerRoot(q.A, q.B, q.C - u * u - q.uz * q.uz);
  return q.b == 0.0 || refineOffsetRoot(q, s);
}

// Yaw and pitch that put the point s of the line of sight on the target.
bool offsetAngles(const OffsetLookAt& q, double s, float& yaw, float& pitch) {
  if (!(s > 0.0)) {
    return false;
  }
  const double qx = q.ox + s * q.dx, qz = q.oz + s * q.dz;
  const double wy = q.a + q.b * s;
  const double w2 = q.rho2 - wy * wy;
  if (w2 < -1e-12 * std::max(1.0, q.tt)) {
    return false;
  }
  const double ux = std::sqrt(std::max(0.0, w2)) - q.px;
  // As in the overload without an offset: Ry(pitch) turns (qx, qz) onto (ux, uz), Rz(yaw) turns (W,
  // wy) onto (tx, ty).
  const double w = ux + q.px;
  const float pitchY = float(ux * qz - q.uz * qx), pitchX = float(ux * qx + q.uz * qz);
  const float yawY = float(w * q.ty - wy * q.tx), yawX = float(w * q.tx + wy * q.ty);
  pitch = fastAtan2(pitchY, pitchX);
  yaw = fastAtan2(yawY, yawX);
  return true;
}

}  // namespace

bool computeLookAtAngles(const Position3D& target, const Position3D& headPosition,
                         const Position3D& yawToPitch, const Transform& neckToEffector, float& yaw,
                         float& pitch) {
  if (yawToPitch.x == 0.0f && yawToPitch.y == 0.0f && yawToPitch.z == 0.0f) {
    return computeLookAtAngles(target, headPosition, neckToEffector, yaw, pitch);
  }
  const OffsetLookAt problem(target, headPosition, yawToPitch, neckToEffector);
  if (!(problem.tt > 1e-12)) {  // also refuses NaN
    return false;
  }
  double s = 0.0;
  return offsetSightDistance(problem, s) && offsetAngles(problem, s, yaw, pitch);
}

// ---- Eigen ------------------------------------------------------------------------------

Eigen::Isometry3f toEigen(const Transform& t) {
  Eigen::Isometry3f e = Eigen::Isometry3f::Identity();
  e.matrix().topRows<3>() = map(t);
  return e;
}

Transform fromEigen(const Eigen::Isometry3f& e) {
  Transform t;
  map(t) = e.matrix().topRows<3>();
  return t;
}

Eigen::Matrix3f toEigen(const Rotation& r) {
  return map(r);
}

Rotation fromEigen(const Eigen::Matrix3f& m) {
  Rotation r;
  map(r) = m;
  return r;
}

}  // namespace Math
}  // namespace KR
