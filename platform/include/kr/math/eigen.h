#pragma once
// Conversions between the KR::Math value types and Eigen, for code that works with Eigen.
// Kept apart from math.h so that including the math library does not pull in Eigen.

#include <Eigen/Geometry>

#include <kr/math/types.h>

namespace KR {
namespace Math {

inline Eigen::Vector3f toEigen(const Position3D& p) {
  return {p.x, p.y, p.z};
}
inline Position3D fromEigen(const Eigen::Vector3f& v) {
  return {v.x(), v.y(), v.z()};
}
Eigen::Isometry3f toEigen(const Transform& t);
Transform fromEigen(const Eigen::Isometry3f& t);
Eigen::Matrix3f toEigen(const Rotation& r);
Rotation fromEigen(const Eigen::Matrix3f& m);

}  // namespace Math
}  // namespace KR
