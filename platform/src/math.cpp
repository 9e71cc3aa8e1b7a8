// KR::Math: value types, transforms and the look-at solver.

#include <algorithm>
#include <cmath>
#include <ostream>
#include <string>

#include <kr/error.h>
#include <kr/math/math.h>
#include <kr/math/types.h>

namespace KR {
namespace Math {

namespace {

float at(const std::vector<float>& v, std::size_t i) {
  return i < v.size() ? v[i] : 0.0f;
}

// The three elementary rotations as (cos, sin) patterns, shared by Rotation and Transform.
template <typename M>
void setRotX(M& m, float angle) {
  const float c = std::cos(angle);
  const float s = std::sin(angle);
  m.r2_c2 = c;
  m.r2_c3 = -s;
  m.r3_c2 = s;
  m.r3_c3 = c;
}

template <typename M>
void setRotY(M& m, float angle) {
  const float c = std::cos(angle);
  const float s = std::sin(angle);
  m.r1_c1 = c;
  m.r1_c3 = s;
  m.r3_c1 = -s;
  m.r3_c3 = c;
}

template <typename M>
void setRotZ(M& m, float angle) {
  const float c = std::cos(angle);
  const float s = std::sin(angle);
  m.r1_c1 = c;
  m.r1_c2 = -s;
  m.r2_c1 = s;
  m.r2_c2 = c;
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

// Roll, pitch, yaw of the 3x3 block of m (inverse of setAngles, pitch in [-pi/2, pi/2]).
// At the gimbal lock (cos pitch ~ 0) roll is set to 0 and the whole turn goes to yaw.
template <typename M>
Rotation3D anglesOf(const M& m) {
  const float cy = std::hypot(m.r1_c1, m.r2_c1);
  const float wy = std::atan2(-m.r3_c1, cy);
  if (cy < 1e-6f) {
    return {0.0f, wy, std::atan2(-m.r1_c2, m.r2_c2)};
  }
  return {std::atan2(m.r3_c2, m.r3_c3), wy, std::atan2(m.r2_c1, m.r1_c1)};
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
  r.r1_c1 = r1_c1 * o.r1_c1 + r1_c2 * o.r2_c1 + r1_c3 * o.r3_c1;
  r.r1_c2 = r1_c1 * o.r1_c2 + r1_c2 * o.r2_c2 + r1_c3 * o.r3_c2;
  r.r1_c3 = r1_c1 * o.r1_c3 + r1_c2 * o.r2_c3 + r1_c3 * o.r3_c3;
  r.r2_c1 = r2_c1 * o.r1_c1 + r2_c2 * o.r2_c1 + r2_c3 * o.r3_c1;
  r.r2_c2 = r2_c1 * o.r1_c2 + r2_c2 * o.r2_c2 + r2_c3 * o.r3_c2;
  r.r2_c3 = r2_c1 * o.r1_c3 + r2_c2 * o.r2_c3 + r2_c3 * o.r3_c3;
  r.r3_c1 = r3_c1 * o.r1_c1 + r3_c2 * o.r2_c1 + r3_c3 * o.r3_c1;
  r.r3_c2 = r3_c1 * o.r1_c2 + r3_c2 * o.r2_c2 + r3_c3 * o.r3_c2;
  r.r3_c3 = r3_c1 * o.r1_c3 + r3_c2 * o.r2_c3 + r3_c3 * o.r3_c3;
  return r;
}

Rotation Rotation::transpose() const {
  Rotation r;
  r.r1_c1 = r1_c1;
  r.r1_c2 = r2_c1;
  r.r1_c3 = r3_c1;
  r.r2_c1 = r1_c2;
  r.r2_c2 = r2_c2;
  r.r2_c3 = r3_c2;
  r.r3_c1 = r1_c3;
  r.r3_c2 = r2_c3;
  r.r3_c3 = r3_c3;
  return r;
}

bool Rotation::operator==(const Rotation& o) const {
  return r1_c1 == o.r1_c1 && r1_c2 == o.r1_c2 && r1_c3 == o.r1_c3 && r2_c1 == o.r2_c1 &&
         r2_c2 == o.r2_c2 && r2_c3 == o.r2_c3 && r3_c1 == o.r3_c1 && r3_c2 == o.r3_c2 &&
         r3_c3 == o.r3_c3;
}

Rotation Rotation::fromRotX(float angle) {
  Rotation r;
  setRotX(r, angle);
  return r;
}

Rotation Rotation::fromRotY(float angle) {
  Rotation r;
  setRotY(r, angle);
  return r;
}

Rotation Rotation::fromRotZ(float angle) {
  Rotation r;
  setRotZ(r, angle);
  return r;
}

Transform::Transform(const std::vector<float>& v) {
  if (v.size() != 12 && v.size() != 16) {
    throw KRError("Math", "Transform", "expected 12 or 16 floats, got " + std::to_string(v.size()));
  }
  r1_c1 = v[0];
  r1_c2 = v[1];
  r1_c3 = v[2];
  r1_c4 = v[3];
  r2_c1 = v[4];
  r2_c2 = v[5];
  r2_c3 = v[6];
  r2_c4 = v[7];
  r3_c1 = v[8];
  r3_c2 = v[9];
  r3_c3 = v[10];
  r3_c4 = v[11];
}

bool Transform::operator==(const Transform& o) const {
  return r1_c1 == o.r1_c1 && r1_c2 == o.r1_c2 && r1_c3 == o.r1_c3 && r1_c4 == o.r1_c4 &&
         r2_c1 == o.r2_c1 && r2_c2 == o.r2_c2 && r2_c3 == o.r2_c3 && r2_c4 == o.r2_c4 &&
         r3_c1 == o.r3_c1 && r3_c2 == o.r3_c2 && r3_c3 == o.r3_c3 && r3_c4 == o.r3_c4;
}

bool Transform::isNear(const Transform& o, float epsilon) const {
  const float a[12] = {r1_c1, r1_c2, r1_c3, r1_c4, r2_c1, r2_c2,
                       r2_c3, r2_c4, r3_c1, r3_c2, r3_c3, r3_c4};
  const float b[12] = {o.r1_c1, o.r1_c2, o.r1_c3, o.r1_c4, o.r2_c1, o.r2_c2,
                       o.r2_c3, o.r2_c4, o.r3_c1, o.r3_c2, o.r3_c3, o.r3_c4};
  for (int i = 0; i < 12; ++i) {
    // Written so that a NaN on either side is never near anything.
    if (!(std::fabs(a[i] - b[i]) <= epsilon)) {
      return false;
    }
  }
  return true;
}

std::vector<float> Transform::toVector() const {
  return {r1_c1, r1_c2, r1_c3, r1_c4, r2_c1, r2_c2, r2_c3, r2_c4, r3_c1, r3_c2, r3_c3, r3_c4};
}

Transform Transform::fromRotX(float angle) {
  Transform t;
  setRotX(t, angle);
  return t;
}

Transform Transform::fromRotY(float angle) {
  Transform t;
  setRotY(t, angle);
  return t;
}

Transform Transform::fromRotZ(float angle) {
  Transform t;
  setRotZ(t, angle);
  return t;
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
  return writeAll(os, {t.r1_c1, t.r1_c2, t.r1_c3, t.r1_c4, t.r2_c1, t.r2_c2, t.r2_c3, t.r2_c4,
                       t.r3_c1, t.r3_c2, t.r3_c3, t.r3_c4});
}

// ---- transforms -------------------------------------------------------------------------

Transform transformFromPosition6D(const Position6D& p) {
  Transform t;
  setAngles(t, p.wx, p.wy, p.wz);
  t.r1_c4 = p.x;
  t.r2_c4 = p.y;
  t.r3_c4 = p.z;
  return t;
}

Transform transformFromPose2D(const Pose2D& p) {
  Transform t;
  setRotZ(t, p.theta);
  t.r1_c4 = p.x;
  t.r2_c4 = p.y;
  return t;
}

Transform transformFromPosition3D(const Position3D& p) {
  return Transform::fromPosition(p.x, p.y, p.z);
}

Transform transformFromRotation(const Rotation& r) {
  Transform t;
  t.r1_c1 = r.r1_c1;
  t.r1_c2 = r.r1_c2;
  t.r1_c3 = r.r1_c3;
  t.r2_c1 = r.r2_c1;
  t.r2_c2 = r.r2_c2;
  t.r2_c3 = r.r2_c3;
  t.r3_c1 = r.r3_c1;
  t.r3_c2 = r.r3_c2;
  t.r3_c3 = r.r3_c3;
  return t;
}

Position6D position6DFromTransform(const Transform& t) {
  const Rotation3D a = anglesOf(t);
  return {t.r1_c4, t.r2_c4, t.r3_c4, a.wx, a.wy, a.wz};
}

Position3D position3DFromTransform(const Transform& t) {
  return {t.r1_c4, t.r2_c4, t.r3_c4};
}

Pose2D pose2DFromTransform(const Transform& t) {
  return {t.r1_c4, t.r2_c4, anglesOf(t).wz};
}

Rotation rotationFromTransform(const Transform& t) {
  Rotation r;
  r.r1_c1 = t.r1_c1;
  r.r1_c2 = t.r1_c2;
  r.r1_c3 = t.r1_c3;
  r.r2_c1 = t.r2_c1;
  r.r2_c2 = t.r2_c2;
  r.r2_c3 = t.r2_c3;
  r.r3_c1 = t.r3_c1;
  r.r3_c2 = t.r3_c2;
  r.r3_c3 = t.r3_c3;
  return r;
}

Rotation3D rotation3DFromTransform(const Transform& t) {
  return anglesOf(t);
}

Position6D position6DFromPose2D(const Pose2D& p) {
  return {p.x, p.y, 0.0f, 0.0f, 0.0f, p.theta};
}

Transform pinv(const Transform& t) {
  Transform r;
  r.r1_c1 = t.r1_c1;
  r.r1_c2 = t.r2_c1;
  r.r1_c3 = t.r3_c1;
  r.r2_c1 = t.r1_c2;
  r.r2_c2 = t.r2_c2;
  r.r2_c3 = t.r3_c2;
  r.r3_c1 = t.r1_c3;
  r.r3_c2 = t.r2_c3;
  r.r3_c3 = t.r3_c3;
  r.r1_c4 = -(r.r1_c1 * t.r1_c4 + r.r1_c2 * t.r2_c4 + r.r1_c3 * t.r3_c4);
  r.r2_c4 = -(r.r2_c1 * t.r1_c4 + r.r2_c2 * t.r2_c4 + r.r2_c3 * t.r3_c4);
  r.r3_c4 = -(r.r3_c1 * t.r1_c4 + r.r3_c2 * t.r2_c4 + r.r3_c3 * t.r3_c4);
  return r;
}

Rotation rotationFromRotX(float angle) {
  return Rotation::fromRotX(angle);
}
Rotation rotationFromRotY(float angle) {
  return Rotation::fromRotY(angle);
}
Rotation rotationFromRotZ(float angle) {
  return Rotation::fromRotZ(angle);
}

Rotation rotationFromAngles(float wx, float wy, float wz) {
  Rotation r;
  setAngles(r, wx, wy, wz);
  return r;
}

Rotation rotationFromRotation3D(const Rotation3D& r) {
  return rotationFromAngles(r.wx, r.wy, r.wz);
}

// ---- distances --------------------------------------------------------------------------

float distance(const Position6D& a, const Position6D& b) {
  const float dx = a.x - b.x, dy = a.y - b.y, dz = a.z - b.z;
  return std::sqrt(dx * dx + dy * dy + dz * dz);
}

float distance(const Position3D& a, const Position3D& b) {
  return (a - b).norm();
}

float norm(const Position6D& p) {
  return p.norm();
}

float norm(const Position3D& p) {
  return p.norm();
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

void oldComputePointAtAnglesWyWz(const Position3D& d, float& wy, float& wz) {
  wz = fastAtan2(d.y, std::hypot(d.x, d.z));
  wy = fastAtan2(-d.z, d.x);
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

  // |o + s d|^2 = |t|^2  ->  dd s^2 + 2 (o.d) s + |o|^2 - |t|^2 = 0, larger root.
  const double od = ox * dx + oy * dy + oz * dz;
  const double oo = ox * ox + oy * oy + oz * oz;
  const double disc = od * od - dd * (oo - tt);
  if (!(disc >= 0.0)) {
    return false;
  }
  const double s = (std::sqrt(disc) - od) / dd;
  if (!(s > 0.0)) {
    return false;
  }
  const double qx = ox + s * dx, qy = oy + s * dy, qz = oz + s * dz;

  // Ry(pitch) keeps qy and turns (qx, qz) onto (u, tz) with u >= 0 (looking forward).
  const double r2 = qx * qx + qz * qz;
  const double u2 = r2 - tz * tz;
  if (u2 < -1e-12 * std::max(1.0, tt)) {
    return false;
  }
  const double u = std::sqrt(std::max(0.0, u2));
  // pitch = angle(qx, qz) - angle(u, tz); yaw = angle(tx, ty) - angle(u, qy); written as
  // one atan2 each so that both land in (-pi, pi]. The float atan2 is accurate enough here
  // (about 1e-7 rad) and cheaper than the double one.
  pitch = fastAtan2(float(u * qz - tz * qx), float(u * qx + tz * qz));
  yaw = fastAtan2(float(u * ty - qy * tx), float(u * tx + qy * ty));
  return true;
}

// ---- Eigen ------------------------------------------------------------------------------

Eigen::Isometry3f toEigen(const Transform& t) {
  Eigen::Isometry3f e = Eigen::Isometry3f::Identity();
  e.matrix().topRows<3>() << t.r1_c1, t.r1_c2, t.r1_c3, t.r1_c4, t.r2_c1, t.r2_c2, t.r2_c3, t.r2_c4,
      t.r3_c1, t.r3_c2, t.r3_c3, t.r3_c4;
  return e;
}

Transform fromEigen(const Eigen::Isometry3f& e) {
  const auto& m = e.matrix();
  Transform t;
  t.r1_c1 = m(0, 0);
  t.r1_c2 = m(0, 1);
  t.r1_c3 = m(0, 2);
  t.r1_c4 = m(0, 3);
  t.r2_c1 = m(1, 0);
  t.r2_c2 = m(1, 1);
  t.r2_c3 = m(1, 2);
  t.r2_c4 = m(1, 3);
  t.r3_c1 = m(2, 0);
  t.r3_c2 = m(2, 1);
  t.r3_c3 = m(2, 2);
  t.r3_c4 = m(2, 3);
  return t;
}

Eigen::Matrix3f toEigen(const Rotation& r) {
  Eigen::Matrix3f m;
  m << r.r1_c1, r.r1_c2, r.r1_c3, r.r2_c1, r.r2_c2, r.r2_c3, r.r3_c1, r.r3_c2, r.r3_c3;
  return m;
}

Rotation fromEigen(const Eigen::Matrix3f& m) {
  Rotation r;
  r.r1_c1 = m(0, 0);
  r.r1_c2 = m(0, 1);
  r.r1_c3 = m(0, 2);
  r.r2_c1 = m(1, 0);
  r.r2_c2 = m(1, 1);
  r.r2_c3 = m(1, 2);
  r.r3_c1 = m(2, 0);
  r.r3_c2 = m(2, 1);
  r.r3_c3 = m(2, 2);
  return r;
}

}  // namespace Math
}  // namespace KR
