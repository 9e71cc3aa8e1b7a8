#pragma once
// Internal to the URDF import: the Importer that turns a URDF model and its mapping into the
// tracker's robot, and the conversions and texts its steps share.

#include <array>
#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include <urdf_model/model.h>
#include <urdf_world/types.h>
#include <Eigen/Geometry>

#include <kr/error.h>
#include <kr/math/types.h>
#include <kr/model/urdfimport.h>

#include "../robotparts.h"

namespace KR {
namespace Model {
namespace importer {

using Iso = Eigen::Isometry3d;
using Vec = Eigen::Vector3d;

constexpr std::size_t kMaxJointNameLength = 15;  // as in the XML descriptions
constexpr std::size_t kMaxUrdfBytes = 4 << 20;
// How far an axis may be from the direction the tracker's closed forms need [rad], and two
// joints' origins from each other where the model has them at one point [m].
constexpr double kAxisTolerance = 1e-5;
constexpr double kPointTolerance = 1e-6;
// Links farther than this from the root are a mistake (and would not print as floats).
constexpr double kMaxReach = 1000.0;

// The model urdfdom reads, or its error (urdfparse.cpp).
urdf::ModelInterfaceSharedPtr parseUrdf(const std::string& text, std::string& error);

// conversions.cpp
Iso toIso(const urdf::Pose& p);
Vec axisOf(const urdf::Joint& j);
bool isRotary(const urdf::Joint& j);
const char* typeName(int type);
double angleBetween(const Vec& a, const Vec& b);
std::string vecText(const Vec& v);
std::string numText(double v);
Math::Position3D toPosition(const Vec& v);
Math::Transform toTransform(const Iso& t);

struct JointInfo {
  const urdf::Joint* joint = nullptr;
  std::string role;  // the mapping's key path ("head/yaw", "arms/left/elbow_roll")
};

// Fills the robot's parts, which it is, from the URDF model and the mapping.
class Importer : public RobotParts {
 public:
  Importer(const UrdfMapping& mapping, std::string mappingName, const urdf::ModelInterface& model,
           std::string urdfName, std::vector<std::string>* notes)
      : m(mapping),
        fMap(std::move(mappingName)),
        fModel(model),
        fUrdf(std::move(urdfName)),
        fNotes(notes) {}

  void run();

 private:
  [[noreturn]] void failMap(const std::string& path, const std::string& what) const {
    throw KRError("UrdfImport", "robotFromUrdfMapping",
                  UrdfImport::oneLine(fMap + ": " + path + ": " + what));
  }
  [[noreturn]] void failJoint(const JointInfo& j, const std::string& what) const {
    throw KRError(
        "UrdfImport", "robotFromUrdfMapping",
        UrdfImport::oneLine(fUrdf + ": joint '" + j.joint->name + "' (" + j.role + "): " + what));
  }
  [[noreturn]] void failUrdf(const std::string& element, const std::string& what) const {
    throw KRError("UrdfImport", "robotFromUrdfMapping",
                  UrdfImport::oneLine(fUrdf + ": " + element + ": " + what));
  }
  void note(const std::string& text) {
    if (fNotes) {
      fNotes->push_back(UrdfImport::oneLine(text));
    }
  }

  const urdf::Link* link(const std::string& linkName, const std::string& path) const {
    const urdf::LinkConstSharedPtr l = fModel.getLink(linkName);
    if (!l) {
      failMap(path, "link '" + linkName + "' does not exist in " + fUrdf);
    }
    return l.get();
  }

  JointInfo joint(const std::string& jointName, const std::string& path) {
    const urdf::JointConstSharedPtr j = fModel.getJoint(jointName);
    if (!j) {
      failMap(path, "joint '" + jointName + "' does not exist in " + fUrdf);
    }
    const auto [it, added] = fMapped.emplace(jointName, path);
    if (!added) {
      failMap(path, "joint '" + jointName + "' is already mapped as " + it->second);
    }
    return {j.get(), path};
  }

