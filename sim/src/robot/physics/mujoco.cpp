#include <krsim/robot/physics/mujoco.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iomanip>
#include <mutex>
#include <sstream>

#include <mujoco/mujoco.h>

#include <ko/log.h>
#include <kr/error.h>
#include <kr/math/math.h>

#include <krsim/robot/physics/mujoco_urdf.h>

namespace KR {
namespace Sim {

namespace {

constexpr const char* kModule = "KRMotion";
constexpr double kBaseTimeConstant = 0.01;  // base velocity response [s]
constexpr double kUpperArmShare = 0.6;      // of an arm's mass; the forearm has the rest
constexpr double kForearmLength = 0.9;      // times the upper arm's length
// The cameras of head effectors 0, 1 and 2.
constexpr const char* kCameras[Model::kTrackEffectorCount] = {"CameraTop", "CameraBottom",
                                                              "DepthCamera"};

// MuJoCo reports warnings (instability among them) through a global hook, by default to
// stdout and a log file in the working directory. They go to our log instead; step() turns
// the ones that matter into errors.
void installWarningHook() {
  static std::once_flag once;
  std::call_once(once, [] {
    mju_user_warning = [](const char* text) { ko::log::warning("krsim.mujoco", "MuJoCo", text); };
  });
}

std::string fmt(double v) {
  std::ostringstream os;
  os << std::setprecision(7) << v;
  return os.str();
}

std::string vec(const Math::Position3D& p) {
  return fmt(p.x) + " " + fmt(p.y) + " " + fmt(p.z);
}

// Rod of mass m and length l along x, radius r: inertia about its centre (x, y, z).
std::string rodInertia(double m, double l, double r) {
  const double axial = 0.5 * m * r * r;
  const double across = m * (3 * r * r + l * l) / 12.0;
  return fmt(axial) + " " + fmt(across) + " " + fmt(across);
}

// Solid box of mass m with half sizes (a, b, c).
std::string boxInertia(double m, double a, double b, double c) {
  return fmt(m * (b * b + c * c) / 3.0) + " " + fmt(m * (a * a + c * c) / 3.0) + " " +
         fmt(m * (a * a + b * b) / 3.0);
}

// The MuJoCo elements generated from the description, by name, with the description field
// that shapes each: what an error names when MuJoCo rejects the model.
class ModelWriter {
 public:
  explicit ModelWriter(const Model::Robot& robot) : fRobot(robot) {}

  /// The whole model (MJCF text); once per writer.
  std::string xml();
  const std::map<std::string, std::string>& sources() const { return fSources; }

 private:
  /// Half sizes of the torso's box, from the shoulders and the neck, and the radius of the
  /// legs (or base) below it [m].
  struct TorsoShape {
    double halfWidth = 0.0, halfDepth = 0.0, halfHeight = 0.0, legRadius = 0.0;
  };

  TorsoShape torsoShape() const;
  void base(const TorsoShape& torso);
  void head();
  void joint(const Model::TrackerJoint& j, const char* axis, const std::string& source);
  void arm(const Model::TrackerArm& arm, const std::string& side);
  void targets();
  std::string document() const;

