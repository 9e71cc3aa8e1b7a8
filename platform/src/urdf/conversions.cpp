// Conversions between urdfdom's poses, Eigen and the tracker's types, and the texts that
// errors show numbers and vectors in.

#include <cmath>
#include <sstream>
#include <string>

#include "importer.h"

namespace KR {
namespace Model {
namespace importer {

Iso toIso(const urdf::Pose& p) {
  Iso t = Iso::Identity();
  t.translation() = Vec(p.position.x, p.position.y, p.position.z);
  Eigen::Quaterniond q(p.rotation.w, p.rotation.x, p.rotation.y, p.rotation.z);
  if (q.norm() > 0.0) {
    t.linear() = q.normalized().toRotationMatrix();
  }
  return t;
}

Vec axisOf(const urdf::Joint& j) {
  return Vec(j.axis.x, j.axis.y, j.axis.z);
}

bool isRotary(const urdf::Joint& j) {
  return j.type == urdf::Joint::REVOLUTE || j.type == urdf::Joint::CONTINUOUS;
}

const char* typeName(int type) {
  switch (type) {
    case urdf::Joint::REVOLUTE:
      return "revolute";
    case urdf::Joint::CONTINUOUS:
      return "continuous";
    case urdf::Joint::PRISMATIC:
      return "prismatic";
    case urdf::Joint::FLOATING:
      return "floating";
    case urdf::Joint::PLANAR:
      return "planar";
    case urdf::Joint::FIXED:
      return "fixed";
    default:
      return "of unknown type";
  }
}

double angleBetween(const Vec& a, const Vec& b) {
  return std::atan2(a.cross(b).norm(), a.dot(b));
}

std::string vecText(const Vec& v) {
  std::ostringstream os;
  os.precision(4);
  os << "(" << (std::fabs(v.x()) < 5e-7 ? 0.0 : v.x()) << " "
     << (std::fabs(v.y()) < 5e-7 ? 0.0 : v.y()) << " " << (std::fabs(v.z()) < 5e-7 ? 0.0 : v.z())
     << ")";
  return os.str();
}

std::string numText(double v) {
  std::ostringstream os;
  os.precision(4);
  os << v;
  return os.str();
}

Math::Position3D toPosition(const Vec& v) {
  const auto tiny = [](double x) { return std::fabs(x) < 1e-9 ? 0.0f : float(x); };
  return Math::Position3D(tiny(v.x()), tiny(v.y()), tiny(v.z()));
}

Math::Transform toTransform(const Iso& t) {
  Math::Transform out;
  const auto& r = t.linear();
  const Math::Position3D p = toPosition(t.translation());
  out.r1_c1 = float(r(0, 0));
  out.r1_c2 = float(r(0, 1));
  out.r1_c3 = float(r(0, 2));
  out.r2_c1 = float(r(1, 0));
  out.r2_c2 = float(r(1, 1));
  out.r2_c3 = float(r(1, 2));
  out.r3_c1 = float(r(2, 0));
  out.r3_c2 = float(r(2, 1));
  out.r3_c3 = float(r(2, 2));
  out.r1_c4 = p.x;
  out.r2_c4 = p.y;
  out.r3_c4 = p.z;
  return out;
}

}  // namespace importer
}  // namespace Model
}  // namespace KR
