#pragma once
// The MuJoCo model of a robot read from a URDF (RobotDescription::urdf): the URDF's links as
// bodies with their own masses and inertias, its collision geometry (else its visual one) as
// geoms, from primitives and from mesh files when they are found, a link whose meshes are all
// missing drawn as a simple shape sized from the link (a capsule to its children, a small
// sphere at a leaf). Every link is kept as a body, fixed ones included, so that the cameras stay
// where the URDF puts them. The head joints and the arm joints the mapping names become hinges
// with position servos as in the XML robots' model; every other joint is held at its `fixed`
// position (the mapping's, else 0) by being built into the bodies' poses. The URDF's root hangs
// under the base ("Base" on the planar joints BaseX, BaseY, BaseYaw) so that the torso link sits
// at the torso height above the robot frame, as the tracker's model has it.
//
// Contacts stay off as in the XML robots' model: geometry is for the pictures.

#include <map>
#include <string>

#include <kr/model/robot.h>

#include <krsim/robot/robot_description.h>

struct mjModel_;

namespace KR {
namespace Sim {

/// A MuJoCo model as text, the mesh files it reads and what shapes each named element.
struct MujocoModelText {
  std::string xml;
  std::map<std::string, std::string> meshFiles;  // name in the model -> file on disk
  std::map<std::string, std::string> sources;    // element name -> what it is built from
};

/// The MuJoCo model of a URDF robot. The cameras are those of the head effectors, named
/// "CameraTop", "CameraBottom" and "DepthCamera" (effectors 0, 1, 2); the joints the tracker
/// moves keep their URDF names, their actuators too.
MujocoModelText mujocoModelFromUrdf(const Model::Robot& robot, const UrdfSource& source);

/// Loads a model through MuJoCo's virtual file system, its mesh files read into it: nothing is
/// written to disk. Null, with MuJoCo's error in `error`, when MuJoCo rejects it.
mjModel_* loadMujocoModel(const MujocoModelText& model, char* error, int errorSize);

}  // namespace Sim
}  // namespace KR
