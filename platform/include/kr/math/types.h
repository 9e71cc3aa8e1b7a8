#pragma once
// KR::Math value types, single precision.
// Conventions: x forward, y left, z up; metres and radians. A Position6D's orientation
// (wx, wy, wz) is roll, pitch, yaw with R = Rz(wz) * Ry(wy) * Rx(wx). A Pose2D (x, y, theta)
// is the Position6D (x, y, 0, 0, 0, theta).
// A Transform aToB maps coordinates given in frame B into frame A (p_a = aToB * p_b); it is
// also the pose of frame B expressed in frame A.

#include <cmath>
#include <iosfwd>
#include <vector>

namespace KR {
namespace Math {

/// Frames understood by the motion service; the integer goes on the wire.
enum FRAME { FRAME_TORSO = 0, FRAME_WORLD = 1, FRAME_ROBOT = 2 };

struct Position3D {
  float x = 0.0f;
  float y = 0.0f;
  float z = 0.0f;

  Position3D() = default;
  Position3D(float px, float py, float pz) : x(px), y(py), z(pz) {}
  /// From the first three floats of v; missing ones are 0.
  explicit Position3D(const std::vector<float>& v);

  Position3D operator+(const Position3D& o) const { return {x + o.x, y + o.y, z + o.z}; }
  Position3D operator-(const Position3D& o) const { return {x - o.x, y - o.y, z - o.z}; }
  Position3D operator-() const { return {-x, -y, -z}; }
  Position3D operator*(float s) const { return {x * s, y * s, z * s}; }
  Position3D operator/(float s) const { return {x / s, y / s, z / s}; }
  Position3D& operator+=(const Position3D& o) { return *this = *this + o; }
  Position3D& operator-=(const Position3D& o) { return *this = *this - o; }
  Position3D& operator*=(float s) { return *this = *this * s; }
  bool operator==(const Position3D& o) const { return x == o.x && y == o.y && z == o.z; }
  bool operator!=(const Position3D& o) const { return !(*this == o); }

  float norm() const { return std::sqrt(x * x + y * y + z * z); }
  float dot(const Position3D& o) const { return x * o.x + y * o.y + z * o.z; }
  Position3D cross(const Position3D& o) const {
    return {y * o.z - z * o.y, z * o.x - x * o.z, x * o.y - y * o.x};
  }
  /// The unit vector along this one; the zero vector stays zero.
  Position3D normalize() const {
    const float n = norm();
    return n > 0.0f ? *this / n : *this;
  }
  std::vector<float> toVector() const { return {x, y, z}; }
};
inline Position3D operator*(float s, const Position3D& p) {
  return p * s;
}

struct Position6D {
  float x = 0.0f;
  float y = 0.0f;
  float z = 0.0f;
  float wx = 0.0f;
  float wy = 0.0f;
  float wz = 0.0f;

  Position6D() = default;
  Position6D(float px, float py, float pz, float pwx, float pwy, float pwz)
      : x(px), y(py), z(pz), wx(pwx), wy(pwy), wz(pwz) {}
  /// From the first six floats of v; missing ones are 0.
  explicit Position6D(const std::vector<float>& v);

  bool operator==(const Position6D& o) const {
    return x == o.x && y == o.y && z == o.z && wx == o.wx && wy == o.wy && wz == o.wz;
  }
  bool operator!=(const Position6D& o) const { return !(*this == o); }
  /// Square root of the sum of the squares of all six components, angles included.
  float norm() const;
  std::vector<float> toVector() const { return {x, y, z, wx, wy, wz}; }
};

struct Pose2D {
  float x = 0.0f;
  float y = 0.0f;
  float theta = 0.0f;

  Pose2D() = default;
  Pose2D(float px, float py, float ptheta) : x(px), y(py), theta(ptheta) {}
  /// From the first three floats of v; missing ones are 0.
  explicit Pose2D(const std::vector<float>& v);

  bool operator==(const Pose2D& o) const { return x == o.x && y == o.y && theta == o.theta; }
  bool operator!=(const Pose2D& o) const { return !(*this == o); }
  std::vector<float> toVector() const { return {x, y, theta}; }
};

/// Roll, pitch, yaw angles (R = Rz(wz) * Ry(wy) * Rx(wx)).
struct Rotation3D {
  float wx = 0.0f;
  float wy = 0.0f;
  float wz = 0.0f;

