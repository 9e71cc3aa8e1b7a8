// A URDF robot and its mapping into the Robot of the tracker: its kinematics checked by forward
// kinematics at the zero pose (the `fixed` positions held) in double precision, the head and arm
// chains (importhead.cpp, importarms.cpp) turned into the tracker model's closed forms.

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include <kr/math/math.h>

#include "importer.h"

namespace KR {
namespace Model {
namespace importer {

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
  const Vec axis = axisInTorso(j);
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

void Importer::checkJointsExist() {
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
}

// Held joints must not be moved by the tracker; velocities are given for joints it moves.
void Importer::checkMoved() {
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
}

void Importer::run() {
  name = m.name;
  type = m.type;
  checkJointsExist();
  checkFixed();
  computePoses();
  torso();
  head();
  arms();
  checkMoved();
  derive();
}

}  // namespace importer
}  // namespace Model
}  // namespace KR
