// Robot descriptions: our XML format (robots/README.md) read with pugixml into a Robot.
// Parsing is strict: unknown elements and attributes are errors, so a typo never silently
// leaves a field at its default.

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <initializer_list>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <pugixml.hpp>

#include <kr/error.h>
#include <kr/model/modelutils.h>

#include "robotparts.h"

namespace KR {
namespace Model {

namespace {

// Joint names stay within std::string's small buffer, so that copying them on the hot
// paths never allocates.
constexpr std::size_t kMaxJointNameLength = 15;

// What a description says: the robot's parts and the robot-wide camera values that the
// effectors' cameras default to.
struct Description : RobotParts {
  float cameraHFov = 0.0f;
  float cameraVFov = 0.0f;
  float cameraRange = 0.0f;
};

struct RoleSlot {
  const char* role;
  bool required;
};

class DescriptionParser {
 public:
  explicit DescriptionParser(const std::string& text) : fText(text) {}

  Description parse();

 private:
  [[noreturn]] void fail(const std::string& what) const {
    throw KRError("ModelUtils", "robotFromXml", what);
  }
  [[noreturn]] void fail(const pugi::xml_node& node, const std::string& what) const {
    fail(where(node) + ": " + what);
  }

  int lineOf(std::ptrdiff_t offset) const {
    if (offset < 0) {
      return 0;
    }
    const auto end = fText.begin() + std::min<std::ptrdiff_t>(offset, fText.size());
    return 1 + static_cast<int>(std::count(fText.begin(), end, '\n'));
  }

  // "robot/arm[side=left]/joint[role=elbowRoll] (line 23)"
  std::string where(const pugi::xml_node& node) const {
    std::string path;
    for (pugi::xml_node n = node; n && n.type() == pugi::node_element; n = n.parent()) {
      std::string step = n.name();
      for (const char* key : {"side", "role"}) {
        if (pugi::xml_attribute a = n.attribute(key)) {
          step += std::string("[") + key + "=" + a.value() + "]";
        }
      }
      path = path.empty() ? step : step + "/" + path;
    }
    const int line = lineOf(node.offset_debug());
    return line > 0 ? path + " (line " + std::to_string(line) + ")" : path;
  }

  void checkAttributes(const pugi::xml_node& node, std::initializer_list<const char*> allowed) {
    for (pugi::xml_attribute a : node.attributes()) {
      const bool known = std::any_of(allowed.begin(), allowed.end(),
                                     [&](const char* k) { return std::string(k) == a.name(); });
      if (!known) {
        fail(node, std::string("unknown attribute '") + a.name() + "'");
      }
    }
  }

  void checkChildren(const pugi::xml_node& node, std::initializer_list<const char*> allowed) {
    for (pugi::xml_node c : node.children()) {
      if (c.type() == pugi::node_pcdata || c.type() == pugi::node_cdata) {
        fail(node, "unexpected text '" + std::string(c.value()) + "'");
      }
      if (c.type() != pugi::node_element) {
        continue;
      }
      const bool known = std::any_of(allowed.begin(), allowed.end(),
                                     [&](const char* k) { return std::string(k) == c.name(); });
      if (!known) {
        fail(c, std::string("unknown element '") + c.name() + "'");
      }
    }
  }

  // The one child of that name; missing or repeated is an error unless optional.
  pugi::xml_node child(const pugi::xml_node& node, const char* name, bool required = true) {
    pugi::xml_node found = node.child(name);
    if (!found) {
      if (required) {
        fail(node, std::string("missing element '") + name + "'");
      }
      return found;
    }
    if (pugi::xml_node again = found.next_sibling(name)) {
      fail(again, std::string("duplicate element '") + name + "'");
    }
    return found;
  }

  std::string text(const pugi::xml_node& node, const char* name) {
    pugi::xml_attribute a = node.attribute(name);
    if (!a) {
      fail(node, std::string("missing attribute '") + name + "'");
    }
    return a.value();
  }

  float number(const pugi::xml_node& node, const char* name, const std::string& word) {
    const char* begin = word.c_str();
    char* end = nullptr;
    errno = 0;
    const float v = std::strtof(begin, &end);
    while (end && *end != '\0' && std::isspace(static_cast<unsigned char>(*end))) {
      ++end;
    }
    if (end == begin || *end != '\0' || errno == ERANGE || !std::isfinite(v)) {
      fail(node, std::string("attribute '") + name + "' is not a number: '" + word + "'");
    }
    return v;
  }