  const Model::Robot& fRobot;
  std::ostringstream fBody;
  std::ostringstream fActuators;
  std::map<std::string, std::string> fSources;
};

std::string ModelWriter::xml() {
  const Model::KRTrackerModel& m = fRobot.trackerModel();
  base(torsoShape());
  head();
  arm(m.leftArm, "left");
  arm(m.rightArm, "right");
  fBody << "</body>\n</body>\n";  // Torso, Base
  targets();
  return document();
}

ModelWriter::TorsoShape ModelWriter::torsoShape() const {
  const Model::KRTrackerModel& m = fRobot.trackerModel();
  TorsoShape t;
  t.halfWidth = std::max(0.04, 0.8 * std::fabs(m.leftArm.shoulderPosition.y));
  t.halfDepth = 0.6 * t.halfWidth;
  t.halfHeight = std::max(0.03, 0.5 * static_cast<double>(m.head.headPosition.z));
  t.legRadius = 0.5 * t.halfWidth;
  return t;
}

// The base on its planar joints, carrying the mass of torso and legs, then the torso's body
// (left open for the head and arms).
void ModelWriter::base(const TorsoShape& torso) {
  const double torsoHeight = fRobot.getTorsoHeight();
  const double torsoMass = fRobot.getTorsoMass();
  const double comZ = 0.5 * (torsoHeight + 2 * torso.halfHeight);  // over torso and legs
  const double fullHalfHeight = 0.5 * (torsoHeight + 2 * torso.halfHeight);
  fBody << "<body name=\"Base\">\n"
        << "<joint name=\"BaseX\" type=\"slide\" axis=\"1 0 0\"/>\n"
        << "<joint name=\"BaseY\" type=\"slide\" axis=\"0 1 0\"/>\n"
        << "<joint name=\"BaseYaw\" type=\"hinge\" axis=\"0 0 1\"/>\n"
        << "<inertial pos=\"0 0 " << fmt(comZ) << "\" mass=\"" << fmt(torsoMass)
        << "\" diaginertia=\""
        << boxInertia(torsoMass, torso.halfDepth, torso.halfWidth, fullHalfHeight) << "\"/>\n";
  fSources["Base"] = "robot/torso (mass, height)";
  if (torsoHeight > 0.0) {
    fBody << "<geom type=\"capsule\" fromto=\"0 0 " << fmt(torso.legRadius) << " 0 0 "
          << fmt(std::max(torsoHeight, torso.legRadius)) << "\" size=\"" << fmt(torso.legRadius)
          << "\" rgba=\"0.5 0.5 0.55 1\"/>\n";
  }
  fBody << "<body name=\"Torso\" pos=\"0 0 " << fmt(torsoHeight) << "\">\n"
        << "<geom type=\"box\" pos=\"0 0 " << fmt(torso.halfHeight) << "\" size=\""
        << fmt(torso.halfDepth) << " " << fmt(torso.halfWidth) << " " << fmt(torso.halfHeight)
        << "\" rgba=\"0.9 0.9 0.95 1\"/>\n";
}

// Head: yaw then pitch about its turning point; a sphere around its sensors, balanced over the
// pitch axis as servo heads are; the cameras of the head effectors.
void ModelWriter::head() {
  const Model::KRTrackerModel& m = fRobot.trackerModel();
  double reach = 0.03, top = 0.0;
  for (const auto& e : m.head.effectorTransforms) {
    const Math::Position3D p = e.translation();
    reach = std::max(reach, static_cast<double>(std::hypot(p.x, p.y)));
    top += p.z / Model::kTrackEffectorCount;
  }
  double headMass = fRobot.getHeadMass();
  fBody << "<body name=\"Head\" pos=\"" << vec(m.head.headPosition) << "\">\n";
  fSources["Head"] = "robot/head (mass, position)";
  joint(m.head.yaw, "0 0 1", "robot/head");
  // A pitch joint away from the yaw axis (yawToPitch): its own body there, a tenth of the
  // head's mass left on the yaw joint's.
  const bool offset = !(m.head.yawToPitch == Math::Position3D());
  if (offset) {
    const double neck = 0.1 * headMass;
    headMass -= neck;
    fBody << "<inertial pos=\"0 0 0\" mass=\"" << fmt(neck) << "\" diaginertia=\""
          << fmt(1e-4 * neck) << " " << fmt(1e-4 * neck) << " " << fmt(1e-4 * neck) << "\"/>\n"
          << "<body name=\"HeadTilt\" pos=\"" << vec(m.head.yawToPitch) << "\">\n";
    fSources["HeadTilt"] = "robot/head (mass, yawToPitch)";
  }
  joint(m.head.pitch, "0 1 0", "robot/head");
  fBody << "<inertial pos=\"0 0 " << fmt(top) << "\" mass=\"" << fmt(headMass)
        << "\" diaginertia=\"" << fmt(0.4 * headMass * reach * reach) << " "
        << fmt(0.4 * headMass * reach * reach) << " " << fmt(0.4 * headMass * reach * reach)
        << "\"/>\n"
        << "<geom type=\"sphere\" pos=\"0 0 " << fmt(top) << "\" size=\"" << fmt(0.9 * reach)
        << "\" rgba=\"0.95 0.95 1 1\"/>\n";
  // A MuJoCo camera looks along its -z axis with y up: x = -(effector y), y = effector z.
  const double fovy = fRobot.getCameraVerticalFov() * 180.0 / M_PI;
  for (int i = 0; i < Model::kTrackEffectorCount; ++i) {
    const Math::Transform& e = m.head.effectorTransforms[i];
    fBody << "<camera name=\"" << kCameras[i] << "\" pos=\"" << vec(e.translation())
          << "\" xyaxes=\"" << vec(-e.yAxis()) << " " << vec(e.zAxis()) << "\" fovy=\"" << fmt(fovy)
          << "\"/>\n";
  }
  fBody << (offset ? "</body>\n</body>\n" : "</body>\n");
}

// The world's targets as motion-capture bodies, out of sight until placed; the base's
// velocity actuators after the joints' servos.
void ModelWriter::targets() {
  for (int i = 0; i < MujocoBackend::kTargetCount; ++i) {
    fBody << "<body name=\"Target" << i << "\" mocap=\"true\" pos=\"0 0 -1\">"
          << "<geom type=\"sphere\" size=\"0.05\" rgba=\"0.95 0.2 0.1 1\"/></body>\n";
  }
  for (const char* base : {"BaseX", "BaseY", "BaseYaw"})
    fActuators << "<velocity name=\"" << base << "\" joint=\"" << base << "\" kv=\"1\"/>\n";
}

// Options (physics step, gravity, no contacts), the picture's size, light and floor around
// the bodies and actuators written so far.
std::string ModelWriter::document() const {
  std::ostringstream out;
  out << "<mujoco model=\"" << fRobot.getName() << "\">\n"
      << "<compiler angle=\"radian\" inertiafromgeom=\"false\"/>\n"
      << "<option timestep=\"" << fmt(MujocoBackend::kPhysicsStep)
      << "\" gravity=\"0 0 -9.81\" integrator=\"Euler\">\n"
      << "<flag contact=\"disable\"/>\n</option>\n"
      << "<visual><global offwidth=\"1280\" offheight=\"960\"/></visual>\n"
      << "<default><geom contype=\"0\" conaffinity=\"0\"/></default>\n"
      << "<worldbody>\n"
      << "<light pos=\"0 0 4\" dir=\"0 0 -1\" directional=\"true\"/>\n"
      << "<geom name=\"Floor\" type=\"plane\" size=\"10 10 0.1\" rgba=\"0.75 0.78 0.8 1\"/>\n"
      << fBody.str() << "</worldbody>\n<actuator>\n"
      << fActuators.str() << "</actuator>\n</mujoco>\n";
  return out.str();
}

void ModelWriter::joint(const Model::TrackerJoint& j, const char* axis, const std::string& source) {
  if (j.name.empty())
    return;
  const Model::JointServo servo = fRobot.getServo(j.name);
  fBody << "<joint name=\"" << j.name << "\" axis=\"" << axis << "\" limited=\"true\" range=\""
        << fmt(j.min) << " " << fmt(j.max) << "\" armature=\"" << fmt(servo.armature) << "\"/>\n";
  // The damping is set once the model is loaded, from the inertia that the joint moves.
  fActuators << "<position name=\"" << j.name << "\" joint=\"" << j.name << "\" kp=\""
             << fmt(servo.stiffness) << "\" forcelimited=\"true\" forcerange=\""
             << fmt(-servo.maxTorque) << " " << fmt(servo.maxTorque) << "\"/>\n";
  fSources[j.name] =
      source + "/joint[name=" + j.name + "] (min, max, stiffness, maxTorque, armature)";
}

void ModelWriter::arm(const Model::TrackerArm& arm, const std::string& side) {
  if (arm.joints[0].name.empty())
    return;
  const std::string prefix = side == "left" ? "L" : "R";
  const std::string source = "robot/arm[side=" + side + "]";
  const double mass = fRobot.getArmMass(arm.name);
  const Math::Position3D elbow = arm.armTransform.translation();
  const double upper = std::max(0.02, static_cast<double>(std::sqrt(elbow.dot(elbow))));
  const double fore = kForearmLength * upper;
  const double radius = 0.12 * upper;
  const Math::Position3D mid = elbow * 0.5f;

  fBody << "<body name=\"" << prefix << "UpperArm\" pos=\"" << vec(arm.shoulderPosition) << "\">\n";
  fSources[prefix + "UpperArm"] = source + " (mass) and its shoulder";
  joint(arm.joints[0], "0 1 0", source);
  joint(arm.joints[1], "0 0 1", source);
  fBody << "<inertial pos=\"" << vec(mid) << "\" mass=\"" << fmt(kUpperArmShare * mass)
        << "\" diaginertia=\"" << rodInertia(kUpperArmShare * mass, upper, radius) << "\"/>\n"
        << "<geom type=\"capsule\" fromto=\"0 0 0 " << vec(elbow) << "\" size=\"" << fmt(radius)
        << "\" rgba=\"0.85 0.85 0.9 1\"/>\n";

  const Math::Position6D t = Math::position6DFromTransform(arm.armTransform);
  fBody << "<body name=\"" << prefix << "ForeArm\" pos=\"" << vec(elbow) << "\" euler=\""
        << fmt(t.wx) << " " << fmt(t.wy) << " " << fmt(t.wz) << "\">\n";
  fSources[prefix + "ForeArm"] = source + " (mass) and its upperArm";
  joint(arm.joints[3], "0 0 1", source);  // elbow roll, then elbow yaw about the forearm
  joint(arm.joints[2], "1 0 0", source);
  joint(arm.joints[4], "1 0 0", source);
  const double foreMass = (1.0 - kUpperArmShare) * mass;
  fBody << "<inertial pos=\"" << fmt(0.5 * fore) << " 0 0\" mass=\"" << fmt(foreMass)
        << "\" diaginertia=\"" << rodInertia(foreMass, fore, radius) << "\"/>\n"
        << "<geom type=\"capsule\" fromto=\"0 0 0 " << fmt(fore) << " 0 0\" size=\""
        << fmt(0.9 * radius) << "\" rgba=\"0.85 0.85 0.9 1\"/>\n"
        << "<site name=\"" << prefix << "Hand\" pos=\"" << fmt(fore) << " 0 0\"/>\n"
        << "</body>\n</body>\n";
}

// "... Object name = LUpperArm, id = 4, line = 28 ..." -> LUpperArm
std::string elementName(const std::string& error) {
  const std::string key = "Object name = ";
  const auto begin = error.find(key);
  if (begin == std::string::npos)
    return {};
  const auto end = error.find(',', begin + key.size());
  return end == std::string::npos ? std::string()
                                  : error.substr(begin + key.size(), end - begin - key.size());
}

std::string oneLine(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  while (!text.empty() && text.back() == ' ')
    text.pop_back();
  return text;
}

}  // namespace

std::string mujocoModelXml(const Model::Robot& robot) {
  return ModelWriter(robot).xml();
}

void MujocoBackend::ModelDeleter::operator()(mjModel_* m) const {
  mj_deleteModel(m);
}

void MujocoBackend::DataDeleter::operator()(mjData_* d) const {
  mj_deleteData(d);
}

MujocoBackend::MujocoBackend(const Model::Robot& robot, const UrdfSource* urdf)
    : fRobotName(robot.getName()) {
  installWarningHook();
  MujocoModelText text;
  if (urdf) {
    text = mujocoModelFromUrdf(robot, *urdf);
  } else {
    ModelWriter writer(robot);
    text.xml = writer.xml();
    text.sources = writer.sources();
  }
  // The model text goes through MuJoCo's virtual file system: nothing touches the disk.
  char error[1024] = "";
  fModel.reset(loadMujocoModel(text, error, sizeof error));
  if (!fModel) {
    const std::string element = elementName(error);
    const auto source = text.sources.find(element);
    const std::string field = source != text.sources.end() ? source->second
                              : element.empty()            ? "the description"
                                                           : "element " + element;
    throw KRError(kModule, "mujoco",
                  "MuJoCo rejects the model of robot \"" + fRobotName + "\" built from " + field +
                      ": " + oneLine(error));
  }
  fData.reset(mj_makeData(fModel.get()));

  const mjModel* m = fModel.get();
  auto id = [&](int type, const std::string& name) {
    const int i = mj_name2id(m, type, name.c_str());
    if (i < 0)
      throw KRError(kModule, "mujoco", "the model of \"" + fRobotName + "\" lacks " + name);
    return i;
  };
  for (const SimJoint& j : simulatedJoints(robot)) {
    const int joint = id(mjOBJ_JOINT, j.joint.name);
    Servo s;
    s.name = j.joint.name;
    s.qpos = m->jnt_qposadr[joint];
    s.dof = m->jnt_dofadr[joint];
    s.actuator = id(mjOBJ_ACTUATOR, j.joint.name);
    s.min = j.joint.min;
    s.max = j.joint.max;
    fServos.push_back(s);
  }
  const int baseX = id(mjOBJ_JOINT, "BaseX");
  fBaseQpos = m->jnt_qposadr[baseX];
  fBaseDof = m->jnt_dofadr[baseX];
  fBaseActuator = id(mjOBJ_ACTUATOR, "BaseX");
  for (int i = 0; i < kTargetCount; ++i)
    fTargetMocap.push_back(m->body_mocapid[id(mjOBJ_BODY, "Target" + std::to_string(i))]);
  xTuneGains();
}

MujocoBackend::~MujocoBackend() = default;

void MujocoBackend::xTuneGains() {
  // Inertia that each degree of freedom moves, at rest: the diagonal of the mass matrix.
  mjModel* m = fModel.get();
  mjData* d = fData.get();
  mj_forward(m, d);
  for (Servo& s : fServos) {
    const double inertia = d->qM[m->dof_Madr[s.dof]];
    const double kp = m->actuator_gainprm[s.actuator * mjNGAIN];
    // Critically damped servo; joint damping is integrated implicitly, so it stays stable.
    m->dof_damping[s.dof] = 2.0 * std::sqrt(kp * inertia);
    s.feedForward = m->dof_damping[s.dof] / kp;
  }
  for (int i = 0; i < 3; ++i) {
    const double kv = d->qM[m->dof_Madr[fBaseDof + i]] / kBaseTimeConstant;
    m->actuator_gainprm[(fBaseActuator + i) * mjNGAIN] = kv;
    m->actuator_biasprm[(fBaseActuator + i) * mjNBIAS + 2] = -kv;
  }
}

const MujocoBackend::Servo& MujocoBackend::xServo(std::size_t joint) const {
  if (joint >= fServos.size()) {
    throw KRError(kModule, "physics",
                  "no joint " + std::to_string(joint) + " (the robot has " +
                      std::to_string(fServos.size()) + ")");
  }
  return fServos[joint];
}

void MujocoBackend::setJointTarget(std::size_t joint, float target, float maxSpeed) {
  xServo(joint);
  fServos[joint].target = target;
  fServos[joint].maxSpeed = std::max(0.0f, maxSpeed);
}

void MujocoBackend::setBaseVelocity(const Math::Pose2D& velocity) {
  fBaseVelocity = velocity;
}

void MujocoBackend::step(double dt) {
  if (!(dt > 0.0))
    return;
  mjModel* m = fModel.get();
  mjData* d = fData.get();
  const int steps = std::max(1, static_cast<int>(std::lround(dt / kPhysicsStep)));
  m->opt.timestep = dt / steps;
  const double h = m->opt.timestep;
  for (int k = 0; k < steps; ++k) {
    for (Servo& s : fServos) {
      const double reach = s.maxSpeed * h;
      const double move = std::clamp(s.target - s.setpoint, -reach, reach);
      s.setpoint += move;
      d->ctrl[s.actuator] = s.setpoint + s.feedForward * move / h;
    }
    const double yaw = d->qpos[fBaseQpos + 2];
    const double c = std::cos(yaw), sn = std::sin(yaw);
    d->ctrl[fBaseActuator] = c * fBaseVelocity.x - sn * fBaseVelocity.y;
    d->ctrl[fBaseActuator + 1] = sn * fBaseVelocity.x + c * fBaseVelocity.y;
    d->ctrl[fBaseActuator + 2] = fBaseVelocity.theta;
    mj_step(m, d);
    xCheckStable();
  }
}

void MujocoBackend::xCheckStable() const {
  const mjModel* m = fModel.get();
  const mjData* d = fData.get();
  auto fail = [&](const std::string& what) {
    throw KRError(kModule, "physics",
                  "the MuJoCo simulation of robot \"" + fRobotName +
                      "\" became unstable at t=" + fmt(d->time) + " s: " + what +
                      " (stiffness too high for the armature, or a fault in the model)");
  };
  for (const int w : {mjWARN_BADQPOS, mjWARN_BADQVEL, mjWARN_BADQACC}) {
    if (d->warning[w].number > 0)
      fail("non-finite state (degree of freedom " + std::to_string(d->warning[w].lastinfo) + ")");
  }
  for (int i = 0; i < m->nq; ++i) {
    if (!std::isfinite(d->qpos[i]))
      fail("non-finite position");
  }
  for (int i = 0; i < m->nv; ++i) {
    if (!std::isfinite(d->qvel[i]))
      fail("non-finite velocity");
  }
  for (const Servo& s : fServos) {
    const double q = d->qpos[s.qpos];
    if (q < s.min - kLimitTolerance || q > s.max + kLimitTolerance) {
      fail("joint " + s.name + " at " + fmt(q) + " rad, far outside its range [" + fmt(s.min) +
           ", " + fmt(s.max) + "]");
    }
  }
}

float MujocoBackend::jointAngle(std::size_t joint) const {
  return static_cast<float>(fData->qpos[xServo(joint).qpos]);
}

float MujocoBackend::jointVelocity(std::size_t joint) const {
  return static_cast<float>(fData->qvel[xServo(joint).dof]);
}

Math::Pose2D MujocoBackend::basePose() const {
  const double* q = fData->qpos + fBaseQpos;
  return {static_cast<float>(q[0]), static_cast<float>(q[1]),
          Math::modulo2PI(static_cast<float>(q[2]))};
}

void MujocoBackend::resetJoint(std::size_t joint, float angle) {
  Servo& s = fServos[(xServo(joint), joint)];
  fData->qpos[s.qpos] = angle;
  fData->qvel[s.dof] = 0.0;
  s.target = angle;
  s.setpoint = angle;
  s.maxSpeed = 0.0f;
  forward();
}

void MujocoBackend::resetBase(const Math::Pose2D& mapPose) {
  double* q = fData->qpos + fBaseQpos;
  q[0] = mapPose.x;
  q[1] = mapPose.y;
  q[2] = mapPose.theta;
  for (int i = 0; i < 3; ++i)
    fData->qvel[fBaseDof + i] = 0.0;
  fBaseVelocity = {};
  forward();
}

void MujocoBackend::setTargetPosition(int index, const Math::Position3D& mapPosition) {
  if (index < 0 || index >= kTargetCount) {
    throw KRError(kModule, "mujoco",
                  "no target body " + std::to_string(index) + " (the model has " +
                      std::to_string(kTargetCount) + ")");
  }
  double* p = fData->mocap_pos + 3 * fTargetMocap[index];
  p[0] = mapPosition.x;
  p[1] = mapPosition.y;
  p[2] = mapPosition.z;
}

Math::Transform MujocoBackend::effectorPose(int effector) const {
  if (effector < 0 || effector >= Model::kTrackEffectorCount)
    throw KRError(kModule, "mujoco", "no head effector " + std::to_string(effector));
  const int cam = mj_name2id(fModel.get(), mjOBJ_CAMERA, kCameras[effector]);
  const mjtNum* p = fData->cam_xpos + 3 * cam;
  const mjtNum* r = fData->cam_xmat + 9 * cam;  // row-major; columns: the camera's axes
  // Effector x = camera -z, y = camera -x, z = camera y.
  Math::Transform t;
  t.r1_c1 = -r[2], t.r1_c2 = -r[0], t.r1_c3 = r[1], t.r1_c4 = p[0];
  t.r2_c1 = -r[5], t.r2_c2 = -r[3], t.r2_c3 = r[4], t.r2_c4 = p[1];
  t.r3_c1 = -r[8], t.r3_c2 = -r[6], t.r3_c3 = r[7], t.r3_c4 = p[2];
  return t;
}

void MujocoBackend::forward() {
  mj_forward(fModel.get(), fData.get());
}

}  // namespace Sim
}  // namespace KR
