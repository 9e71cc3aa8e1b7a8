// The mapping file of a URDF robot (YAML): strict like the XML descriptions, so that a typo
// never silently leaves a value derived. Every error names the file, the key path and its line.

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <set>
#include <string>

#include <yaml-cpp/yaml.h>

#include <kr/error.h>
#include <kr/model/urdfimport.h>

namespace KR {
namespace Model {

namespace {

// Mapping files are a few hundred bytes; the limits keep yaml-cpp's recursive parser away from
// deeply nested or huge input.
constexpr std::size_t kMaxMappingBytes = 64 * 1024;
constexpr int kMaxNesting = 24;

class MappingReader {
 public:
  explicit MappingReader(std::string file) : fFile(std::move(file)) {}

  UrdfMapping read(const std::string& text);

 private:
  [[noreturn]] void fail(const std::string& path, const YAML::Node& node,
                         const std::string& what) const {
    std::string where = fFile + ": " + (path.empty() ? std::string("(top level)") : path);
    if (node.IsDefined() && node.Mark().line >= 0) {
      where += " (line " + std::to_string(node.Mark().line + 1) + ")";
    }
    throw KRError("UrdfImport", "readMapping", UrdfImport::oneLine(where + ": " + what));
  }
  [[noreturn]] void failTop(const std::string& what) const {
    throw KRError("UrdfImport", "readMapping", UrdfImport::oneLine(fFile + ": " + what));
  }

  static const char* kindOf(const YAML::Node& n) {
    switch (n.Type()) {
      case YAML::NodeType::Map:
        return "a mapping";
      case YAML::NodeType::Sequence:
        return "a list";
      case YAML::NodeType::Scalar:
        return "a single value";
      case YAML::NodeType::Null:
        return "empty";
      default:
        return "undefined";
    }
  }

  // The keys of a map, each once, each one of `allowed`; required ones present.
  void checkKeys(const YAML::Node& map, const std::string& path,
                 std::initializer_list<const char*> allowed,
                 std::initializer_list<const char*> required) {
    if (!map.IsMap()) {
      fail(path, map, std::string("must be a mapping of keys, got ") + kindOf(map));
    }
    std::set<std::string> seen;
    for (const auto& entry : map) {
      if (!entry.first.IsScalar()) {
        fail(path, entry.first, "a key must be a plain word");
      }
      const std::string key = entry.first.Scalar();
      const std::string at = path.empty() ? key : path + "/" + key;
      if (std::none_of(allowed.begin(), allowed.end(), [&](const char* k) { return key == k; })) {
        std::string known;
        for (const char* k : allowed) {
          known += known.empty() ? k : std::string(", ") + k;
        }
        fail(at, entry.first, "unknown key '" + key + "' (expected one of: " + known + ")");
      }
      if (!seen.insert(key).second) {
        fail(at, entry.first, "key '" + key + "' is given twice");
      }
    }
    for (const char* k : required) {
      if (!seen.count(k)) {
        fail(path, map, std::string("missing key '") + k + "'");
      }
    }
  }

  std::string word(const YAML::Node& n, const std::string& path) {
    if (!n.IsScalar() || n.Scalar().empty()) {
      fail(path, n, std::string("must be a name, got ") + kindOf(n));
    }
    return n.Scalar();
  }

  double number(const YAML::Node& n, const std::string& path) {
    if (!n.IsScalar()) {
      fail(path, n, std::string("must be a number, got ") + kindOf(n));
    }
    const std::string& text = n.Scalar();
    const char* begin = text.c_str();
    char* end = nullptr;
    errno = 0;
    const double v = std::strtod(begin, &end);
    if (text.empty() || end != begin + text.size() || errno == ERANGE || !std::isfinite(v) ||
        std::isspace(static_cast<unsigned char>(text[0]))) {
      fail(path, n, "must be a number, got '" + text + "'");
    }
    return v;
  }

