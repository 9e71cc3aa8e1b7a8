// The arms of a URDF robot: each a chain of the tracker's arm (shoulder pitch and roll at one
// point, elbow roll and yaw at another, level with the shoulder, the hand on the forearm's axis).

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "importer.h"

namespace KR {
namespace Model {
namespace importer {

void Importer::arms() {
  canPointAt = m.arms[0].given && m.arms[1].given;
  if (canPointAt) {
    arm(0);
    arm(1);
  }
}

void Importer::arm(int side) {
  const UrdfArm& a = m.arms[side];
  const std::string base = side == 0 ? "arms/left" : "arms/right";
  const std::vector<JointInfo> order = armJoints(a, base);
  const urdf::Link* hand = link(a.hand, base + "/hand");
  checkArmChain(a, base, order, hand);
  for (const JointInfo& j : order) {
    checkRotary(j);
  }
  checkShoulder(base, order);
  checkElbow(base, order);
  checkHand(a, base, order, hand);
  fillArm(side, order);
}

std::vector<JointInfo> Importer::armJoints(const UrdfArm& a, const std::string& base) {
  // In chain order from the torso: shoulder pitch, shoulder roll, elbow roll, elbow yaw, wrist.
  std::vector<JointInfo> order = {joint(a.shoulderPitch, base + "/shoulder_pitch"),
                                  joint(a.shoulderRoll, base + "/shoulder_roll"),
                                  joint(a.elbowRoll, base + "/elbow_roll"),
                                  joint(a.elbowYaw, base + "/elbow_yaw")};
  if (!a.wristYaw.empty()) {
    order.push_back(joint(a.wristYaw, base + "/wrist_yaw"));
  }
  return order;
}

void Importer::failArmShape(const std::string& base, const std::string& why) const {
  failMap(base,
          "the arm's chain does not fit the tracker's arm (shoulder pitch about y, "
          "shoulder roll about z at the same point, then at the elbow, level with the "
          "shoulder, elbow roll about z and elbow yaw about x, the hand on the "
          "forearm's x axis): " +
              why + "; leave out 'arms' to load the robot without pointing");
}

void Importer::checkArmChain(const UrdfArm& a, const std::string& base,
                             const std::vector<JointInfo>& order, const urdf::Link* hand) const {
  std::vector<const urdf::Joint*> path;
  if (!chain(fTorso, hand, path)) {
    failMap(base + "/hand",
            "link '" + a.hand + "' is not below the torso link '" + m.torso + "' in " + fUrdf);
  }
  std::size_t next = 0;
  for (const urdf::Joint* j : path) {
    if (next < order.size() && j == order[next].joint) {
      ++next;
    } else if (std::any_of(order.begin(), order.end(),
                           [&](const JointInfo& o) { return o.joint == j; })) {
      failArmShape(base, "joint '" + j->name + "' comes before '" + order[next].joint->name +
                             "' from the torso (the order is shoulder_pitch, shoulder_roll, "
                             "elbow_roll, elbow_yaw, wrist_yaw)");
    } else if (j->type != urdf::Joint::FIXED && !m.fixed.count(j->name)) {
      failArmShape(base, "joint '" + j->name + "' between the torso and the hand '" + a.hand +
                             "' moves and has no role (hold it with fixed/" + j->name + ")");
    }
  }
  if (next < order.size()) {
    failArmShape(base, "joint '" + order[next].joint->name + "' (" + order[next].role +
                           ") is not between the torso and the hand '" + a.hand + "'");
  }
}

void Importer::checkShoulder(const std::string& base, const std::vector<JointInfo>& order) const {
  if (angleBetween(axisInTorso(order[0]), Vec::UnitY()) > kAxisTolerance) {
    failArmShape(base, "the shoulder pitch axis is " + vecText(axisInTorso(order[0])) +
                           " in the torso frame, not (0 1 0)");
  }
  if (angleBetween(axisInTorso(order[1]), Vec::UnitZ()) > kAxisTolerance) {
    failArmShape(base, "the shoulder roll axis is " + vecText(axisInTorso(order[1])) +
                           " in the torso frame, not (0 0 1)");
  }
  const Vec shoulder = originInTorso(order[0]);
  if ((originInTorso(order[1]) - shoulder).norm() > kPointTolerance) {
    failArmShape(base, "the shoulder roll joint is " +
                           numText((originInTorso(order[1]) - shoulder).norm()) +
                           " m from the shoulder pitch joint");
  }
}

void Importer::checkElbow(const std::string& base, const std::vector<JointInfo>& order) const {
  const Vec shoulder = originInTorso(order[0]);
  const Vec elbow = originInTorso(order[2]);
  if ((originInTorso(order[3]) - elbow).norm() > kPointTolerance) {
    failArmShape(base, "the elbow yaw joint is " +
                           numText((originInTorso(order[3]) - elbow).norm()) +
                           " m from the elbow roll joint");
  }
  // The pointing computation bends the elbow in the torso's horizontal plane at the zero pose:
  // the upper arm a translation along x and y (robots/README.md, "Arm chain").
  const Vec zElbow = axisInTorso(order[2]);
  const Vec xForearm = axisInTorso(order[3]);
  if (angleBetween(zElbow, Vec::UnitZ()) > kAxisTolerance) {
    failArmShape(base,
                 "the elbow roll axis is " + vecText(zElbow) + " in the torso frame, not (0 0 1)");
  }
  if (angleBetween(xForearm, Vec::UnitX()) > kAxisTolerance) {
    failArmShape(base,
                 "the elbow yaw axis is " + vecText(xForearm) + " in the torso frame, not (1 0 0)");
  }
  if (std::fabs(elbow.z() - shoulder.z()) > kPointTolerance) {
    failArmShape(base, "the elbow is " + numText(elbow.z() - shoulder.z()) +
                           " m above the shoulder at the zero pose (the upper arm must lie along "
                           "x and y)");
  }
}

void Importer::checkHand(const UrdfArm& a, const std::string& base,
                         const std::vector<JointInfo>& order, const urdf::Link* hand) const {
  const Vec elbow = originInTorso(order[2]);
  const Vec xForearm = axisInTorso(order[3]);
  if (order.size() == 5 && angleBetween(axisInTorso(order[4]), xForearm) > kAxisTolerance &&
      angleBetween(axisInTorso(order[4]), -xForearm) > kAxisTolerance) {
    failArmShape(base, "the wrist yaw axis is not along the forearm");
  }
  const Vec toHand = linkPose(hand).translation() - elbow;
  if (toHand.cross(xForearm).norm() > 1e-4 || toHand.dot(xForearm) <= 0.0) {
    failArmShape(base, "the hand '" + a.hand + "' is not on the forearm's axis " +
                           vecText(xForearm) + " in front of the elbow");
  }
}

void Importer::fillArm(int side, const std::vector<JointInfo>& order) {
  TrackerArm& out = side == 0 ? model.leftArm : model.rightArm;
  const Vec shoulder = originInTorso(order[0]);
  const Vec elbow = originInTorso(order[2]);
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

}  // namespace importer
}  // namespace Model
}  // namespace KR