  float number(const pugi::xml_node& node, const char* name) {
    return number(node, name, text(node, name));
  }

  std::vector<float> numbers(const pugi::xml_node& node, const char* name, std::size_t count) {
    std::istringstream words(text(node, name));
    std::vector<float> values;
    std::string word;
    while (words >> word) {
      values.push_back(number(node, name, word));
    }
    if (values.size() != count) {
      fail(node, std::string("attribute '") + name + "' must hold " + std::to_string(count) +
                     " numbers, got " + std::to_string(values.size()));
    }
    return values;
  }

  bool boolean(const pugi::xml_node& node, const char* name) {
    const std::string v = text(node, name);
    if (v == "true") {
      return true;
    }
    if (v == "false") {
      return false;
    }
    fail(node, std::string("attribute '") + name + "' must be 'true' or 'false', got '" + v + "'");
  }

  void checkOrdered(const pugi::xml_node& node, const char* minName, float min, const char* maxName,
                    float max) {
    if (min > max) {
      std::ostringstream os;
      os << "'" << minName << "' (" << min << ") is greater than '" << maxName << "' (" << max
         << ")";
      fail(node, os.str());
    }
  }

  void checkPositive(const pugi::xml_node& node, const char* name, float v) {
    if (!(v > 0.0f)) {
      std::ostringstream os;
      os << "attribute '" << name << "' must be positive, got " << v;
      fail(node, os.str());
    }
  }

  // An optional positive attribute; `fallback` when absent.
  float optionalPositive(const pugi::xml_node& node, const char* name, float fallback) {
    if (!node.attribute(name)) {
      return fallback;
    }
    const float v = number(node, name);
    checkPositive(node, name, v);
    return v;
  }

  // position="x y z" and optional rpy="roll pitch yaw" (R = Rz * Ry * Rx).
  Math::Transform transform(const pugi::xml_node& node) {
    checkAttributes(node, {"role", "position", "rpy", "horizontalFov", "verticalFov", "range"});
    checkChildren(node, {});
    const std::vector<float> p = numbers(node, "position", 3);
    std::vector<float> rpy(3, 0.0f);
    if (node.attribute("rpy")) {
      rpy = numbers(node, "rpy", 3);
    }
    return Math::transformFromPosition6D({p[0], p[1], p[2], rpy[0], rpy[1], rpy[2]});
  }

  Math::Position3D position(const pugi::xml_node& node) {
    checkAttributes(node, {"position"});
    checkChildren(node, {});
    return Math::Position3D(numbers(node, "position", 3));
  }

  TrackerJoint joint(const pugi::xml_node& node, Description& robot) {
    checkAttributes(
        node, {"role", "name", "min", "max", "maxVelocity", "stiffness", "maxTorque", "armature"});
    checkChildren(node, {});
    TrackerJoint j;
    j.name = text(node, "name");
    if (j.name.empty() || j.name.size() > kMaxJointNameLength ||
        std::any_of(j.name.begin(), j.name.end(),
                    [](char c) { return std::isspace(static_cast<unsigned char>(c)); })) {
      fail(node, "joint name '" + j.name + "' must be 1 to " + std::to_string(kMaxJointNameLength) +
                     " characters without spaces");
    }
    j.min = number(node, "min");
    j.max = number(node, "max");
    j.maxVelocity = number(node, "maxVelocity");
    checkOrdered(node, "min", j.min, "max", j.max);
    checkPositive(node, "maxVelocity", j.maxVelocity);
    if (!robot.joints.emplace(j.name, j).second) {
      fail(node, "joint name '" + j.name + "' is used twice");
    }
    JointServo& servo = robot.servos[j.name];
    servo.stiffness = optionalPositive(node, "stiffness", servo.stiffness);
    servo.maxTorque = optionalPositive(node, "maxTorque", servo.maxTorque);
    servo.armature = optionalPositive(node, "armature", servo.armature);
    return j;
  }

