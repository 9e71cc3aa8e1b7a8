#pragma once
// Reference poses built with Eigen, independently of KR::Math, for the frame tests.

#include <vector>

#include <Eigen/Geometry>

namespace posetest {

/// Translation (x, y, z) and rotation Rz(wz) * Ry(wy) * Rx(wx).
inline Eigen::Isometry3f isometry(float x, float y, float z, float wx, float wy, float wz) {
  Eigen::Isometry3f t = Eigen::Isometry3f::Identity();
  t.translate(Eigen::Vector3f(x, y, z));
  t.rotate(Eigen::AngleAxisf(wz, Eigen::Vector3f::UnitZ()) *
           Eigen::AngleAxisf(wy, Eigen::Vector3f::UnitY()) *
           Eigen::AngleAxisf(wx, Eigen::Vector3f::UnitX()));
  return t;
}

/// The 3x4 upper part, row by row, as the motion service sends transforms.
inline std::vector<float> rows(const Eigen::Isometry3f& t) {
  std::vector<float> out;
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 4; ++c)
      out.push_back(t.matrix()(r, c));
  }
  return out;
}

}  // namespace posetest