  double positionOf(const urdf::Joint& j) const {
    const auto it = m.fixed.find(j.name);
    return it == m.fixed.end() ? 0.0 : it->second;
  }

  Iso motion(const urdf::Joint& j, double q) const {
    Iso t = Iso::Identity();
    const Vec a = axisOf(j);
    if (q == 0.0 || a.norm() == 0.0) {
      return t;
    }
    if (isRotary(j)) {
      t.linear() = Eigen::AngleAxisd(q, a.normalized()).toRotationMatrix();
    } else if (j.type == urdf::Joint::PRISMATIC) {
      t.translation() = q * a.normalized();
    }
    return t;
  }

  // Poses in the URDF root's frame at the zero pose (the held joints at their positions).
  void computePoses();
  // The joints from `from` down to `to`, nearest `from` first; false when `to` is not below.
  bool chain(const urdf::Link* from, const urdf::Link* to,
             std::vector<const urdf::Joint*>& out) const;
  // A joint's frame in the torso frame at the zero pose (before its own motion).
  Iso jointFrame(const urdf::Joint& j) const {
    return fTorsoInv * fPose.at(j.parent_link_name) * toIso(j.parent_to_joint_origin_transform);
  }
  Iso linkPose(const urdf::Link* l) const { return fTorsoInv * fPose.at(l->name); }
  double subtreeMass(const urdf::Link* l) const;

  // A joint's axis and origin in the torso frame at the zero pose.
  Vec axisInTorso(const JointInfo& j) const {
    return Vec(jointFrame(*j.joint).linear() * axisOf(*j.joint).normalized());
  }
  Vec originInTorso(const JointInfo& j) const { return Vec(jointFrame(*j.joint).translation()); }

  void checkJointsExist();
  void checkFixed();
  void checkMoved();
  void torso();

  // importhead.cpp: the yaw and pitch joints and the cameras above them.
  void head();
  // Where camera i is, its chain from the torso checked.
  Iso cameraPose(std::size_t i);
  void checkHeadOrder(const std::string& key, const UrdfCamera& c,
                      const std::vector<const urdf::Joint*>& path) const;
  void effectors(const std::vector<Iso>& cameraPoses, const Vec& pitchAt);

  // importarms.cpp: both arms or none, each a chain of the tracker's shape.
  void arms();
  void arm(int side);
  std::vector<JointInfo> armJoints(const UrdfArm& a, const std::string& base);
  [[noreturn]] void failArmShape(const std::string& base, const std::string& why) const;
  void checkArmChain(const UrdfArm& a, const std::string& base, const std::vector<JointInfo>& order,
                     const urdf::Link* hand) const;
  void checkShoulder(const std::string& base, const std::vector<JointInfo>& order) const;
  void checkElbow(const std::string& base, const std::vector<JointInfo>& order) const;
  void checkHand(const UrdfArm& a, const std::string& base, const std::vector<JointInfo>& order,
                 const urdf::Link* hand) const;
  void fillArm(int side, const std::vector<JointInfo>& order);

  void derive();
  TrackerJoint trackerJoint(const JointInfo& j);
  void checkRotary(const JointInfo& j);
  // A joint's axis in the torso frame at the zero pose must be `want` (the error names `what`).
  void checkAxis(const JointInfo& j, const Vec& want, const char* wantText);

  const UrdfMapping& m;
  std::string fMap;
  const urdf::ModelInterface& fModel;
  std::string fUrdf;
  std::vector<std::string>* fNotes;
  std::map<std::string, std::string> fMapped;  // joint -> mapping path
  std::map<std::string, Iso> fPose;            // link -> pose in the root frame
  const urdf::Link* fTorso = nullptr;
  Iso fTorsoInv = Iso::Identity();
  JointInfo fYaw, fPitch;
};

}  // namespace importer
}  // namespace Model
}  // namespace KR
