#include <krsim/robot/physics/mujoco_urdf.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <vector>

#include <console_bridge/console.h>
#include <mujoco/mujoco.h>
#include <urdf_parser/urdf_parser.h>
#include <Eigen/Geometry>

#include <kr/error.h>

#include <krsim/robot/physics/mujoco.h>

namespace KR {
namespace Sim {

namespace {

using Iso = Eigen::Isometry3d;

constexpr const char* kCameras[Model::kTrackEffectorCount] = {"CameraTop", "CameraBottom",
                                                              "DepthCamera"};

std::string fmt(double v) {
  std::ostringstream os;
  os << std::setprecision(9) << v;
  return os.str();
}

std::string vec(const Eigen::Vector3d& v) {
  return fmt(v.x()) + " " + fmt(v.y()) + " " + fmt(v.z());
}

Iso toIso(const urdf::Pose& p) {
  Iso t = Iso::Identity();
  t.translation() = Eigen::Vector3d(p.position.x, p.position.y, p.position.z);
  const Eigen::Quaterniond q(p.rotation.w, p.rotation.x, p.rotation.y, p.rotation.z);
  if (q.norm() > 0.0)
    t.linear() = q.normalized().toRotationMatrix();
  return t;
}

// pos="..." quat="w x y z" of a pose.
std::string placement(const Iso& t) {
  const Eigen::Quaterniond q(t.linear());
  return "pos=\"" + vec(t.translation()) + "\" quat=\"" + fmt(q.w()) + " " + fmt(q.x()) + " " +
         fmt(q.y()) + " " + fmt(q.z()) + "\"";
}

bool isRotary(const urdf::Joint& j) {
  return j.type == urdf::Joint::REVOLUTE || j.type == urdf::Joint::CONTINUOUS;
}

// The URDF as urdfdom reads it (RobotDescription has checked it already), without output.
urdf::ModelInterfaceSharedPtr parseQuietly(const std::string& text) {
  static std::mutex mutex;
  std::lock_guard<std::mutex> lock(mutex);
  console_bridge::noOutputHandler();
  urdf::ModelInterfaceSharedPtr model;
  try {
    model = urdf::parseURDF(text);
  } catch (const std::exception&) {
  }
  console_bridge::restorePreviousOutputHandler();
  return model;
}

class UrdfModelWriter {
 public:
  UrdfModelWriter(const Model::Robot& robot, const UrdfSource& source,
                  const urdf::ModelInterface& model)
      : fRobot(robot), fSource(source), fModel(model) {}

  MujocoModelText write();

 private:
  double heldPosition(const urdf::Joint& j) const {
    const auto it = fSource.mapping.fixed.find(j.name);
    return it == fSource.mapping.fixed.end() ? 0.0 : it->second;
  }
  // The joint's motion at a position (rotation about or translation along its axis).
  static Iso motion(const urdf::Joint& j, double q) {
    Iso t = Iso::Identity();
    const Eigen::Vector3d a(j.axis.x, j.axis.y, j.axis.z);
    if (q == 0.0 || a.norm() == 0.0)
      return t;
    if (isRotary(j))
      t.linear() = Eigen::AngleAxisd(q, a.normalized()).toRotationMatrix();
    else if (j.type == urdf::Joint::PRISMATIC)
      t.translation() = q * a.normalized();
    return t;
  }
  Iso rootToTorso() const;
  bool isTracked(const urdf::Joint* j) const {
    return j && fRobot.getJoints().count(j->name) && isRotary(*j);
  }
  bool hasMass(const urdf::Link& link) const { return link.inertial && link.inertial->mass > 0.0; }
  // Where a child link sits in its parent's frame: its joint's origin, and a held joint's motion.
  Iso childPlacement(const urdf::Joint& j) const {
    const Iso at = toIso(j.parent_to_joint_origin_transform);
    return isTracked(&j) ? at : at * motion(j, heldPosition(j));
  }
  void body(const urdf::Link& link, const Iso& placementInParent);
  void contents(const urdf::Link& link, const Iso& frame, bool& moving, bool& massive);
  void joint(const urdf::Joint& j, const Iso& frame);
  // What a moving body weighs when the URDF gives it no mass: MuJoCo refuses massless ones.
  void tinyInertial() {
    fBody << "<inertial pos=\"0 0 0\" mass=\"0.001\" diaginertia=\"1e-07 1e-07 1e-07\"/>\n";
  }
  void inertial(const urdf::Link& link, const Iso& frame);
  void geometry(const urdf::Link& link, const Iso& frame);
  bool canDraw(const urdf::Geometry& g) const {
    if (g.type != urdf::Geometry::MESH)
      return true;
    const std::string file =
        findUrdfMesh(fSource.urdfPath, static_cast<const urdf::Mesh&>(g).filename);
    std::string ext = file.size() > 4 ? file.substr(file.size() - 4) : "";
    std::transform(ext.begin(), ext.end(), ext.begin(), ::tolower);
    return ext == ".stl" || ext == ".obj";
  }
  bool geom(const urdf::Geometry& g, const Iso& origin, const std::string& rgba);
  void simpleShape(const urdf::Link& link, const Iso& frame);
  void cameras(const urdf::Link& link, const Iso& frame);