  // The children named `element` with a role attribute, one per slot, in slot order;
  // an absent optional slot gives a null node.
  template <std::size_t N>
  std::array<pugi::xml_node, N> byRole(const pugi::xml_node& parent, const char* element,
                                       const std::array<RoleSlot, N>& slots) {
    std::array<pugi::xml_node, N> found{};
    for (pugi::xml_node c : parent.children(element)) {
      const std::string role = text(c, "role");
      std::size_t i = 0;
      while (i < N && role != slots[i].role) {
        ++i;
      }
      if (i == N) {
        std::string known;
        for (const RoleSlot& s : slots) {
          known += known.empty() ? s.role : std::string(", ") + s.role;
        }
        fail(c, "unknown role '" + role + "' (expected one of: " + known + ")");
      }
      if (found[i]) {
        fail(c, "duplicate " + std::string(element) + " role '" + role + "'");
      }
      found[i] = c;
    }
    for (std::size_t i = 0; i < N; ++i) {
      if (!found[i] && slots[i].required) {
        fail(parent, "missing " + std::string(element) + " with role '" + slots[i].role + "'");
      }
    }
    return found;
  }

  void head(const pugi::xml_node& node, Description& robot) {
    checkAttributes(node, {"position", "yawToPitch", "mass"});
    robot.headMass = optionalPositive(node, "mass", robot.headMass);
    checkChildren(node, {"joint", "effector"});
    TrackerHead& h = robot.model.head;
    const std::vector<float> p = numbers(node, "position", 3);
    h.headPosition = Math::Position3D(p);
    if (node.attribute("yawToPitch")) {
      h.yawToPitch = Math::Position3D(numbers(node, "yawToPitch", 3));
    }

    const auto joints = byRole<2>(node, "joint", {{{"yaw", true}, {"pitch", true}}});
    h.yaw = joint(joints[0], robot);
    h.pitch = joint(joints[1], robot);

    const auto effectors = byRole<kTrackEffectorCount>(
        node, "effector", {{{"cameraTop", true}, {"cameraBottom", true}, {"depthCamera", true}}});
    for (int i = 0; i < kTrackEffectorCount; ++i) {
      h.effectorTransforms[i] = transform(effectors[i]);
      robot.cameras[i] = {optionalPositive(effectors[i], "horizontalFov", robot.cameraHFov),
                          optionalPositive(effectors[i], "verticalFov", robot.cameraVFov),
                          optionalPositive(effectors[i], "range", robot.cameraRange)};
    }
  }

  void arm(const pugi::xml_node& node, TrackerArm& a, float& mass, Description& robot) {
    checkAttributes(node, {"side", "mass"});
    mass = optionalPositive(node, "mass", mass);
    checkChildren(node, {"shoulder", "upperArm", "joint"});
    a.shoulderPosition = position(child(node, "shoulder"));
    a.armTransform = transform(child(node, "upperArm"));
    const auto joints = byRole<5>(node, "joint",
                                  {{{"shoulderPitch", true},
                                    {"shoulderRoll", true},
                                    {"elbowYaw", true},
                                    {"elbowRoll", true},
                                    {"wristYaw", false}}});
    for (std::size_t i = 0; i < joints.size(); ++i) {
      if (joints[i]) {
        a.joints[i] = joint(joints[i], robot);
      }
    }
  }

  // The document's one root element, a <robot>.
  pugi::xml_node robotElement(const pugi::xml_document& doc) {
    pugi::xml_node root = doc.document_element();
    for (pugi::xml_node n : doc.children()) {
      if (n.type() == pugi::node_element && n != root) {
        fail(n, "a description holds one root element, found another");
      }
    }
    if (std::string(root.name()) != "robot") {
      fail(root, "root element must be 'robot'");
    }
    return root;
  }

  void robotAttributes(const pugi::xml_node& root, Description& robot) {
    checkAttributes(root, {"name", "type", "canLookBehind", "canPointAt"});
    checkChildren(root, {"torso", "camera", "wholeBody", "head", "arm"});
    robot.name = text(root, "name");
    if (robot.name.empty()) {
      fail(root, "attribute 'name' is empty");
    }
    const std::string type = text(root, "type");
    if (type == "0" || type == "1") {
      robot.type = type[0] - '0';
    } else {
      fail(root,
           "attribute 'type' must be 0 (humanoid) or 1 (wheeled humanoid), got '" + type + "'");
    }
    robot.canLookBehind = boolean(root, "canLookBehind");
    robot.canPointAt = boolean(root, "canPointAt");
  }