  float positive(const YAML::Node& n, const std::string& path) {
    const double v = number(n, path);
    if (!(v > 0.0) || v > 1e30) {
      fail(path, n, "must be a positive number, got '" + n.Scalar() + "'");
    }
    return float(v);
  }

  bool boolean(const YAML::Node& n, const std::string& path) {
    if (n.IsScalar() && (n.Scalar() == "true" || n.Scalar() == "false")) {
      return n.Scalar() == "true";
    }
    fail(path, n,
         std::string("must be true or false, got ") +
             (n.IsScalar() ? "'" + n.Scalar() + "'" : kindOf(n)));
  }

  // Refuses a text that would take yaml-cpp's recursive parser too deep or too long.
  void checkBounds(const std::string& text) const;
  void checkNesting(const std::string& text) const;
  void checkIndentation(const std::string& text) const;
  YAML::Node load(const std::string& text) const;

  void identity(const YAML::Node& root, UrdfMapping& m);
  void head(const YAML::Node& node, UrdfMapping& m);
  void arms(const YAML::Node& node, UrdfMapping& m);
  void arm(const YAML::Node& node, const std::string& path, UrdfArm& arm);
  void wholeBody(const YAML::Node& node, UrdfMapping& m);
  UrdfServo servo(const YAML::Node& node, const std::string& path);
  template <typename T, typename F>
  void jointTable(const YAML::Node& node, const std::string& path, std::map<std::string, T>& out,
                  F value);