  const Model::Robot& fRobot;
  const UrdfSource& fSource;
  const urdf::ModelInterface& fModel;
  std::ostringstream fBody, fAssets, fActuators;
  MujocoModelText fOut;
  std::map<std::string, std::string> fMeshNames;  // file on disk -> asset name
};

Iso UrdfModelWriter::rootToTorso() const {
  Iso t = Iso::Identity();
  urdf::LinkConstSharedPtr l = fModel.getLink(fSource.mapping.torso);
  while (l && l->parent_joint) {
    const urdf::Joint& j = *l->parent_joint;
    t = toIso(j.parent_to_joint_origin_transform) * motion(j, heldPosition(j)) * t;
    l = fModel.getLink(j.parent_link_name);
  }
  return t;
}

void UrdfModelWriter::joint(const urdf::Joint& j, const Iso& frame) {
  const auto& joints = fRobot.getJoints();
  const auto found = joints.find(j.name);
  const Model::TrackerJoint& tj = found->second;
  const Model::JointServo servo = fRobot.getServo(j.name);
  const Eigen::Vector3d axis = Eigen::Vector3d(j.axis.x, j.axis.y, j.axis.z).normalized();
  fBody << "<joint name=\"" << j.name << "\" pos=\"" << vec(frame.translation()) << "\" axis=\""
        << vec(frame.linear() * axis) << "\" limited=\"true\" range=\"" << fmt(tj.min) << " "
        << fmt(tj.max) << "\" armature=\"" << fmt(servo.armature) << "\"/>\n";
  // The damping is set once the model is loaded, from the inertia that the joint moves.
  fActuators << "<position name=\"" << j.name << "\" joint=\"" << j.name << "\" kp=\""
             << fmt(servo.stiffness) << "\" forcelimited=\"true\" forcerange=\""
             << fmt(-servo.maxTorque) << " " << fmt(servo.maxTorque) << "\"/>\n";
  fOut.sources[j.name] = "URDF joint '" + j.name + "' (limits, effort) and its servo";
}

void UrdfModelWriter::inertial(const urdf::Link& link, const Iso& linkFrame) {
  const urdf::Inertial* in = link.inertial.get();
  if (in && in->mass > 0.0) {
    // The URDF gives the inertia in the inertial frame; MuJoCo's fullinertia is in the body's.
    const Iso frame = linkFrame * toIso(in->origin);
    Eigen::Matrix3d inertia;
    inertia << in->ixx, in->ixy, in->ixz, in->ixy, in->iyy, in->iyz, in->ixz, in->iyz, in->izz;
    const Eigen::Matrix3d i = frame.linear() * inertia * frame.linear().transpose();
    fBody << "<inertial pos=\"" << vec(frame.translation()) << "\" mass=\"" << fmt(in->mass)
          << "\" fullinertia=\"" << fmt(i(0, 0)) << " " << fmt(i(1, 1)) << " " << fmt(i(2, 2))
          << " " << fmt(i(0, 1)) << " " << fmt(i(0, 2)) << " " << fmt(i(1, 2)) << "\"/>\n";
  }
}

bool UrdfModelWriter::geom(const urdf::Geometry& g, const Iso& origin, const std::string& rgba) {
  const std::string at = placement(origin) + " rgba=\"" + rgba + "\"";
  switch (g.type) {
    case urdf::Geometry::SPHERE:
      fBody << "<geom type=\"sphere\" size=\"" << fmt(static_cast<const urdf::Sphere&>(g).radius)
            << "\" " << at << "/>\n";
      return true;
    case urdf::Geometry::BOX: {
      const auto& d = static_cast<const urdf::Box&>(g).dim;
      fBody << "<geom type=\"box\" size=\"" << fmt(0.5 * d.x) << " " << fmt(0.5 * d.y) << " "
            << fmt(0.5 * d.z) << "\" " << at << "/>\n";
      return true;
    }
    case urdf::Geometry::CYLINDER: {
      const auto& c = static_cast<const urdf::Cylinder&>(g);
      fBody << "<geom type=\"cylinder\" size=\"" << fmt(c.radius) << " " << fmt(0.5 * c.length)
            << "\" " << at << "/>\n";
      return true;
    }
    case urdf::Geometry::MESH: {
      const auto& m = static_cast<const urdf::Mesh&>(g);
      const std::string file = findUrdfMesh(fSource.urdfPath, m.filename);
      std::string ext = file.size() > 4 ? file.substr(file.size() - 4) : "";
      std::transform(ext.begin(), ext.end(), ext.begin(), ::tolower);
      if (file.empty() || (ext != ".stl" && ext != ".obj"))
        return false;
      auto name = fMeshNames.find(file);
      if (name == fMeshNames.end()) {
        const std::string asset = "mesh" + std::to_string(fMeshNames.size()) + ext;
        name = fMeshNames.emplace(file, asset).first;
        fOut.meshFiles[asset] = file;
        fAssets << "<mesh name=\"" << asset << "\" file=\"" << asset << "\" scale=\""
                << fmt(m.scale.x) << " " << fmt(m.scale.y) << " " << fmt(m.scale.z) << "\"/>\n";
      }
      fBody << "<geom type=\"mesh\" mesh=\"" << name->second << "\" " << at << "/>\n";
      return true;
    }
  }
  return false;
}

// A link whose geometry is all missing meshes: a capsule from its origin to the farthest child
// joint, or a small sphere at a leaf.
void UrdfModelWriter::simpleShape(const urdf::Link& link, const Iso& frame) {
  Eigen::Vector3d far = Eigen::Vector3d::Zero();
  for (const auto& j : link.child_joints) {
    const Eigen::Vector3d p = toIso(j->parent_to_joint_origin_transform).translation();
    if (p.norm() > far.norm())
      far = p;
  }
  const std::string rgba = "0.8 0.8 0.85 1";
  if (far.norm() > 0.02) {
    fBody << "<geom type=\"capsule\" fromto=\"" << vec(frame.translation()) << " "
          << vec(frame * far) << "\" size=\"" << fmt(std::max(0.01, 0.15 * far.norm()))
          << "\" rgba=\"" << rgba << "\"/>\n";
  } else {
    fBody << "<geom type=\"sphere\" pos=\"" << vec(frame.translation())
          << "\" size=\"0.03\" rgba=\"" << rgba << "\"/>\n";
  }
}

// The visual geometry when all of it can be drawn (primitives, meshes found), else the collision
// geometry when all of that can, else what can be drawn of either; a link with nothing drawable
// (its meshes all missing) gets a simple shape.
void UrdfModelWriter::geometry(const urdf::Link& link, const Iso& frame) {
  using Shapes = std::vector<std::pair<const urdf::Geometry*, Iso>>;
  Shapes visual, collision;
  for (const auto& v : link.visual_array) {
    if (v->geometry)
      visual.emplace_back(v->geometry.get(), frame * toIso(v->origin));
  }
  for (const auto& c : link.collision_array) {
    if (c->geometry)
      collision.emplace_back(c->geometry.get(), frame * toIso(c->origin));
  }
  const auto drawable = [&](const Shapes& shapes) {
    return std::count_if(shapes.begin(), shapes.end(),
                         [&](const auto& s) { return canDraw(*s.first); });
  };
  const Shapes* chosen = nullptr;
  if (!visual.empty() && drawable(visual) == long(visual.size()))
    chosen = &visual;
  else if (!collision.empty() && drawable(collision) == long(collision.size()))
    chosen = &collision;
  else
    chosen = drawable(visual) > 0 ? &visual : &collision;
  bool drawn = false;
  for (const auto& [g, at] : *chosen) {
    if (canDraw(*g)) {
      geom(*g, at, "0.85 0.85 0.9 1");
      drawn = true;
    }
  }
  if (!drawn && !(visual.empty() && collision.empty()))
    simpleShape(link, frame);
}

void UrdfModelWriter::cameras(const urdf::Link& link, const Iso& frame) {
  const auto& cams = fSource.mapping.cameras;
  for (int e = 0; e < Model::kTrackEffectorCount; ++e) {
    const std::size_t i = std::size_t(e) < cams.size() ? std::size_t(e) : 0;
    if (cams[i].frame != link.name)
      continue;
    // A MuJoCo camera looks along its -z axis with y up: from an optical frame (z forward,
    // y down) x stays and y turns over; from an x-forward frame x is -y and y is z.
    const Eigen::Matrix3d r = frame.linear();
    const Eigen::Vector3d x =
        cams[i].axis == 'z' ? Eigen::Vector3d(r.col(0)) : Eigen::Vector3d(-r.col(1));
    const Eigen::Vector3d y =
        cams[i].axis == 'z' ? Eigen::Vector3d(-r.col(1)) : Eigen::Vector3d(r.col(2));
    const double fovy = fRobot.getCameraVerticalFov(e) * 180.0 / M_PI;
    fBody << "<camera name=\"" << kCameras[e] << "\" pos=\"" << vec(frame.translation())
          << "\" xyaxes=\"" << vec(x) << " " << vec(y) << "\" fovy=\"" << fmt(fovy) << "\"/>\n";
  }
}

// A link's joint (when the tracker moves it), mass, geometry and cameras, placed at `frame` in
// the body being written. A body that moves but has no mass yet (MuJoCo refuses those) takes in
// its only child as well, that child's joint acting after its own: a chain of massless links
// ends in the first link with a mass, as the XML robots' model has the head's two joints in one
// body.
void UrdfModelWriter::contents(const urdf::Link& link, const Iso& frame, bool& moving,
                               bool& massive) {
  if (isTracked(link.parent_joint.get())) {
    joint(*link.parent_joint, frame);
    moving = true;
  }
  inertial(link, frame);
  massive = massive || hasMass(link);
  geometry(link, frame);
  cameras(link, frame);
  fOut.sources[link.name] = "URDF link '" + link.name + "' (inertial, geometry)";
  if (moving && !massive && link.child_joints.size() == 1) {
    const urdf::Joint& j = *link.child_joints.front();
    contents(*fModel.getLink(j.child_link_name), frame * childPlacement(j), moving, massive);
    return;
  }
  for (const auto& j : link.child_joints)
    body(*fModel.getLink(j->child_link_name), frame * childPlacement(*j));
}

void UrdfModelWriter::body(const urdf::Link& link, const Iso& placementInParent) {
  fBody << "<body name=\"" << link.name << "\" " << placement(placementInParent) << ">\n";
  bool moving = false, massive = false;
  contents(link, Iso::Identity(), moving, massive);
  if (moving && !massive)
    tinyInertial();
  fBody << "</body>\n";
}

MujocoModelText UrdfModelWriter::write() {
  // The root under the base: the torso link at the torso height above the robot frame.
  Iso torsoInBase = Iso::Identity();
  torsoInBase.translation().z() = fRobot.getTorsoHeight();
  const Iso rootInBase = torsoInBase * rootToTorso().inverse();
  // The base moves on its planar joints: it takes in the root link and the links below it down
  // to the first with a mass (usually the base or the torso link).
  fBody << "<body name=\"Base\">\n"
        << "<joint name=\"BaseX\" type=\"slide\" axis=\"1 0 0\"/>\n"
        << "<joint name=\"BaseY\" type=\"slide\" axis=\"0 1 0\"/>\n"
        << "<joint name=\"BaseYaw\" type=\"hinge\" axis=\"0 0 1\"/>\n";
  bool moving = true, massive = false;
  contents(*fModel.getRoot(), rootInBase, moving, massive);
  if (!massive)
    tinyInertial();
  fOut.sources["Base"] =
      "the URDF's root link '" + fModel.getRoot()->name + "' and the links it carries";
  fBody << "</body>\n";
  for (int i = 0; i < MujocoBackend::kTargetCount; ++i) {
    fBody << "<body name=\"Target" << i << "\" mocap=\"true\" pos=\"0 0 -1\">"
          << "<geom type=\"sphere\" size=\"0.05\" rgba=\"0.95 0.2 0.1 1\"/></body>\n";
  }
  for (const char* base : {"BaseX", "BaseY", "BaseYaw"})
    fActuators << "<velocity name=\"" << base << "\" joint=\"" << base << "\" kv=\"1\"/>\n";

  std::ostringstream out;
  out << "<mujoco model=\"" << fRobot.getName() << "\">\n"
      << "<compiler angle=\"radian\" inertiafromgeom=\"false\" fusestatic=\"false\"/>\n"
      << "<option timestep=\"" << fmt(MujocoBackend::kPhysicsStep)
      << "\" gravity=\"0 0 -9.81\" integrator=\"Euler\">\n"
      << "<flag contact=\"disable\"/>\n</option>\n"
      << "<visual><global offwidth=\"1280\" offheight=\"960\"/></visual>\n"
      << "<default><geom contype=\"0\" conaffinity=\"0\"/></default>\n"
      << "<asset>\n"
      << fAssets.str() << "</asset>\n"
      << "<worldbody>\n"
      << "<light pos=\"0 0 4\" dir=\"0 0 -1\" directional=\"true\"/>\n"
      << "<geom name=\"Floor\" type=\"plane\" size=\"10 10 0.1\" rgba=\"0.75 0.78 0.8 1\"/>\n"
      << fBody.str() << "</worldbody>\n<actuator>\n"
      << fActuators.str() << "</actuator>\n</mujoco>\n";
  fOut.xml = out.str();
  return std::move(fOut);
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

bool addToVfs(mjVFS* vfs, const std::string& name, const std::string& content) {
  if (mj_makeEmptyFileVFS(vfs, name.c_str(), static_cast<int>(content.size())) != 0)
    return false;
  std::memcpy(vfs->filedata[mj_findFileVFS(vfs, name.c_str())], content.data(), content.size());
  return true;
}

}  // namespace

MujocoModelText mujocoModelFromUrdf(const Model::Robot& robot, const UrdfSource& source) {
  const urdf::ModelInterfaceSharedPtr model = parseQuietly(source.urdfText);
  if (!model) {
    throw KRError(
        "KRMotion", "mujoco",
        "the URDF of robot \"" + robot.getName() + "\" no longer reads: " + source.urdfPath);
  }
  return UrdfModelWriter(robot, source, *model).write();
}

mjModel_* loadMujocoModel(const MujocoModelText& model, char* error, int errorSize) {
  auto vfs = std::make_unique<mjVFS>();
  mj_defaultVFS(vfs.get());
  const std::string file = "robot.xml";
  bool held = addToVfs(vfs.get(), file, model.xml);
  for (const auto& [name, path] : model.meshFiles)
    held = held && addToVfs(vfs.get(), name, readFile(path));
  mjModel* m = nullptr;
  if (held) {
    m = mj_loadXML(file.c_str(), vfs.get(), error, errorSize);
  } else {
    std::snprintf(error, errorSize, "the model's files do not fit in MuJoCo's file system");
  }
  mj_deleteVFS(vfs.get());
  return m;
}

}  // namespace Sim
}  // namespace KR
