#pragma once
// RobotDescription: a robot description loaded once at the edge of a run (the file it came
// from, its text and the robot parsed from it) and handed down to whatever needs the robot:
// the scenario's geometry, the robot-model service (which serves the text as it was read),
// the motion service and the physics backends (which read the parsed robot).
//
// A robot is an XML description (robots/README.md) or a URDF with its YAML mapping (a file
// ending in .yaml or .yml, "URDF robots" there). A URDF robot is served as the XML text that
// ModelUtils::robotToXml writes, and its parsed robot is read back from that text, so that the
// tracker and the simulated robot hold the same numbers; the MuJoCo backend builds its model
// from the URDF itself (UrdfSource).

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <kr/model/robot.h>
#include <kr/model/urdfimport.h>

namespace KR {
namespace Sim {

/// An input that cannot be read (not a regular file, too large, malformed): its text is the
/// one line the user reads.
struct InputError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// A robot read from a URDF with its mapping: what the MuJoCo model is built from.
struct UrdfSource {
  std::string mappingPath;
  std::string urdfPath;  // resolved against the mapping's folder
  std::string urdfText;
  Model::UrdfMapping mapping;
  /// Mesh files the URDF names that are not found beside it (drawn as simple shapes).
  std::vector<std::string> missingMeshes;
};

struct RobotDescription {
  std::string path;  // the file it was read from; empty when given as text
  std::string text;  // the description as read (a URDF robot: as XML), served by "KRRobotModel"
  std::shared_ptr<const Model::Robot> robot;
  /// Set for a URDF robot.
  std::shared_ptr<const UrdfSource> urdf;
  /// What loading noticed (for the run's header), e.g. the URDF's masses missing.
  std::vector<std::string> notes;

  /// Reads and parses a robot given as a file or a name of the robots folder ("kibo").
  /// InputError "robot 'PATH' is not a regular file", "... is N bytes, more than ..." or
  /// "cannot load robot 'NAME': what is wrong".
  static std::shared_ptr<const RobotDescription> load(const std::string& nameOrPath);
  /// Parses a description given as text; KRError when it is malformed.
  static std::shared_ptr<const RobotDescription> fromText(std::string text);
};

/// Path of a robot file given as a path or as a name of the robots folder ("kibo" is kibo.xml,
/// "lumen" lumen.yaml: NAME, NAME.xml, NAME.yaml in this order).
std::string resolveRobotFile(const std::string& nameOrPath);

/// Where a mesh file a URDF names is found ("package://PKG/PATH" looked for beside the URDF,
/// one and two folders up, and under PKG there; "file://" and plain paths as given, relative
/// to the URDF's folder); empty when it is not.
std::string findUrdfMesh(const std::string& urdfPath, const std::string& filename);

/// Path of a file of the project's data (robots/, scenarios/, tools/), found beside the robots
/// folder; empty when it is not there.
std::string findDataFile(const std::string& relative);

/// Inputs are regular files of a reasonable size (not a device, a pipe or a folder):
/// InputError "WHAT 'PATH' is not a regular file" or "... is N bytes, more than the M
/// accepted" (1 MiB). A missing file passes: its reader names it.
void checkInputFile(const std::string& what, const std::string& path);

/// The whole text of an input file, checked as checkInputFile checks it before it is opened
/// and again once open (opened without blocking, so that a FIFO or a device is never read
/// from, even one swapped in between); no more than the accepted size is ever read.
/// InputError as checkInputFile; nullopt when the file cannot be opened (missing, no right).
std::optional<std::string> readInputFile(const std::string& what, const std::string& path);

}  // namespace Sim
}  // namespace KR