  std::string fFile;
};

void MappingReader::head(const YAML::Node& node, UrdfMapping& m) {
  checkKeys(node, "head", {"yaw", "pitch", "cameras"}, {"yaw", "pitch", "cameras"});
  m.headYaw = word(node["yaw"], "head/yaw");
  m.headPitch = word(node["pitch"], "head/pitch");
  const YAML::Node cameras = node["cameras"];
  if (!cameras.IsSequence() || cameras.size() < 1 || cameras.size() > 3) {
    fail(
        "head/cameras", cameras,
        std::string("must be a list of 1 to 3 cameras, got ") +
            (cameras.IsSequence() ? std::to_string(cameras.size()) + " entries" : kindOf(cameras)));
  }
  for (std::size_t i = 0; i < cameras.size(); ++i) {
    const std::string path = "head/cameras[" + std::to_string(i) + "]";
    const YAML::Node c = cameras[i];
    if (i == 0) {
      checkKeys(c, path, {"frame", "axis", "horizontal_fov", "vertical_fov", "range"},
                {"frame", "axis", "horizontal_fov", "vertical_fov", "range"});
    } else {
      checkKeys(c, path, {"frame", "axis", "horizontal_fov", "vertical_fov", "range"},
                {"frame", "axis"});
    }
    UrdfCamera camera;
    camera.frame = word(c["frame"], path + "/frame");
    const std::string axis = word(c["axis"], path + "/axis");
    if (axis != "x" && axis != "z") {
      fail(path + "/axis", c["axis"],
           "must be 'z' (an optical frame) or 'x' (a frame looking along x), got '" + axis + "'");
    }
    camera.axis = axis[0];
    if (c["horizontal_fov"]) {
      camera.horizontalFov = positive(c["horizontal_fov"], path + "/horizontal_fov");
    }
    if (c["vertical_fov"]) {
      camera.verticalFov = positive(c["vertical_fov"], path + "/vertical_fov");
    }
    if (c["range"]) {
      camera.range = positive(c["range"], path + "/range");
    }
    for (const auto& [what, v] :
         {std::pair<const char*, std::optional<float>>{"horizontal_fov", camera.horizontalFov},
          {"vertical_fov", camera.verticalFov}}) {
      if (v && *v >= 3.1415926f) {
        fail(path + "/" + what, c[what], "a field of view must be below pi");
      }
    }
    m.cameras.push_back(camera);
  }
}

void MappingReader::arm(const YAML::Node& node, const std::string& path, UrdfArm& a) {
  checkKeys(node, path,
            {"shoulder_pitch", "shoulder_roll", "elbow_yaw", "elbow_roll", "wrist_yaw", "hand"},
            {"shoulder_pitch", "shoulder_roll", "elbow_yaw", "elbow_roll", "hand"});
  a.given = true;
  a.shoulderPitch = word(node["shoulder_pitch"], path + "/shoulder_pitch");
  a.shoulderRoll = word(node["shoulder_roll"], path + "/shoulder_roll");
  a.elbowYaw = word(node["elbow_yaw"], path + "/elbow_yaw");
  a.elbowRoll = word(node["elbow_roll"], path + "/elbow_roll");
  if (node["wrist_yaw"]) {
    a.wristYaw = word(node["wrist_yaw"], path + "/wrist_yaw");
  }
  a.hand = word(node["hand"], path + "/hand");
}

template <typename T, typename F>
void MappingReader::jointTable(const YAML::Node& node, const std::string& path,
                               std::map<std::string, T>& out, F value) {
  if (!node.IsMap()) {
    fail(path, node, std::string("must be a mapping of joint names, got ") + kindOf(node));
  }
  for (const auto& entry : node) {
    const std::string name = word(entry.first, path);
    const std::string at = path + "/" + name;
    if (out.count(name)) {
      fail(at, entry.first, "joint '" + name + "' is given twice");
    }
    out.emplace(name, value(entry.second, at));
  }
}

void MappingReader::checkBounds(const std::string& text) const {
  if (text.size() > kMaxMappingBytes) {
    failTop("is " + std::to_string(text.size()) + " bytes, more than the " +
            std::to_string(kMaxMappingBytes) + " accepted");
  }
  checkNesting(text);
  checkIndentation(text);
}

// Flow collections and indentation both nest; yaml-cpp recurses on each level.
void MappingReader::checkNesting(const std::string& text) const {
  int depth = 0;
  int line = 1;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '\n') {
      ++line;
    } else if (c == '[' || c == '{') {
      if (++depth > kMaxNesting) {
        failTop("line " + std::to_string(line) + ": nested more than " +
                std::to_string(kMaxNesting) + " levels");
      }
    } else if (c == ']' || c == '}') {
      depth = std::max(0, depth - 1);
    } else if (c == '\0') {
      failTop("line " + std::to_string(line) + ": a NUL character");
    }
  }
}

void MappingReader::checkIndentation(const std::string& text) const {
  int indentLevels = 0;
  for (std::size_t i = 0; i < text.size();) {
    std::size_t spaces = 0;
    while (i + spaces < text.size() && (text[i + spaces] == ' ' || text[i + spaces] == '-')) {
      ++spaces;
    }
    indentLevels = std::max(indentLevels, int(spaces));
    const std::size_t next = text.find('\n', i);
    i = next == std::string::npos ? text.size() : next + 1;
  }
  if (indentLevels > 4 * kMaxNesting) {
    failTop("indented more than " + std::to_string(4 * kMaxNesting) + " columns");
  }
}

YAML::Node MappingReader::load(const std::string& text) const {
  YAML::Node loaded;
  try {
    loaded = YAML::Load(text);
  } catch (const YAML::Exception& e) {
    failTop("not YAML (line " + std::to_string(e.mark.line + 1) + "): " + e.msg);
  }
  return loaded;
}

// The URDF, the robot's name and type, and its torso link.
void MappingReader::identity(const YAML::Node& root, UrdfMapping& m) {
  m.urdf = word(root["urdf"], "urdf");
  m.name = word(root["name"], "name");
  if (m.name.size() > 64 || std::any_of(m.name.begin(), m.name.end(), [](char c) {
        return std::iscntrl(static_cast<unsigned char>(c));
      })) {
    fail("name", root["name"], "must be 1 to 64 printable characters");
  }
  if (root["type"]) {
    const YAML::Node t = root["type"];
    if (!t.IsScalar() || (t.Scalar() != "0" && t.Scalar() != "1")) {
      fail("type", t,
           std::string("must be 0 (humanoid) or 1 (wheeled: can navigate), got ") +
               (t.IsScalar() ? "'" + t.Scalar() + "'" : kindOf(t)));
    }
    m.type = t.Scalar()[0] - '0';
  }
  m.torso = word(root["torso"], "torso");
}

void MappingReader::arms(const YAML::Node& arms, UrdfMapping& m) {
  checkKeys(arms, "arms", {"left", "right"}, {});
  if (arms["left"]) {
    arm(arms["left"], "arms/left", m.arms[0]);
  }
  if (arms["right"]) {
    arm(arms["right"], "arms/right", m.arms[1]);
  }
  if (m.arms[0].given != m.arms[1].given) {
    fail("arms", arms,
         std::string("give both arms or neither: the robot points with both, and 'arms/") +
             (m.arms[0].given ? "right" : "left") + "' is missing");
  }
}

void MappingReader::wholeBody(const YAML::Node& wb, UrdfMapping& m) {
  checkKeys(wb, "whole_body", {"pitch_min", "pitch_max", "yaw_min", "yaw_max", "look_at_height"},
            {});
  const std::pair<const char*, std::optional<float>*> fields[] = {
      {"pitch_min", &m.wbPitchMin},
      {"pitch_max", &m.wbPitchMax},
      {"yaw_min", &m.wbYawMin},
      {"yaw_max", &m.wbYawMax},
      {"look_at_height", &m.wbLookAtHeight}};
  for (const auto& [key, out] : fields) {
    if (wb[key]) {
      const double v = number(wb[key], std::string("whole_body/") + key);
      if (std::fabs(v) > 100.0) {
        fail(std::string("whole_body/") + key, wb[key], "is out of range");
      }
      *out = float(v);
    }
  }
}

UrdfServo MappingReader::servo(const YAML::Node& n, const std::string& p) {
  checkKeys(n, p, {"stiffness", "max_torque", "armature"}, {});
  UrdfServo s;
  if (n["stiffness"]) {
    s.stiffness = positive(n["stiffness"], p + "/stiffness");
  }
  if (n["max_torque"]) {
    s.maxTorque = positive(n["max_torque"], p + "/max_torque");
  }
  if (n["armature"]) {
    s.armature = positive(n["armature"], p + "/armature");
  }
  return s;
}

UrdfMapping MappingReader::read(const std::string& text) {
  checkBounds(text);
  const YAML::Node loaded = load(text);
  const YAML::Node& root = loaded;
  UrdfMapping m;
  checkKeys(root, "",
            {"urdf", "name", "type", "torso", "head", "arms", "fixed", "can_look_behind",
             "whole_body", "max_velocity", "servos"},
            {"urdf", "name", "torso", "head"});
  identity(root, m);
  head(root["head"], m);
  if (root["arms"]) {
    arms(root["arms"], m);
  }
  if (root["fixed"]) {
    jointTable(root["fixed"], "fixed", m.fixed,
               [this](const YAML::Node& n, const std::string& p) { return number(n, p); });
  }
  if (root["can_look_behind"]) {
    m.canLookBehind = boolean(root["can_look_behind"], "can_look_behind");
  }
  if (root["whole_body"]) {
    wholeBody(root["whole_body"], m);
  }
  if (root["max_velocity"]) {
    jointTable(root["max_velocity"], "max_velocity", m.maxVelocity,
               [this](const YAML::Node& n, const std::string& p) { return positive(n, p); });
  }
  if (root["servos"]) {
    jointTable(root["servos"], "servos", m.servos,
               [this](const YAML::Node& n, const std::string& p) { return servo(n, p); });
  }
  return m;
}

}  // namespace

UrdfMapping UrdfImport::readMapping(const std::string& yaml, const std::string& mappingName) {
  return MappingReader(mappingName).read(yaml);
}

}  // namespace Model
}  // namespace KR
