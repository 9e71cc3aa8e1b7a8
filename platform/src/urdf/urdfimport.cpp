// A URDF robot and its mapping into the Robot of the tracker: the URDF read with urdfdom, its
// kinematics checked by forward kinematics at the zero pose (the `fixed` positions held) in
// double precision, the head and arm chains turned into the tracker model's closed forms.

#include <algorithm>
#include <cmath>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include <console_bridge/console.h>
#include <urdf_parser/urdf_parser.h>
#include <Eigen/Geometry>

#include <kr/error.h>
#include <kr/math/math.h>
#include <kr/model/urdfimport.h>

namespace KR {
namespace Model {

namespace {

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

// urdfdom reports through console_bridge, a process-wide handler: while a URDF is parsed the
// handler keeps the first error instead of printing it.
class CaptureHandler : public console_bridge::OutputHandler {
 public:
  void log(const std::string& text, console_bridge::LogLevel level, const char*, int) override {
    if (level >= console_bridge::CONSOLE_BRIDGE_LOG_ERROR && fError.empty()) {
      fError = text;
    }
  }
  std::string fError;
};

std::mutex gConsoleMutex;

// The model urdfdom reads, or its error.
urdf::ModelInterfaceSharedPtr parseUrdf(const std::string& text, std::string& error) {
  std::lock_guard<std::mutex> lock(gConsoleMutex);
  CaptureHandler handler;
  console_bridge::useOutputHandler(&handler);
  urdf::ModelInterfaceSharedPtr model;
  try {
    model = urdf::parseURDF(text);
  } catch (const std::exception& e) {
    handler.fError = e.what();
    model.reset();
  }
  console_bridge::restorePreviousOutputHandler();
  if (!model) {
    error = handler.fError.empty() ? std::string("not a URDF") : handler.fError;
    // console_bridge texts may end in a newline.
    while (!error.empty() && (error.back() == '\n' || error.back() == '\r')) {
      error.pop_back();
    }
  }
  return model;
}

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

struct JointInfo {
  const urdf::Joint* joint = nullptr;
  std::string role;  // the mapping's key path ("head/yaw", "arms/left/elbow_roll")
};

class Importer {
 public:
  Importer(const UrdfMapping& mapping, std::string mappingName, const urdf::ModelInterface& model,
           std::string urdfName, std::vector<std::string>* notes)
      : m(mapping),
        fMap(std::move(mappingName)),
        fModel(model),
        fUrdf(std::move(urdfName)),
        fNotes(notes) {}

  void run();

  // Results.
  std::string name;
  int type = 0;
  bool canLookBehind = false;
  bool canPointAt = false;
  float torsoHeight = 0.0f;
  std::array<std::array<float, 3>, kTrackEffectorCount> cameras{};
  float torsoMass = Robot().getTorsoMass();
  float headMass = Robot().getHeadMass();
  std::array<float, 2> armMass{Robot().getArmMass("LArm"), Robot().getArmMass("RArm")};
  std::map<std::string, JointServo> servos;
  KRTrackerModel model;
  std::map<std::string, TrackerJoint> joints;

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