  void torso(const pugi::xml_node& torso, Description& robot) {
    checkAttributes(torso, {"height", "mass"});
    checkChildren(torso, {});
    robot.torsoHeight = number(torso, "height");
    if (robot.torsoHeight < 0.0f) {
      fail(torso, "attribute 'height' must not be negative");
    }
    robot.torsoMass = optionalPositive(torso, "mass", robot.torsoMass);
  }

  void camera(const pugi::xml_node& camera, Description& robot) {
    checkAttributes(camera, {"horizontalFov", "verticalFov", "range"});
    checkChildren(camera, {});
    robot.cameraHFov = number(camera, "horizontalFov");
    robot.cameraVFov = number(camera, "verticalFov");
    robot.cameraRange = number(camera, "range");
    checkPositive(camera, "horizontalFov", robot.cameraHFov);
    checkPositive(camera, "verticalFov", robot.cameraVFov);
    checkPositive(camera, "range", robot.cameraRange);
  }

  void wholeBody(const pugi::xml_node& wb, KRTrackerModel& m) {
    checkAttributes(wb, {"pitchMin", "pitchMax", "yawMin", "yawMax", "lookAtHeight"});
    checkChildren(wb, {});
    m.wbPitchMin = number(wb, "pitchMin");
    m.wbPitchMax = number(wb, "pitchMax");
    m.wbYawMin = number(wb, "yawMin");
    m.wbYawMax = number(wb, "yawMax");
    m.wbLookAtHeight = number(wb, "lookAtHeight");
    checkOrdered(wb, "pitchMin", m.wbPitchMin, "pitchMax", m.wbPitchMax);
    checkOrdered(wb, "yawMin", m.wbYawMin, "yawMax", m.wbYawMax);
  }

  // The <arm> elements, left then right (null where absent). Both are needed to point; a
  // robot that cannot point may describe none.
  std::array<pugi::xml_node, 2> armsBySide(const pugi::xml_node& root, bool canPointAt) {
    std::array<pugi::xml_node, 2> sides{};
    for (pugi::xml_node a : root.children("arm")) {
      const std::string side = text(a, "side");
      const int i = side == "left" ? 0 : side == "right" ? 1 : -1;
      if (i < 0) {
        fail(a, "attribute 'side' must be 'left' or 'right', got '" + side + "'");
      }
      if (sides[i]) {
        fail(a, "duplicate arm side '" + side + "'");
      }
      sides[i] = a;
    }
    if (canPointAt) {
      for (int i = 0; i < 2; ++i) {
        if (!sides[i]) {
          fail(root, std::string("missing element 'arm' with side '") +
                         (i == 0 ? "left" : "right") + "' (needed by canPointAt=\"true\")");
        }
      }
    }
    return sides;
  }

  const std::string& fText;
};

Description DescriptionParser::parse() {
  Description robot;
  pugi::xml_document doc;
  const pugi::xml_parse_result parsed = doc.load_string(fText.c_str());
  if (!parsed) {
    fail("bad XML at line " + std::to_string(lineOf(parsed.offset)) + ": " + parsed.description());
  }
  const pugi::xml_node root = robotElement(doc);
  robotAttributes(root, robot);
  torso(child(root, "torso"), robot);
  camera(child(root, "camera"), robot);
  wholeBody(child(root, "wholeBody"), robot.model);
  head(child(root, "head"), robot);
  const std::array<pugi::xml_node, 2> sides = armsBySide(root, robot.canPointAt);
  if (sides[0]) {
    arm(sides[0], robot.model.leftArm, robot.armMass[0], robot);
  }
  if (sides[1]) {
    arm(sides[1], robot.model.rightArm, robot.armMass[1], robot);
  }
  return robot;
}

}  // namespace

std::unique_ptr<Robot> ModelUtils::robotFromXml(const std::string& xml) {
  return DescriptionParser(xml).parse().takeRobot();
}

std::unique_ptr<Robot> ModelUtils::robotFromFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    throw KRError("ModelUtils", "robotFromFile", "cannot read robot description '" + path + "'");
  }
  std::ostringstream text;
  text << in.rdbuf();
  try {
    return robotFromXml(text.str());
  } catch (const KRError& e) {
    throw KRError("ModelUtils", "robotFromFile", path + ": " + e.message());
  }
}

}  // namespace Model
}  // namespace KR