  Rotation3D() = default;
  Rotation3D(float pwx, float pwy, float pwz) : wx(pwx), wy(pwy), wz(pwz) {}
  bool operator==(const Rotation3D& o) const { return wx == o.wx && wy == o.wy && wz == o.wz; }
  bool operator!=(const Rotation3D& o) const { return !(*this == o); }
};

/// A 3x3 rotation matrix, row by row. Identity by default. The products and comparisons are
/// computed with Eigen over the nine fields (math.cpp).
struct Rotation {
  float r1_c1 = 1.0f, r1_c2 = 0.0f, r1_c3 = 0.0f;
  float r2_c1 = 0.0f, r2_c2 = 1.0f, r2_c3 = 0.0f;
  float r3_c1 = 0.0f, r3_c2 = 0.0f, r3_c3 = 1.0f;

  Rotation operator*(const Rotation& o) const;
  Position3D operator*(const Position3D& p) const;
  Rotation transpose() const;
  bool operator==(const Rotation& o) const;
  bool operator!=(const Rotation& o) const { return !(*this == o); }

  /// The columns: the images of the x, y and z axes.
  Position3D xAxis() const { return {r1_c1, r2_c1, r3_c1}; }
  Position3D yAxis() const { return {r1_c2, r2_c2, r3_c2}; }
  Position3D zAxis() const { return {r1_c3, r2_c3, r3_c3}; }

  static Rotation fromRotX(float angle);
  static Rotation fromRotY(float angle);
  static Rotation fromRotZ(float angle);
};

/// A 3x4 homogeneous transform, row by row: rotation in columns 1 to 3, translation in
/// column 4. Identity by default. The arithmetic is computed with Eigen over the twelve
/// fields (math.cpp).
struct Transform {
  float r1_c1 = 1.0f, r1_c2 = 0.0f, r1_c3 = 0.0f, r1_c4 = 0.0f;
  float r2_c1 = 0.0f, r2_c2 = 1.0f, r2_c3 = 0.0f, r2_c4 = 0.0f;
  float r3_c1 = 0.0f, r3_c2 = 0.0f, r3_c3 = 1.0f, r3_c4 = 0.0f;

  Transform() = default;
  /// From 12 floats row by row, or 16 (a full 4x4 matrix whose last row is dropped).
  /// Any other length gives KRError.
  explicit Transform(const std::vector<float>& v);
  /// Rotation r followed by translation t.
  Transform(const Rotation& r, const Position3D& t);

  Transform operator*(const Transform& o) const;
  Transform& operator*=(const Transform& o) { return *this = *this * o; }
  /// Applies the transform to a point.
  Position3D operator*(const Position3D& p) const;
  bool operator==(const Transform& o) const;
  bool operator!=(const Transform& o) const { return !(*this == o); }
  /// True when every element differs from o's by at most epsilon.
  bool isNear(const Transform& o, float epsilon = 1e-4f) const;

  /// The origin of the frame that the transform places (column 4).
  Position3D translation() const { return {r1_c4, r2_c4, r3_c4}; }
  /// The rotation block (columns 1 to 3).
  Rotation rotation() const;
  /// The images of the frame's axes (columns 1 to 3); the x axis is the line of sight of an
  /// effector and the pointing direction of a forearm.
  Position3D xAxis() const { return {r1_c1, r2_c1, r3_c1}; }
  Position3D yAxis() const { return {r1_c2, r2_c2, r3_c2}; }
  Position3D zAxis() const { return {r1_c3, r2_c3, r3_c3}; }

  std::vector<float> toVector() const;

  static Transform fromRotX(float angle);
  static Transform fromRotY(float angle);
  static Transform fromRotZ(float angle);
  static Transform fromPosition(float x, float y, float z);
};

/// Space-separated text forms, e.g. "1 2 3 0 0 0.5" for a Position6D.
std::ostream& operator<<(std::ostream& os, const Position3D& p);
std::ostream& operator<<(std::ostream& os, const Position6D& p);
std::ostream& operator<<(std::ostream& os, const Pose2D& p);
std::ostream& operator<<(std::ostream& os, const Rotation3D& r);
std::ostream& operator<<(std::ostream& os, const Transform& t);

}  // namespace Math
}  // namespace KR
