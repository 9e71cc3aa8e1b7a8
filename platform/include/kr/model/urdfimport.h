#pragma once
// Robots described in URDF, the robotics ecosystem's format, with a short YAML mapping that
// says which links and joints of the URDF are the tracker's torso, head, cameras and arms
// (robots/README.md, "URDF robots"). The result is the same Robot that
// ModelUtils::robotFromXml returns.
//
// A library of its own (krtracker::urdf, platform/src/urdf): it reads the URDF with urdfdom and
// the mapping with yaml-cpp, so that krtracker::platform links neither.

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <kr/model/robot.h>

namespace KR {
namespace Model {

/// One camera of the head: a frame (a URDF link) below the pitch joint and the axis of that
/// frame that looks forward ('z' for an optical frame, REP 103; 'x' otherwise).
struct UrdfCamera {
  std::string frame;
  char axis = 'z';
  std::optional<float> horizontalFov;  // [rad]; the first camera's when absent
  std::optional<float> verticalFov;    // [rad]
  std::optional<float> range;          // [m]
};

/// The joints of one arm, in the tracker's roles, and the link that points.
struct UrdfArm {
  bool given = false;
  std::string shoulderPitch, shoulderRoll, elbowYaw, elbowRoll, wristYaw, hand;
};

/// A servo's settings given by the mapping (the URDF has none); absent ones keep the default.
struct UrdfServo {
  std::optional<float> stiffness, maxTorque, armature;
};

/// What a mapping file says. Derived values are absent unless the mapping gives them.
struct UrdfMapping {
  std::string urdf;  // as written: relative to the mapping's folder
  std::string name;
  int type = 0;
  std::string torso;
  std::string headYaw, headPitch;
  std::vector<UrdfCamera> cameras;  // 1 to 3: effectors 0, 1, 2
  std::array<UrdfArm, 2> arms{};    // left, right
  std::map<std::string, double> fixed;
  // Overrides of what is otherwise derived from the URDF.
  std::optional<bool> canLookBehind;
  std::optional<float> wbPitchMin, wbPitchMax, wbYawMin, wbYawMax, wbLookAtHeight;
  std::map<std::string, float> maxVelocity;
  std::map<std::string, UrdfServo> servos;
};

class UrdfImport {
 public:
  /// Reads a mapping file and the URDF it names. Errors throw
  /// KRError("UrdfImport", "robotFromUrdfMapping", "FILE: ELEMENT: what is wrong"), FILE being
  /// the mapping or the URDF. Notes (what was derived in an unusual way) go to `notes`.
  static std::unique_ptr<Robot> robotFromUrdfMapping(const std::string& path,
                                                     std::vector<std::string>* notes = nullptr);
  /// The same from the mapping's text: its `urdf:` is read relative to baseDir; mappingName
  /// names the mapping in errors.
  static std::unique_ptr<Robot> robotFromUrdfMappingText(const std::string& yaml,
                                                         const std::string& baseDir,
                                                         const std::string& mappingName,
                                                         std::vector<std::string>* notes = nullptr);
  /// The same from both texts, nothing read from disk; urdfName names the URDF in errors.
  static std::unique_ptr<Robot> robotFromTexts(const std::string& yaml,
                                               const std::string& mappingName,
                                               const std::string& urdf, const std::string& urdfName,
                                               std::vector<std::string>* notes = nullptr);
  /// The mapping alone, validated for its keys and kinds (not against a URDF).
  static UrdfMapping readMapping(const std::string& yaml, const std::string& mappingName);
  /// The URDF alone as urdfdom reads it: its error, or empty when urdfdom accepts it.
  static std::string urdfError(const std::string& urdf);
  /// The text of an error on one line: control characters (a newline in a name or a value the
  /// error quotes) become spaces, and a very long text is cut.
  static std::string oneLine(std::string text);
  /// Whether a file name is a mapping's (ends in .yaml or .yml).
  static bool isMappingFile(const std::string& path);
  /// The URDF file a mapping file names, resolved against the mapping's folder.
  static std::string urdfPath(const std::string& mappingPath, const UrdfMapping& mapping);
};

}  // namespace Model
}  // namespace KR
