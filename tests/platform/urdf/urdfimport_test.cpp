// URDF robots with their mapping (platform/src/urdf): the head look-at aims every camera of the
// three URDF robots at the target, checked by forward kinematics walked on the urdfdom tree here
// (not through the library's model); XML and URDF of one robot agree; every bad input is
// refused with a text that names the file and the element first.

#include <cmath>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <urdf_parser/urdf_parser.h>
#include <Eigen/Geometry>

#include <kr/error.h>
#include <kr/math/math.h>
#include <kr/model/kinematics.h>
#include <kr/model/modelutils.h>
#include <kr/model/urdfimport.h>

#include "support/error_of.h"
#include "support/fake_module.h"

namespace {

using KR::Math::Position3D;
using KR::Math::Transform;
using KR::Model::Robot;
using KR::Model::UrdfImport;
using Iso = Eigen::Isometry3d;

const std::string kRobots = KRTRACKER_ROBOTS_DIR;

using krtest::replaced;

// ---- forward kinematics on the urdfdom tree, independent of the library -----------------

class UrdfChain {
 public:
  explicit UrdfChain(const std::string& urdfPath) : fModel(urdf::parseURDFFile(urdfPath)) {}
  bool ok() const { return fModel != nullptr; }

  // Pose of a link in the root frame with the given joint positions (others at 0).
  Iso pose(const std::string& linkName, const std::map<std::string, double>& q) const {
    Iso t = Iso::Identity();
    urdf::LinkConstSharedPtr l = fModel->getLink(linkName);
    while (l && l->parent_joint) {
      const urdf::Joint& j = *l->parent_joint;
      const auto& o = j.parent_to_joint_origin_transform;
      Iso origin = Iso::Identity();
      origin.translation() = Eigen::Vector3d(o.position.x, o.position.y, o.position.z);
      double qx, qy, qz, qw;
      o.rotation.getQuaternion(qx, qy, qz, qw);
      origin.linear() = Eigen::Quaterniond(qw, qx, qy, qz).toRotationMatrix();
      Iso motion = Iso::Identity();
      const auto it = q.find(j.name);
      const double v = it == q.end() ? 0.0 : it->second;
      const Eigen::Vector3d axis = Eigen::Vector3d(j.axis.x, j.axis.y, j.axis.z).normalized();
      if (j.type == urdf::Joint::REVOLUTE || j.type == urdf::Joint::CONTINUOUS) {
        motion.linear() = Eigen::AngleAxisd(v, axis).toRotationMatrix();
      } else if (j.type == urdf::Joint::PRISMATIC) {
        motion.translation() = v * axis;
      }
      t = origin * motion * t;
      l = fModel->getLink(j.parent_link_name);
    }
    return t;
  }

  const urdf::Joint& joint(const std::string& name) const { return *fModel->getJoint(name); }