  void checkFixed();
  void torso();
  void head();
  void arms();
  void arm(int side);
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
  std::array<std::vector<const urdf::Joint*>, 2> fArmChains;
};

void Importer::computePoses() {
  const urdf::LinkConstSharedPtr root = fModel.getRoot();
  std::vector<const urdf::Link*> stack{root.get()};
  fPose[root->name] = Iso::Identity();
  while (!stack.empty()) {
    const urdf::Link* l = stack.back();
    stack.pop_back();
    const Iso& parent = fPose[l->name];
    for (const urdf::JointSharedPtr& j : l->child_joints) {
      const Iso pose =
          parent * toIso(j->parent_to_joint_origin_transform) * motion(*j, positionOf(*j));
      const double far = pose.translation().norm();
      if (!std::isfinite(far) || far > kMaxReach || !pose.linear().allFinite()) {
        failUrdf("joint '" + j->name + "'", "puts its child link '" + j->child_link_name +
                                                "' out of range (" + numText(far) +
                                                " m from the root link)");
      }
      fPose[j->child_link_name] = pose;
    }
    for (const urdf::LinkSharedPtr& c : l->child_links) {
      stack.push_back(c.get());
    }
  }
}

bool Importer::chain(const urdf::Link* from, const urdf::Link* to,
                     std::vector<const urdf::Joint*>& out) const {
  out.clear();
  const urdf::Link* l = to;
  while (l != from) {
    if (!l->parent_joint) {
      out.clear();
      return false;
    }
    out.push_back(l->parent_joint.get());
    l = fModel.getLink(l->parent_joint->parent_link_name).get();
    if (!l) {
      out.clear();
      return false;
    }
  }
  std::reverse(out.begin(), out.end());
  return true;
}

double Importer::subtreeMass(const urdf::Link* l) const {
  double mass = 0.0;
  std::vector<const urdf::Link*> stack{l};
  while (!stack.empty()) {
    const urdf::Link* k = stack.back();
    stack.pop_back();
    if (k->inertial && std::isfinite(k->inertial->mass) && k->inertial->mass > 0.0) {
      mass += k->inertial->mass;
    }
    for (const urdf::LinkSharedPtr& c : k->child_links) {
      stack.push_back(c.get());
    }
  }
  return mass;
}

void Importer::checkFixed() {
  for (const auto& [jointName, position] : m.fixed) {
    const std::string path = "fixed/" + jointName;
    const urdf::JointConstSharedPtr j = fModel.getJoint(jointName);
    if (!j) {
      failMap(path, "joint '" + jointName + "' does not exist in " + fUrdf);
    }
    if (j->type != urdf::Joint::REVOLUTE && j->type != urdf::Joint::CONTINUOUS &&
        j->type != urdf::Joint::PRISMATIC) {
      failMap(path, "joint '" + jointName + "' is " + typeName(j->type) +
                        ": only revolute, continuous and prismatic joints are held at a position");
    }
    if (j->type != urdf::Joint::CONTINUOUS && j->limits &&
        (position < j->limits->lower - 1e-9 || position > j->limits->upper + 1e-9)) {
      failMap(path, numText(position) + " is outside the joint's limits [" +
                        numText(j->limits->lower) + ", " + numText(j->limits->upper) + "]");
    }
  }
}

void Importer::torso() {
  fTorso = link(m.torso, "torso");
  const Iso pose = fPose.at(fTorso->name);
  const Vec z = pose.linear().col(2);
  if (angleBetween(z, Vec::UnitZ()) > kAxisTolerance) {
    failMap("torso", "link '" + m.torso + "' is not level at the zero pose: its z axis is " +
                         vecText(z) + " in the frame of the URDF's root link '" +
                         fModel.getRoot()->name + "' (the torso frame has z up)");
  }
  if (pose.translation().z() < -kPointTolerance) {
    failMap("torso", "link '" + m.torso + "' is " + numText(-pose.translation().z()) +
                         " m below the URDF's root link '" + fModel.getRoot()->name +
                         "' (the root is the ground under the robot)");
  }
  torsoHeight = std::max(0.0f, float(pose.translation().z()));
  fTorsoInv = pose.inverse();
}

void Importer::checkRotary(const JointInfo& j) {
  if (!isRotary(*j.joint)) {
    failJoint(j, std::string("is ") + typeName(j.joint->type) +
                     ": the tracker turns it, so it must be revolute or continuous");
  }
  if (axisOf(*j.joint).norm() < 1e-9) {
    failJoint(j, "its axis is zero");
  }
}

void Importer::checkAxis(const JointInfo& j, const Vec& want, const char* wantText) {
  const Vec axis = jointFrame(*j.joint).linear() * axisOf(*j.joint).normalized();
  const double off = angleBetween(axis, want);
  if (off <= kAxisTolerance) {
    return;
  }
  const std::string at = " at the zero pose";
  if (angleBetween(axis, -want) <= kAxisTolerance) {
    failJoint(j, "its axis points the other way, " + vecText(axis) + " in the torso frame" + at +
                     ": a positive angle must turn about " + wantText +
                     " (flip the axis and swap the limits)");
  }
  if (want.z() != 0.0) {
    failJoint(j, "its axis is not vertical in the torso frame" + at + ": " + vecText(axis) + ", " +
                     numText(off) + " rad from the torso's z axis");
  }
  if (want.y() != 0.0 && std::fabs(axis.z()) > std::sin(kAxisTolerance)) {
    failJoint(j, "its axis is not horizontal in the torso frame" + at + ": " + vecText(axis) +
                     ", tilted " + numText(std::asin(std::min(1.0, std::fabs(axis.z())))) + " rad");
  }
  failJoint(j, "its axis is " + vecText(axis) + " in the torso frame" + at + ", " + numText(off) +
                   " rad from " + wantText);
}

TrackerJoint Importer::trackerJoint(const JointInfo& j) {
  const urdf::Joint& u = *j.joint;
  TrackerJoint t;
  t.name = u.name;
  if (t.name.empty() || t.name.size() > kMaxJointNameLength ||
      std::any_of(t.name.begin(), t.name.end(),
                  [](char c) { return std::isspace(static_cast<unsigned char>(c)); })) {
    failJoint(j, "a joint the tracker moves has a name of 1 to " +
                     std::to_string(kMaxJointNameLength) +
                     " characters without spaces (it is copied on every cycle without "
                     "allocating); rename it in the URDF");
  }
  if (u.type == urdf::Joint::CONTINUOUS) {
    t.min = -Math::kPi;
    t.max = Math::kPi;
  } else {
    if (!u.limits) {
      failJoint(j, "has no <limit>");
    }
    if (!(u.limits->lower <= u.limits->upper) || !std::isfinite(u.limits->lower) ||
        !std::isfinite(u.limits->upper) || std::fabs(u.limits->lower) > 100.0 ||
        std::fabs(u.limits->upper) > 100.0) {
      failJoint(j, "its limits [" + numText(u.limits->lower) + ", " + numText(u.limits->upper) +
                       "] are not a range (lower must not be above upper)");
    }
    t.min = float(u.limits->lower);
    t.max = float(u.limits->upper);
  }
  const auto velocity = m.maxVelocity.find(u.name);
  if (velocity != m.maxVelocity.end()) {
    t.maxVelocity = velocity->second;
  } else if (u.limits && std::isfinite(u.limits->velocity) && u.limits->velocity > 0.0 &&
             u.limits->velocity < 1e6) {
    t.maxVelocity = float(u.limits->velocity);
  } else {
    failJoint(j,
              "has no velocity limit: give <limit velocity=\"...\"> in the URDF or "
              "max_velocity/" +
                  u.name + " in the mapping");
  }
  JointServo servo;
  if (u.limits && std::isfinite(u.limits->effort) && u.limits->effort > 0.0 &&
      u.limits->effort < 1e6) {
    servo.maxTorque = float(u.limits->effort);
  }
  const auto given = m.servos.find(u.name);
  if (given != m.servos.end()) {
    servo.stiffness = given->second.stiffness.value_or(servo.stiffness);
    servo.maxTorque = given->second.maxTorque.value_or(servo.maxTorque);
    servo.armature = given->second.armature.value_or(servo.armature);
  }
  servos[t.name] = servo;
  joints[t.name] = t;
  return t;
}

void Importer::head() {
  fYaw = joint(m.headYaw, "head/yaw");
  fPitch = joint(m.headPitch, "head/pitch");
  checkRotary(fYaw);
  checkRotary(fPitch);

  std::vector<const urdf::Joint*> path;
  std::vector<Iso> cameraPoses;
  for (std::size_t i = 0; i < m.cameras.size(); ++i) {
    const std::string key = "head/cameras[" + std::to_string(i) + "]/frame";
    const UrdfCamera& c = m.cameras[i];
    const urdf::Link* frame = link(c.frame, key);
    if (!chain(fTorso, frame, path)) {
      failMap(key, "camera frame '" + c.frame + "' is not below the torso link '" + m.torso +
                       "' in " + fUrdf);
    }
    const auto at = [&](const urdf::Joint* j) {
      return std::find(path.begin(), path.end(), j) - path.begin();
    };
    const auto iy = at(fYaw.joint), ip = at(fPitch.joint);
    const auto n = static_cast<std::ptrdiff_t>(path.size());
    if (iy < n && ip < n && ip < iy) {
      failUrdf("joints '" + m.headPitch + "' and '" + m.headYaw + "'",
               "the head is in the other order: the pitch joint '" + m.headPitch +
                   "' is nearer the torso than the yaw joint '" + m.headYaw +
                   "' (the tracker's head turns yaw first, then pitch)");
    }
    if (iy == n) {
      failMap(key, "camera frame '" + c.frame + "' is not below the yaw joint '" + m.headYaw +
                       "' in " + fUrdf);
    }
    if (ip == n) {
      failMap(key, "camera frame '" + c.frame + "' is not below the pitch joint '" + m.headPitch +
                       "' in " + fUrdf);
    }
    for (const urdf::Joint* j : path) {
      if (j != fYaw.joint && j != fPitch.joint && j->type != urdf::Joint::FIXED &&
          !m.fixed.count(j->name)) {
        failUrdf("joint '" + j->name + "'",
                 std::string("a third moving joint (") + typeName(j->type) +
                     ") between the torso '" + m.torso + "' and the camera '" + c.frame +
                     "', besides the yaw joint '" + m.headYaw + "' and the pitch joint '" +
                     m.headPitch + "': the tracker's head has two; hold it with fixed/" + j->name +
                     " in the mapping");
      }
    }
    cameraPoses.push_back(linkPose(frame));
  }

  checkAxis(fYaw, Vec::UnitZ(), "the torso's z axis (up)");
  checkAxis(fPitch, Vec::UnitY(), "the torso's y axis (left), so that a positive pitch looks down");

  TrackerHead& h = model.head;
  h.yaw = trackerJoint(fYaw);
  h.pitch = trackerJoint(fPitch);
  const Vec yawAt = jointFrame(*fYaw.joint).translation();
  const Vec pitchAt = jointFrame(*fPitch.joint).translation();
  h.headPosition = toPosition(yawAt);
  h.yawToPitch = toPosition(pitchAt - yawAt);

  // The sensor's line of sight is the model's x axis: an optical frame (z forward, x right,
  // y down) turns onto x forward, y left, z up.
  Eigen::Matrix3d opticalToBody;
  opticalToBody << 0, -1, 0, 0, 0, -1, 1, 0, 0;
  for (int e = 0; e < kTrackEffectorCount; ++e) {
    const std::size_t i = std::size_t(e) < m.cameras.size() ? std::size_t(e) : 0;
    const UrdfCamera& c = m.cameras[i];
    Iso effector = cameraPoses[i];
    effector.translation() -= pitchAt;
    if (c.axis == 'z') {
      effector.linear() = Eigen::Matrix3d(effector.linear() * opticalToBody);
    }
    h.effectorTransforms[e] = toTransform(effector);
    const UrdfCamera& first = m.cameras[0];
    cameras[e] = {c.horizontalFov.value_or(*first.horizontalFov),
                  c.verticalFov.value_or(*first.verticalFov), c.range.value_or(*first.range)};
  }
  headMass = float(subtreeMass(fModel.getLink(fYaw.joint->child_link_name).get()));
}

void Importer::arm(int side) {
  const UrdfArm& a = m.arms[side];
  const std::string base = side == 0 ? "arms/left" : "arms/right";
  TrackerArm& out = side == 0 ? model.leftArm : model.rightArm;
  // In chain order from the torso: shoulder pitch, shoulder roll, elbow roll, elbow yaw, wrist.
  std::vector<JointInfo> order = {joint(a.shoulderPitch, base + "/shoulder_pitch"),
                                  joint(a.shoulderRoll, base + "/shoulder_roll"),
                                  joint(a.elbowRoll, base + "/elbow_roll"),
                                  joint(a.elbowYaw, base + "/elbow_yaw")};
  if (!a.wristYaw.empty()) {
    order.push_back(joint(a.wristYaw, base + "/wrist_yaw"));
  }
  const urdf::Link* hand = link(a.hand, base + "/hand");
  std::vector<const urdf::Joint*> path;
  if (!chain(fTorso, hand, path)) {
    failMap(base + "/hand",
            "link '" + a.hand + "' is not below the torso link '" + m.torso + "' in " + fUrdf);
  }
  const auto fits = [&](const std::string& why) {
    failMap(base,
            "the arm's chain does not fit the tracker's arm (shoulder pitch about y, "
            "shoulder roll about z at the same point, then at the elbow, level with the "
            "shoulder, elbow roll about z and elbow yaw about x, the hand on the "
            "forearm's x axis): " +
                why + "; leave out 'arms' to load the robot without pointing");
  };
  std::size_t next = 0;
  for (const urdf::Joint* j : path) {
    if (next < order.size() && j == order[next].joint) {
      ++next;
    } else if (std::any_of(order.begin(), order.end(),
                           [&](const JointInfo& o) { return o.joint == j; })) {
      fits("joint '" + j->name + "' comes before '" + order[next].joint->name +
           "' from the torso (the order is shoulder_pitch, shoulder_roll, elbow_roll, "
           "elbow_yaw, wrist_yaw)");
    } else if (j->type != urdf::Joint::FIXED && !m.fixed.count(j->name)) {
      fits("joint '" + j->name + "' between the torso and the hand '" + a.hand +
           "' moves and has no role (hold it with fixed/" + j->name + ")");
    }
  }
  if (next < order.size()) {
    fits("joint '" + order[next].joint->name + "' (" + order[next].role +
         ") is not between the torso and the hand '" + a.hand + "'");
  }
  for (const JointInfo& j : order) {
    checkRotary(j);
  }
  const auto axisIn = [&](const JointInfo& j) {
    return Vec(jointFrame(*j.joint).linear() * axisOf(*j.joint).normalized());
  };
  const auto originOf = [&](const JointInfo& j) { return Vec(jointFrame(*j.joint).translation()); };
  if (angleBetween(axisIn(order[0]), Vec::UnitY()) > kAxisTolerance) {
    fits("the shoulder pitch axis is " + vecText(axisIn(order[0])) +
         " in the torso frame, not (0 1 0)");
  }
  if (angleBetween(axisIn(order[1]), Vec::UnitZ()) > kAxisTolerance) {
    fits("the shoulder roll axis is " + vecText(axisIn(order[1])) +
         " in the torso frame, not (0 0 1)");
  }
  const Vec shoulder = originOf(order[0]);
  if ((originOf(order[1]) - shoulder).norm() > kPointTolerance) {
    fits("the shoulder roll joint is " + numText((originOf(order[1]) - shoulder).norm()) +
         " m from the shoulder pitch joint");
  }
  const Vec elbow = originOf(order[2]);
  if ((originOf(order[3]) - elbow).norm() > kPointTolerance) {
    fits("the elbow yaw joint is " + numText((originOf(order[3]) - elbow).norm()) +
         " m from the elbow roll joint");
  }
  // The pointing computation bends the elbow in the torso's horizontal plane at the zero pose:
  // the upper arm a translation along x and y (robots/README.md, "Arm chain").
  const Vec zElbow = axisIn(order[2]);
  const Vec xForearm = axisIn(order[3]);
  if (angleBetween(zElbow, Vec::UnitZ()) > kAxisTolerance) {
    fits("the elbow roll axis is " + vecText(zElbow) + " in the torso frame, not (0 0 1)");
  }
  if (angleBetween(xForearm, Vec::UnitX()) > kAxisTolerance) {
    fits("the elbow yaw axis is " + vecText(xForearm) + " in the torso frame, not (1 0 0)");
  }
  if (std::fabs(elbow.z() - shoulder.z()) > kPointTolerance) {
    fits("the elbow is " + numText(elbow.z() - shoulder.z()) +
         " m above the shoulder at the zero pose (the upper arm must lie along x and y)");
  }
  if (order.size() == 5 && angleBetween(axisIn(order[4]), xForearm) > kAxisTolerance &&
      angleBetween(axisIn(order[4]), -xForearm) > kAxisTolerance) {
    fits("the wrist yaw axis is not along the forearm");
  }
  const Vec toHand = linkPose(hand).translation() - elbow;
  if (toHand.cross(xForearm).norm() > 1e-4 || toHand.dot(xForearm) <= 0.0) {
    fits("the hand '" + a.hand + "' is not on the forearm's axis " + vecText(xForearm) +
         " in front of the elbow");
  }
  out.shoulderPosition = toPosition(shoulder);
  Iso upper = Iso::Identity();
  upper.translation() = elbow - shoulder;
  out.armTransform = toTransform(upper);
  // Tracker order: shoulder pitch, shoulder roll, elbow yaw, elbow roll, wrist yaw.
  out.joints[0] = trackerJoint(order[0]);
  out.joints[1] = trackerJoint(order[1]);
  out.joints[2] = trackerJoint(order[3]);
  out.joints[3] = trackerJoint(order[2]);
  if (order.size() == 5) {
    out.joints[4] = trackerJoint(order[4]);
  }
  armMass[side] = float(subtreeMass(fModel.getLink(order[0].joint->child_link_name).get()));
}

void Importer::arms() {
  canPointAt = m.arms[0].given && m.arms[1].given;
  if (canPointAt) {
    arm(0);
    arm(1);
  }
}

void Importer::derive() {
  // Masses: the head below the yaw joint, each arm below its shoulder pitch, the rest the torso.
  std::vector<urdf::LinkSharedPtr> links;
  fModel.getLinks(links);
  double total = 0.0;
  for (const urdf::LinkSharedPtr& l : links) {
    if (l->inertial && std::isfinite(l->inertial->mass) && l->inertial->mass > 0.0) {
      total += l->inertial->mass;
    }
  }
  const Robot defaults;
  const double rest = total - headMass - (canPointAt ? armMass[0] + armMass[1] : 0.0);
  const auto orDefault = [](float v, float fallback) {
    return std::isfinite(v) && v > 1e-6f && v < 1e9f ? v : fallback;
  };
  if (!(headMass > 1e-6f) || !(rest > 1e-6)) {
    note(fUrdf + ": the URDF gives no masses for the head or the torso: the defaults are used");
  }
  headMass = orDefault(headMass, defaults.getHeadMass());
  torsoMass = orDefault(float(rest), defaults.getTorsoMass());
  armMass[0] = orDefault(armMass[0], defaults.getArmMass("LArm"));
  armMass[1] = orDefault(armMass[1], defaults.getArmMass("RArm"));

  // Whole-body bounds: the head's yaw range; the pitch range in which the head stays inside
  // its limits for every effector, the depth sensor's tilt taken off (computeLookAtWB).
  const TrackerHead& h = model.head;
  const Math::Position3D sight = h.getNeckToEffectorTransform(TRACK_EFFECTOR_DEPTH_CAMERA).xAxis();
  const float tilt = std::atan2(sight.z, sight.x);  // added to the whole-body pitch
  float pitchMin = h.pitch.min - std::min(0.0f, tilt);
  float pitchMax = h.pitch.max - std::max(0.0f, tilt);
  if (pitchMin > pitchMax) {
    pitchMin = h.pitch.min;
    pitchMax = h.pitch.max;
  }
  model.wbYawMin = m.wbYawMin.value_or(h.yaw.min);
  model.wbYawMax = m.wbYawMax.value_or(h.yaw.max);
  model.wbPitchMin = m.wbPitchMin.value_or(pitchMin);
  model.wbPitchMax = m.wbPitchMax.value_or(pitchMax);
  // The top camera's height above the ground with the head level.
  const Math::Transform top = Math::transformFromPosition3D(h.headPosition + h.yawToPitch) *
                              h.getNeckToEffectorTransform(TRACK_EFFECTOR_CAMERA_TOP);
  model.wbLookAtHeight = m.wbLookAtHeight.value_or(torsoHeight + top.translation().z);
  if (model.wbYawMin > model.wbYawMax) {
    failMap("whole_body", "yaw_min (" + numText(model.wbYawMin) + ") is above yaw_max (" +
                              numText(model.wbYawMax) + ")");
  }
  if (model.wbPitchMin > model.wbPitchMax) {
    failMap("whole_body", "pitch_min (" + numText(model.wbPitchMin) + ") is above pitch_max (" +
                              numText(model.wbPitchMax) + ")");
  }
  // A robot that cannot navigate turns on the spot to look behind; a wheeled one turns its
  // base by navigating instead.
  canLookBehind = m.canLookBehind.value_or(type == 0);
}

void Importer::run() {
  name = m.name;
  type = m.type;
  for (const auto& [jointName, unused] : m.maxVelocity) {
    (void)unused;
    if (!fModel.getJoint(jointName)) {
      failMap("max_velocity/" + jointName, "joint '" + jointName + "' does not exist in " + fUrdf);
    }
  }
  for (const auto& [jointName, unused] : m.servos) {
    (void)unused;
    if (!fModel.getJoint(jointName)) {
      failMap("servos/" + jointName, "joint '" + jointName + "' does not exist in " + fUrdf);
    }
  }
  checkFixed();
  computePoses();
  torso();
  head();
  arms();
  for (const auto& [jointName, unused] : m.fixed) {
    (void)unused;
    if (fMapped.count(jointName)) {
      failMap("fixed/" + jointName, "joint '" + jointName + "' is mapped as " +
                                        fMapped.at(jointName) + ": the tracker moves it");
    }
  }
  for (const auto& [jointName, unused] : m.maxVelocity) {
    (void)unused;
    if (!fMapped.count(jointName)) {
      failMap("max_velocity/" + jointName,
              "joint '" + jointName + "' is not a joint the tracker moves");
    }
  }
  derive();
}

std::string readFile(const std::string& path, const std::string& what, const std::string& who) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    throw KRError("UrdfImport", "robotFromUrdfMapping",
                  UrdfImport::oneLine(who + "cannot read " + what + " '" + path + "'"));
  }
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string folderOf(const std::string& path) {
  const auto slash = path.find_last_of('/');
  return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

std::string resolve(const std::string& baseDir, const std::string& path) {
  if (!path.empty() && path[0] == '/') {
    return path;
  }
  return (baseDir.empty() ? std::string(".") : baseDir) + "/" + path;
}

}  // namespace

std::unique_ptr<Robot> UrdfImport::robotFromTexts(const std::string& yaml,
                                                  const std::string& mappingName,
                                                  const std::string& urdf,
                                                  const std::string& urdfName,
                                                  std::vector<std::string>* notes) {
  const UrdfMapping mapping = readMapping(yaml, mappingName);
  if (urdf.size() > kMaxUrdfBytes) {
    throw KRError("UrdfImport", "robotFromUrdfMapping",
                  oneLine(urdfName + ": is " + std::to_string(urdf.size()) +
                          " bytes, more than the " + std::to_string(kMaxUrdfBytes) + " accepted"));
  }
  std::string error;
  const urdf::ModelInterfaceSharedPtr model = parseUrdf(urdf, error);
  if (!model) {
    throw KRError("UrdfImport", "robotFromUrdfMapping",
                  oneLine(urdfName + ": refused by urdfdom: " + error));
  }
  Importer in(mapping, mappingName, *model, urdfName, notes);
  in.run();
  auto robot = std::make_unique<Robot>();
  robot->fName = in.name;
  robot->fType = in.type;
  robot->fCanLookBehind = in.canLookBehind;
  robot->fCanPointAt = in.canPointAt;
  robot->fTorsoHeight = in.torsoHeight;
  for (int i = 0; i < kTrackEffectorCount; ++i) {
    robot->fCameras[i] = {in.cameras[i][0], in.cameras[i][1], in.cameras[i][2]};
  }
  robot->fTorsoMass = in.torsoMass;
  robot->fHeadMass = in.headMass;
  robot->fArmMass = in.armMass;
  robot->fServos = std::move(in.servos);
  robot->fModel = std::move(in.model);
  robot->fJoints = std::move(in.joints);
  return robot;
}

std::unique_ptr<Robot> UrdfImport::robotFromUrdfMappingText(const std::string& yaml,
                                                            const std::string& baseDir,
                                                            const std::string& mappingName,
                                                            std::vector<std::string>* notes) {
  const UrdfMapping mapping = readMapping(yaml, mappingName);
  const std::string path = resolve(baseDir, mapping.urdf);
  const std::string urdf = readFile(path, "the URDF", mappingName + ": urdf: ");
  return robotFromTexts(yaml, mappingName, urdf, path, notes);
}

std::unique_ptr<Robot> UrdfImport::robotFromUrdfMapping(const std::string& path,
                                                        std::vector<std::string>* notes) {
  const std::string yaml = readFile(path, "the robot mapping", "");
  return robotFromUrdfMappingText(yaml, folderOf(path), path, notes);
}

std::string UrdfImport::urdfError(const std::string& urdf) {
  std::string error;
  return parseUrdf(urdf, error) ? std::string() : error;
}

std::string UrdfImport::oneLine(std::string text) {
  constexpr std::size_t kMaxLength = 2000;
  if (text.size() > kMaxLength) {
    text.resize(kMaxLength);
    text += "...";
  }
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
      c = ' ';
    }
  }
  return text;
}

bool UrdfImport::isMappingFile(const std::string& path) {
  const auto ends = [&](const std::string& suffix) {
    return path.size() > suffix.size() &&
           path.compare(path.size() - suffix.size(), suffix.size(), suffix) == 0;
  };
  return ends(".yaml") || ends(".yml");
}

std::string UrdfImport::urdfPath(const std::string& mappingPath, const UrdfMapping& mapping) {
  return resolve(folderOf(mappingPath), mapping.urdf);
}

}  // namespace Model
}  // namespace KR
