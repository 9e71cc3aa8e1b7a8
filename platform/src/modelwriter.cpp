// Robot descriptions written back in our XML format (robots/README.md): each value as the
// shortest text that reads back as the same float, so that reading what was written gives the
// same Robot.

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <sstream>
#include <string>
#include <utility>

#include <pugixml.hpp>

#include <kr/model/modelutils.h>

namespace KR {
namespace Model {

namespace {

// Shortest text that reads back as the same float.
std::string floatText(float v) {
  char buffer[32];
  for (int precision = 6; precision <= 9; ++precision) {
    std::snprintf(buffer, sizeof(buffer), "%.*g", precision, double(v));
    if (std::strtof(buffer, nullptr) == v) {
      break;
    }
  }
  return buffer;
}

std::string floatsText(std::initializer_list<float> values) {
  std::string text;
  for (float v : values) {
    text += (text.empty() ? "" : " ") + floatText(v);
  }
  return text;
}

// position and rpy (R = Rz(yaw) Ry(pitch) Rx(roll)), the angles taken in double precision.
void writeTransform(pugi::xml_node node, const Math::Transform& t) {
  const Math::Position3D p = t.translation();
  node.append_attribute("position") = floatsText({p.x, p.y, p.z}).c_str();
  const double r11 = t.r1_c1, r21 = t.r2_c1, r31 = t.r3_c1, r32 = t.r3_c2, r33 = t.r3_c3;
  const double r12 = t.r1_c2, r22 = t.r2_c2;
  const double cy = std::hypot(r11, r21);
  const double pitch = std::atan2(-r31, cy);
  const double roll = cy < 1e-9 ? 0.0 : std::atan2(r32, r33);
  const double yaw = cy < 1e-9 ? std::atan2(-r12, r22) : std::atan2(r21, r11);
  if (roll != 0.0 || pitch != 0.0 || yaw != 0.0) {
    node.append_attribute("rpy") = floatsText({float(roll), float(pitch), float(yaw)}).c_str();
  }
}

void writeJoint(pugi::xml_node parent, const char* role, const TrackerJoint& j,
                const Robot& robot) {
  pugi::xml_node node = parent.append_child("joint");
  node.append_attribute("role") = role;
  node.append_attribute("name") = j.name.c_str();
  node.append_attribute("min") = floatText(j.min).c_str();
  node.append_attribute("max") = floatText(j.max).c_str();
  node.append_attribute("maxVelocity") = floatText(j.maxVelocity).c_str();
  const JointServo servo = robot.getServo(j.name);
  node.append_attribute("stiffness") = floatText(servo.stiffness).c_str();
  node.append_attribute("maxTorque") = floatText(servo.maxTorque).c_str();
  node.append_attribute("armature") = floatText(servo.armature).c_str();
}

void writeBody(pugi::xml_node root, const Robot& robot) {
  root.append_attribute("name") = robot.getName().c_str();
  root.append_attribute("type") = robot.getRobotType();
  root.append_attribute("canLookBehind") = robot.canLookBehind() ? "true" : "false";
  root.append_attribute("canPointAt") = robot.canPointAt() ? "true" : "false";
  pugi::xml_node torso = root.append_child("torso");
  torso.append_attribute("height") = floatText(robot.getTorsoHeight()).c_str();
  torso.append_attribute("mass") = floatText(robot.getTorsoMass()).c_str();
  pugi::xml_node camera = root.append_child("camera");
  camera.append_attribute("horizontalFov") = floatText(robot.getCameraHorizontalFov()).c_str();
  camera.append_attribute("verticalFov") = floatText(robot.getCameraVerticalFov()).c_str();
  camera.append_attribute("range") = floatText(robot.getCameraRange()).c_str();
  const KRTrackerModel& m = robot.trackerModel();
  pugi::xml_node wb = root.append_child("wholeBody");
  wb.append_attribute("pitchMin") = floatText(m.wbPitchMin).c_str();
  wb.append_attribute("pitchMax") = floatText(m.wbPitchMax).c_str();
  wb.append_attribute("yawMin") = floatText(m.wbYawMin).c_str();
  wb.append_attribute("yawMax") = floatText(m.wbYawMax).c_str();
  wb.append_attribute("lookAtHeight") = floatText(m.wbLookAtHeight).c_str();
}

// An effector's camera values where they differ from the robot's.
void writeEffector(pugi::xml_node head, const char* role, int i, const Robot& robot) {
  pugi::xml_node e = head.append_child("effector");
  e.append_attribute("role") = role;
  writeTransform(e, robot.trackerModel().head.effectorTransforms[i]);
  const std::pair<const char*, float> own[] = {{"horizontalFov", robot.getCameraHorizontalFov(i)},
                                               {"verticalFov", robot.getCameraVerticalFov(i)},
                                               {"range", robot.getCameraRange(i)}};
  const float robotWide[] = {robot.getCameraHorizontalFov(), robot.getCameraVerticalFov(),
                             robot.getCameraRange()};
  for (int k = 0; k < 3; ++k) {
    if (own[k].second != robotWide[k]) {
      e.append_attribute(own[k].first) = floatText(own[k].second).c_str();
    }
  }
}

void writeHead(pugi::xml_node root, const Robot& robot) {
  const KRTrackerModel& m = robot.trackerModel();
  pugi::xml_node head = root.append_child("head");
  const Math::Position3D& hp = m.head.headPosition;
  head.append_attribute("position") = floatsText({hp.x, hp.y, hp.z}).c_str();
  if (!(m.head.yawToPitch == Math::Position3D())) {
    const Math::Position3D& yp = m.head.yawToPitch;
    head.append_attribute("yawToPitch") = floatsText({yp.x, yp.y, yp.z}).c_str();
  }
  head.append_attribute("mass") = floatText(robot.getHeadMass()).c_str();
  writeJoint(head, "yaw", m.head.yaw, robot);
  writeJoint(head, "pitch", m.head.pitch, robot);
  const char* effectorRoles[kTrackEffectorCount] = {"cameraTop", "cameraBottom", "depthCamera"};
  for (int i = 0; i < kTrackEffectorCount; ++i) {
    writeEffector(head, effectorRoles[i], i, robot);
  }
}

// The arms that have joints (a robot that cannot point may have none).
void writeArms(pugi::xml_node root, const Robot& robot) {
  const KRTrackerModel& m = robot.trackerModel();
  const char* armRoles[5] = {"shoulderPitch", "shoulderRoll", "elbowYaw", "elbowRoll", "wristYaw"};
  const std::pair<const char*, const TrackerArm*> arms[] = {{"left", &m.leftArm},
                                                            {"right", &m.rightArm}};
  for (const auto& [side, a] : arms) {
    if (a->joints[0].name.empty()) {
      continue;
    }
    pugi::xml_node arm = root.append_child("arm");
    arm.append_attribute("side") = side;
    arm.append_attribute("mass") = floatText(robot.getArmMass(a->name)).c_str();
    const Math::Position3D& sp = a->shoulderPosition;
    arm.append_child("shoulder").append_attribute("position") =
        floatsText({sp.x, sp.y, sp.z}).c_str();
    writeTransform(arm.append_child("upperArm"), a->armTransform);
    for (int i = 0; i < 5; ++i) {
      if (!a->joints[i].name.empty()) {
        writeJoint(arm, armRoles[i], a->joints[i], robot);
      }
    }
  }
}

}  // namespace

std::string ModelUtils::robotToXml(const Robot& robot) {
  pugi::xml_document doc;
  pugi::xml_node decl = doc.append_child(pugi::node_declaration);
  decl.append_attribute("version") = "1.0";
  decl.append_attribute("encoding") = "UTF-8";
  pugi::xml_node root = doc.append_child("robot");
  writeBody(root, robot);
  writeHead(root, robot);
  writeArms(root, robot);
  std::ostringstream out;
  doc.save(out, "  ", pugi::format_default, pugi::encoding_utf8);
  return out.str();
}

}  // namespace Model
}  // namespace KR