 private:
  urdf::ModelInterfaceSharedPtr fModel;
};

struct CameraCase {
  std::string frame;
  char axis;
};

struct UrdfRobotCase {
  std::string robot;  // ROBOT.yaml maps ROBOT.urdf
  std::string torso, yaw, pitch;
  std::vector<CameraCase> cameras;
  std::map<std::string, double> fixed = {};
};

const std::vector<CameraCase> kKiboCameras = {{"camera_top_optical_frame", 'z'},
                                              {"camera_bottom_link", 'x'},
                                              {"depth_camera_optical_frame", 'z'}};
const std::vector<UrdfRobotCase> kUrdfRobots = {
    {"kibo", "torso", "HeadYaw", "HeadPitch", kKiboCameras},
    {"rover", "torso", "HeadYaw", "HeadPitch", kKiboCameras},
    {"lumen",
     "torso_lift_link",
     "head_pan_joint",
     "head_tilt_joint",
     {{"head_camera_optical_frame", 'z'},
      {"head_wide_optical_frame", 'z'},
      {"head_depth_optical_frame", 'z'}},
     {{"torso_lift_joint", 0.1}}},
};

// Camera pose in the torso frame for head angles, from the URDF.
Iso cameraInTorso(const UrdfChain& chain, const UrdfRobotCase& r, const CameraCase& c, double yaw,
                  double pitch) {
  std::map<std::string, double> q = r.fixed;
  q[r.yaw] = yaw;
  q[r.pitch] = pitch;
  return chain.pose(r.torso, q).inverse() * chain.pose(c.frame, q);
}

double aimError(const Iso& camera, char axis, const Eigen::Vector3d& target) {
  const Eigen::Vector3d forward = camera.linear().col(axis == 'z' ? 2 : 0);
  const Eigen::Vector3d to = target - camera.translation();
  return std::atan2(forward.cross(to).norm(), forward.dot(to));
}

TEST(UrdfRobots, LookAtAimsEveryCameraAtTheTargetByTheUrdfsKinematics) {
  for (const UrdfRobotCase& r : kUrdfRobots) {
    SCOPED_TRACE(r.robot);
    const auto robot = UrdfImport::robotFromUrdfMapping(kRobots + "/" + r.robot + ".yaml");
    const UrdfChain chain(kRobots + "/" + r.robot + ".urdf");
    ASSERT_TRUE(chain.ok());
    const KR::Model::TrackerHead& head = robot->trackerModel().head;
    const urdf::Joint& yawJoint = chain.joint(r.yaw);
    const urdf::Joint& pitchJoint = chain.joint(r.pitch);
    for (std::size_t e = 0; e < r.cameras.size(); ++e) {
      const CameraCase& c = r.cameras[e];
      double worst = 0.0, worstAngle = 0.0;
      int count = 0;
      // Targets in front of the camera at head angles spread over the joints' limits (a
      // margin kept inside them), at 0.6 to 4 m.
      constexpr int kSteps = 13;
      for (int i = 0; i < kSteps; ++i) {
        for (int k = 0; k < kSteps; ++k) {
          for (double distance : {0.6, 1.3, 2.5, 4.0}) {
            const double yawGiven =
                yawJoint.limits->lower + (0.02 + 0.96 * i / (kSteps - 1)) *
                                             (yawJoint.limits->upper - yawJoint.limits->lower);
            const double pitchGiven = pitchJoint.limits->lower +
                                      (0.02 + 0.96 * k / (kSteps - 1)) *
                                          (pitchJoint.limits->upper - pitchJoint.limits->lower);
            const Iso at = cameraInTorso(chain, r, c, yawGiven, pitchGiven);
            const Eigen::Vector3d target =
                at.translation() + distance * at.linear().col(c.axis == 'z' ? 2 : 0);
            float yaw = 0.0f, pitch = 0.0f;
            ASSERT_TRUE(KR::Math::computeLookAtAngles(
                Position3D(float(target.x()), float(target.y()), float(target.z())),
                head.headPosition, head.yawToPitch, head.getNeckToEffectorTransform(int(e)), yaw,
                pitch))
                << c.frame << " target " << target.transpose();
            const double err = aimError(cameraInTorso(chain, r, c, yaw, pitch), c.axis, target);
            ASSERT_LT(err, 1e-4) << c.frame << " yaw " << yaw << " pitch " << pitch;
            worst = std::max(worst, err);
            worstAngle =
                std::max({worstAngle, std::fabs(yaw - yawGiven), std::fabs(pitch - pitchGiven)});
            ++count;
          }
        }
      }
      // The solution found is the one the target was made from.
      EXPECT_LT(worstAngle, 1e-4) << c.frame;
      std::printf("[ aim      ] %-10s camera %zu %-28s %4d targets, worst aim error %.2e rad\n",
                  (r.robot + ".yaml").c_str(), e, c.frame.c_str(), count, worst);
    }
  }
}

TEST(UrdfRobots, XmlAndUrdfOfOneRobotGiveTheSameAngles) {
  for (const char* name : {"kibo", "rover"}) {
    SCOPED_TRACE(name);
    const auto xml = KR::Model::ModelUtils::robotFromFile(kRobots + "/" + name + ".xml");
    const auto fromUrdf = UrdfImport::robotFromUrdfMapping(kRobots + "/" + name + ".yaml");
    const auto& a = xml->trackerModel();
    const auto& b = fromUrdf->trackerModel();
    // The same robot: every scalar equal, the transforms to float rounding.
    krtest::expectSameRobot(*xml, *fromUrdf, 5e-7f, 1e-6f);
    // The forearm where the URDF's chain puts it for the same angles.
    for (const auto& [x, u] :
         {std::make_pair(&a.leftArm, &b.leftArm), std::make_pair(&a.rightArm, &b.rightArm)}) {
      for (float q : {-0.8f, -0.2f, 0.3f, 0.9f}) {
        EXPECT_TRUE(KR::Model::forearmPose(*x, q, 0.5f * q, -q, 0.3f * q)
                        .isNear(KR::Model::forearmPose(*u, q, 0.5f * q, -q, 0.3f * q), 2e-6f));
      }
    }

    // Head angles for a grid of targets around the robot, for every effector.
    double worst = 0.0;
    int count = 0;
    for (int e = 0; e < 3; ++e) {
      for (float x = -2.0f; x <= 3.0f; x += 0.25f) {
        for (float y = -2.5f; y <= 2.5f; y += 0.25f) {
          for (float z = -0.8f; z <= 1.6f; z += 0.3f) {
            const Position3D t(x, y, z);
            float y0 = 0, p0 = 0, y1 = 0, p1 = 0;
            const bool ok0 = KR::Math::computeLookAtAngles(
                t, a.head.headPosition, a.head.yawToPitch, a.head.effectorTransforms[e], y0, p0);
            const bool ok1 = KR::Math::computeLookAtAngles(
                t, b.head.headPosition, b.head.yawToPitch, b.head.effectorTransforms[e], y1, p1);
            ASSERT_EQ(ok0, ok1) << t;
            if (!ok0) {
              continue;
            }
            const double d = std::max(std::fabs(KR::Math::modulo2PI(y0 - y1)), std::fabs(p0 - p1));
            ASSERT_LE(d, 1e-5) << t << " effector " << e;
            worst = std::max(worst, d);
            ++count;
          }
        }
      }
    }
    std::printf(
        "[ xml/urdf ] %-6s %d targets x effectors, largest joint angle difference %.2e rad\n", name,
        count, worst);
  }
}

TEST(UrdfRobots, LumenIsDerivedFromItsUrdf) {
  std::vector<std::string> notes;
  const auto robot = UrdfImport::robotFromUrdfMapping(kRobots + "/lumen.yaml", &notes);
  EXPECT_TRUE(notes.empty());
  EXPECT_EQ(robot->getName(), "Lumen");
  EXPECT_EQ(robot->getRobotType(), 1);
  EXPECT_FALSE(robot->canLookBehind());  // it navigates
  EXPECT_FALSE(robot->canPointAt());     // no arms
  // base 0.075 + lift origin 0.3 + lift held at 0.1.
  EXPECT_NEAR(robot->getTorsoHeight(), 0.475f, 1e-6f);
  const auto& m = robot->trackerModel();
  EXPECT_NEAR(m.head.headPosition.x, 0.05f, 1e-7f);
  EXPECT_NEAR(m.head.headPosition.z, 0.6f, 1e-7f);
  EXPECT_NEAR(m.head.yawToPitch.x, 0.07f, 1e-7f);
  EXPECT_EQ(m.head.yawToPitch.y, 0.0f);
  EXPECT_NEAR(m.head.yawToPitch.z, 0.055f, 1e-7f);
  // Derived: the head's limits, the depth camera's 0.3 rad tilt taken off the pitch range, the
  // top camera's height with the head level.
  EXPECT_FLOAT_EQ(m.wbYawMin, -2.6f);
  EXPECT_FLOAT_EQ(m.wbYawMax, 2.6f);
  EXPECT_NEAR(m.wbPitchMin, -0.8f + 0.3f, 1e-6f);
  EXPECT_NEAR(m.wbPitchMax, 1.2f, 1e-6f);
  EXPECT_NEAR(m.wbLookAtHeight, 0.475f + 0.6f + 0.055f + 0.022f, 1e-6f);
  EXPECT_FLOAT_EQ(m.head.yaw.maxVelocity, 3.0f);
  EXPECT_FLOAT_EQ(robot->getServo("head_pan_joint").maxTorque, 2.4f);
  EXPECT_FLOAT_EQ(robot->getCameraHorizontalFov(1), 1.9f);
  EXPECT_FLOAT_EQ(robot->getCameraRange(2), 4.0f);
  EXPECT_NEAR(robot->getHeadMass(), 1.35f, 1e-6f);
  EXPECT_NEAR(robot->getTorsoMass(), 22.0f + 2.4f + 0.3f + 0.17f + 9.5f, 1e-4f);
  // Served to the tracker as XML: read back, the same robot.
  const auto back = KR::Model::ModelUtils::robotFromXml(KR::Model::ModelUtils::robotToXml(*robot));
  EXPECT_EQ(back->trackerModel().head.yawToPitch, m.head.yawToPitch);
  EXPECT_EQ(back->getCameraHorizontalFov(1), 1.9f);
  for (int e = 0; e < 3; ++e) {
    EXPECT_TRUE(
        back->trackerModel().head.effectorTransforms[e].isNear(m.head.effectorTransforms[e], 2e-7f))
        << e;
  }
}

// ---- bad inputs ---------------------------------------------------------------------------

// A valid pair with its mapping ('y'), its URDF ('u') or both ('b') changed: the first `from`
// replaced by `to`, or with `until` the text from `from` up to it; with no `from`, the whole text.
struct BadCase {
  const char* what;
  const char* robot;  // the valid pair the case changes: "kibo" or "lumen"
  char file;
  std::string from, to;
  const char* expected;  // the start of the message after the file name, or a part of it
  std::string until = "";
};

TEST(UrdfRobots, EveryBadInputIsRefusedNamingFileAndElement) {
  const std::vector<BadCase> cases = {
      // The URDF itself.
      {"URDF not XML", "lumen", 'u', "", "<robot name='x'><link>",
       "lumen.urdf: refused by urdfdom: "},
      {"URDF joint without child", "lumen", 'u', "<child link=\"head_tilt_link\"/>", "",
       "lumen.urdf: refused by urdfdom: "},
      {"URDF revolute joint without limits", "lumen", 'u',
       "<limit lower=\"-0.8\" upper=\"1.2\" effort=\"2.4\" velocity=\"3.0\"/>", "",
       "lumen.urdf: refused by urdfdom: "},
      // Names the mapping gives that the URDF lacks.
      {"missing yaw joint", "lumen", 'y', "yaw: head_pan_joint", "yaw: pan",
       "lumen.yaml: head/yaw: joint 'pan' does not exist in "},
      {"missing pitch joint", "lumen", 'y', "pitch: head_tilt_joint", "pitch: tilt",
       "lumen.yaml: head/pitch: joint 'tilt' does not exist in "},
      {"missing torso link", "lumen", 'y', "torso: torso_lift_link", "torso: chest",
       "lumen.yaml: torso: link 'chest' does not exist in "},
      {"missing camera frame", "lumen", 'y', "frame: head_wide_optical_frame", "frame: wide",
       "lumen.yaml: head/cameras[1]/frame: link 'wide' does not exist in "},
      {"missing hand", "kibo", 'y', "hand: l_hand", "hand: l_palm",
       "kibo.yaml: arms/left/hand: link 'l_palm' does not exist in "},
      {"missing fixed joint", "lumen", 'y', "torso_lift_joint: 0.1", "lift: 0.1",
       "lumen.yaml: fixed/lift: joint 'lift' does not exist in "},
      {"fixed position outside the limits", "lumen", 'y', "torso_lift_joint: 0.1",
       "torso_lift_joint: 0.5",
       "lumen.yaml: fixed/torso_lift_joint: 0.5 is outside the joint's limits [0, 0.35]"},
      {"one joint mapped twice", "lumen", 'y', "pitch: head_tilt_joint", "pitch: head_pan_joint",
       "lumen.yaml: head/pitch: joint 'head_pan_joint' is already mapped as head/yaw"},
      // Head joints of the wrong kind or axis.
      {"prismatic head joint", "lumen", 'u', "<joint name=\"head_tilt_joint\" type=\"revolute\">",
       "<joint name=\"head_tilt_joint\" type=\"prismatic\">",
       "lumen.urdf: joint 'head_tilt_joint' (head/pitch): is prismatic: the tracker turns it, so "
       "it must be revolute or continuous"},
      {"yaw axis not vertical", "lumen", 'u', "<origin xyz=\"0.05 0 0.6\" rpy=\"0 0 0\"/>",
       "<origin xyz=\"0.05 0 0.6\" rpy=\"0.1 0 0\"/>",
       "lumen.urdf: joint 'head_pan_joint' (head/yaw): its axis is not vertical in the torso "
       "frame at the zero pose: (0 -0.09983 0.995), 0.1 rad from the torso's z axis"},
      {"yaw axis pointing down", "kibo", 'u', "<axis xyz=\"0 0 1\"/>", "<axis xyz=\"0 0 -1\"/>",
       "kibo.urdf: joint 'HeadYaw' (head/yaw): its axis points the other way"},
      {"pitch axis not horizontal", "lumen", 'u', "<origin xyz=\"0.07 0 0.055\" rpy=\"0 0 0\"/>",
       "<origin xyz=\"0.07 0 0.055\" rpy=\"0.2 0 0\"/>",
       "lumen.urdf: joint 'head_tilt_joint' (head/pitch): its axis is not horizontal in the "
       "torso frame at the zero pose: (0 0.9801 0.1987), tilted 0.2 rad"},
      {"pitch axis horizontal but along x", "lumen", 'u',
       "<origin xyz=\"0.07 0 0.055\" rpy=\"0 0 0\"/>\n    <axis xyz=\"0 1 0\"/>",
       "<origin xyz=\"0.07 0 0.055\" rpy=\"0 0 0\"/>\n    <axis xyz=\"1 0 0\"/>",
       "lumen.urdf: joint 'head_tilt_joint' (head/pitch): its axis is (1 0 0) in the torso frame "
       "at the zero pose, 1.571 rad from the torso's y axis"},
      {"head in the other order", "kibo", 'y', "yaw: HeadYaw\n  pitch: HeadPitch",
       "yaw: HeadPitch\n  pitch: HeadYaw",
       "kibo.urdf: joints 'HeadYaw' and 'HeadPitch': the head is in the other order: the pitch "
       "joint 'HeadYaw' is nearer the torso than the yaw joint 'HeadPitch'"},
      {"third moving joint", "lumen", 'u', "<joint name=\"head_camera_joint\" type=\"fixed\">",
       "<joint name=\"head_camera_joint\" type=\"continuous\">",
       "lumen.urdf: joint 'head_camera_joint': a third moving joint (continuous) between the "
       "torso 'torso_lift_link' and the camera 'head_camera_optical_frame', besides the yaw joint "
       "'head_pan_joint' and the pitch joint 'head_tilt_joint'"},
      {"camera not below the pitch joint", "lumen", 'u',
       "<parent link=\"head_tilt_link\"/>\n    <child link=\"head_wide_link\"/>",
       "<parent link=\"head_pan_link\"/>\n    <child link=\"head_wide_link\"/>",
       "lumen.yaml: head/cameras[1]/frame: camera frame 'head_wide_optical_frame' is not below "
       "the pitch joint 'head_tilt_joint'"},
      {"camera not below the torso", "lumen", 'y', "frame: head_wide_optical_frame",
       "frame: laser_link",
       "lumen.yaml: head/cameras[1]/frame: camera frame 'laser_link' is not below the torso link "
       "'torso_lift_link'"},
      {"no velocity limit", "lumen", 'u',
       "<limit lower=\"-2.6\" upper=\"2.6\" effort=\"2.4\" velocity=\"3.0\"/>",
       "<limit lower=\"-2.6\" upper=\"2.6\" effort=\"2.4\" velocity=\"0\"/>",
       "lumen.urdf: joint 'head_pan_joint' (head/yaw): has no velocity limit"},
      {"joint name too long", "lumen", 'b', "head_pan_joint", "head_pan_joint_long",
       "lumen.urdf: joint 'head_pan_joint_long' (head/yaw): a joint the tracker moves has a name "
       "of 1 to 15 characters"},
      {"arm that does not fit", "kibo", 'u',
       "<origin xyz=\"0.112 0.014 0\"/>\n    <axis xyz=\"0 0 1\"/>",
       "<origin xyz=\"0.112 0.014 0\"/>\n    <axis xyz=\"0 1 0\"/>",
       "kibo.yaml: arms/left: the arm's chain does not fit the tracker's arm (shoulder pitch about "
       "y, shoulder roll about z at the same point, then at the elbow, level with the shoulder, "
       "elbow roll about z and elbow yaw about x, the hand on the forearm's x axis): the elbow "
       "roll axis is (0 1 0) in the torso frame, not (0 0 1); leave out 'arms' to load the robot "
       "without pointing"},
      // The mapping's keys and kinds.
      {"not YAML", "lumen", 'y', "", "head: [unclosed\n", "lumen.yaml: not YAML (line "},
      {"unknown key", "lumen", 'y', "torso: torso_lift_link", "tors: x",
       "lumen.yaml: tors (line 6): unknown key 'tors'"},
      {"unknown camera key", "lumen", 'y', "range: 5}", "rang: 5}",
       "lumen.yaml: head/cameras[0]/rang (line 11): unknown key 'rang'"},
      {"key given twice", "lumen", 'y', "type: 1", "type: 1\ntype: 0",
       "lumen.yaml: type (line 6): key 'type' is given twice"},
      {"missing required key", "lumen", 'y', "name: Lumen\n", "",
       "lumen.yaml: (top level) (line 3): missing key 'name'"},
      {"type of the wrong kind", "lumen", 'y', "type: 1", "type: wheeled",
       "lumen.yaml: type (line 5): must be 0 (humanoid) or 1 (wheeled: can navigate), got "
       "'wheeled'"},
      {"cameras not a list", "lumen", 'y',
       "  cameras:", "  cameras: {frame: head_camera_link, axis: x}\n",
       "lumen.yaml: head/cameras (line 10): must be a list of 1 to 3 cameras, got a mapping",
       "fixed:"},
      {"four cameras", "lumen", 'y', "    - {frame: head_depth",
       "    - {frame: head_camera_link, axis: x}\n    - {frame: head_depth",
       "lumen.yaml: head/cameras (line 11): must be a list of 1 to 3 cameras, got 4 entries"},
      {"axis neither x nor z", "lumen", 'y', "axis: z, horizontal_fov: 1.9",
       "axis: y, horizontal_fov: 1.9",
       "lumen.yaml: head/cameras[1]/axis (line 12): must be 'z' (an optical frame) or 'x'"},
      {"number that is not one", "lumen", 'y', "horizontal_fov: 1.21", "horizontal_fov: wide",
       "lumen.yaml: head/cameras[0]/horizontal_fov (line 11): must be a number, got 'wide'"},
      {"fixed of the wrong kind", "lumen", 'y', "fixed: {torso_lift_joint: 0.1}",
       "fixed: [torso_lift_joint]",
       "lumen.yaml: fixed (line 14): must be a mapping of joint names, got a list"},
      {"one arm only", "kibo", 'y', "  right:", "",
       "kibo.yaml: arms (line 14): give both arms or neither", "\nwhole_body"},
      {"urdf file missing", "lumen", 'y', "urdf: lumen.urdf", "urdf: gone.urdf",
       "lumen.yaml: urdf: cannot read the URDF '"},
  };
  for (const BadCase& c : cases) {
    SCOPED_TRACE(c.what);
    std::string yaml = krtest::readRobotFile(std::string(c.robot) + ".yaml");
    std::string urdf = krtest::readRobotFile(std::string(c.robot) + ".urdf");
    for (std::string* text : {&yaml, &urdf}) {
      if (c.file != 'b' && c.file != (text == &yaml ? 'y' : 'u'))
        continue;
      if (c.from.empty()) {
        *text = c.to;
      } else if (c.until.empty()) {
        *text = replaced(*text, c.from, c.to);
      } else {
        const auto at = text->find(c.from);
        text->replace(at, text->find(c.until, at) - at, c.to);
      }
    }
    const std::string mappingName = std::string(c.robot) + ".yaml";
    const std::string urdfName = std::string(c.robot) + ".urdf";
    const std::string error = krtest::errorOf<KR::KRError>([&] {
      if (std::string(c.what) == "urdf file missing") {
        UrdfImport::robotFromUrdfMappingText(yaml, kRobots, mappingName);
      } else {
        UrdfImport::robotFromTexts(yaml, mappingName, urdf, urdfName);
      }
    });
    ASSERT_FALSE(error.empty()) << "accepted";
    // One line, the file first.
    EXPECT_EQ(error.find('\n'), std::string::npos) << error;
    EXPECT_NE(error.find(c.expected), std::string::npos) << error;
    const auto file = error.find(": " + (std::string(c.expected).substr(0, 9)));
    EXPECT_NE(file, std::string::npos) << error;
  }
}

// urdfdom quotes a bad value as it is written, line breaks included (a fuzz finding): every
// error of the import is put on one line.
TEST(UrdfRobots, ErrorsStayOnOneLine) {
  EXPECT_EQ(UrdfImport::oneLine("r.urdf: length [0.11287\n1608476\r] is not a valid float"),
            "r.urdf: length [0.11287 1608476 ] is not a valid float");
  EXPECT_EQ(UrdfImport::oneLine(std::string(3000, 'x')).size(), 2003u);
}

TEST(UrdfRobots, ContinuousJointsTakeAHalfTurnEachWay) {
  std::string urdf = krtest::readRobotFile("lumen.urdf");
  urdf = replaced(urdf, "<joint name=\"head_pan_joint\" type=\"revolute\">",
                  "<joint name=\"head_pan_joint\" type=\"continuous\">");
  const auto robot = UrdfImport::robotFromTexts(krtest::readRobotFile("lumen.yaml"), "lumen.yaml",
                                                urdf, "lumen.urdf");
  EXPECT_EQ(robot->trackerModel().head.yaw.min, -KR::Math::kPi);
  EXPECT_EQ(robot->trackerModel().head.yaw.max, KR::Math::kPi);
}

TEST(UrdfRobots, WithoutMassesTheDefaultsAreUsedWithOneNote) {
  std::string urdf = krtest::readRobotFile("lumen.urdf");
  for (auto at = urdf.find("<inertial>"); at != std::string::npos; at = urdf.find("<inertial>")) {
    urdf.erase(at, urdf.find("</inertial>", at) + 11 - at);
  }
  std::vector<std::string> notes;
  const auto robot = UrdfImport::robotFromTexts(krtest::readRobotFile("lumen.yaml"), "lumen.yaml",
                                                urdf, "lumen.urdf", &notes);
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_EQ(notes[0],
            "lumen.urdf: the URDF gives no masses for the head or the torso: the "
            "defaults are used");
  EXPECT_EQ(robot->getHeadMass(), Robot().getHeadMass());
  EXPECT_EQ(robot->getTorsoMass(), Robot().getTorsoMass());
}

TEST(UrdfRobots, MappingOverridesWhatIsDerived) {
  std::string yaml = krtest::readRobotFile("lumen.yaml");
  yaml +=
      "can_look_behind: true\nwhole_body: {yaw_min: -1, look_at_height: 1.5}\n"
      "max_velocity: {head_pan_joint: 2.5}\nservos: {head_tilt_joint: {stiffness: 33}}\n";
  const auto robot = UrdfImport::robotFromTexts(yaml, "lumen.yaml",
                                                krtest::readRobotFile("lumen.urdf"), "lumen.urdf");
  EXPECT_TRUE(robot->canLookBehind());
  EXPECT_EQ(robot->trackerModel().wbYawMin, -1.0f);
  EXPECT_EQ(robot->trackerModel().wbYawMax, 2.6f);  // still derived
  EXPECT_EQ(robot->trackerModel().wbLookAtHeight, 1.5f);
  EXPECT_EQ(robot->trackerModel().head.yaw.maxVelocity, 2.5f);
  EXPECT_EQ(robot->getServo("head_tilt_joint").stiffness, 33.0f);
  EXPECT_EQ(robot->getServo("head_tilt_joint").maxTorque, 2.4f);
}

}  // namespace
