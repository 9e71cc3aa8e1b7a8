#pragma once
// SimMotion: the motion service "KRMotion" of the simulated robot.
//
// SimMotion holds the control logic: commanded angles are clipped to the joint limits and each
// joint is sent toward its command at the commanded fraction of its velocity limit; the base
// is driven by "moveTo" (a relative goal), "move" (a velocity) or a whole-body gaze (see
// below) through a BaseController. A PhysicsBackend carries the commands out and reports the
// measured joint angles and the base's true pose. The remote methods are a thin adapter over
// the public functions (motion_bindings.cpp).
//
// Frames. The simulation's map frame is the ground truth in which the world places targets.
// FRAME_WORLD of the motion service is the odometry frame: it starts at the robot's initial
// pose and, with an odometry drift, slowly departs from the truth (as on a real robot, where
// landmarks are what relocates it). FRAME_ROBOT is the base on the ground; the torso sits
// getTorsoHeight() above it, not rotated. Head effector e in the torso frame:
//   Translation(headPosition) * Rz(headYaw) * Ry(headPitch) * neckToEffector(e).
// Forearm of an arm (angles a1..a4 of its shoulder pitch, shoulder roll, elbow yaw, elbow
// roll joints), in the torso frame; its x axis is the pointing direction:
//   Translation(shoulder) * Ry(a1) * Rz(a2) * armTransform * Rz(a4) * Rx(a3).
//
// Remote methods (argument lists as the tracker library sends them):
//   "getTransform"(name, frame int, useSensors bool) -> 12 floats (pose of `name` in frame)
//   "getPosition"(name, frame int, useSensors bool) -> 6 floats (x, y, z, wx, wy, wz)
//   "getRobotPosition"(useSensors bool) -> [x, y, theta] in FRAME_WORLD (odometry)
//   "_getSensorTransformAtTime"(name, time) -> 12 floats: the pose of a named frame (a
//       sensor, "Head" or "Torso") in FRAME_WORLD at that time, interpolated between the two
//       states of the history about it (kHistorySize steps); the oldest or newest state
//       outside the history
//   "areResourcesAvailable"(names) -> bool: no name (joint or chain) is taken
//   "robotIsWakeUp"() -> bool
//   "moveTo"(x, y, theta): relative goal in the robot frame; returns at once, the walk
//       runs in later steps ("moveIsActive" tells when it is over)
//   "move"(vx, vy, vtheta): velocity in the robot frame [m/s, rad/s], clipped to the limits
//   "navigateTo"(x, y) -> bool: walk to a point of the robot frame, facing it; robots of
//       type 1 only (KRError otherwise)
//   "stopMove"(), "moveIsActive"() -> bool, "getRobotVelocity"() -> [vx, vy, vtheta]
//   "setAngles"(names, angles, fractionMaxSpeed): names a joint or chain name or a list,
//       angles a float or a list (one per joint)
//   "getAngles"(names, useSensors bool) -> floats; "getJointNames"(name) -> strings.
//       Chain names: "Head", "LArm", "RArm", "Body" (every joint).
//   "_trackerWithSpeed"(names, angles, speeds, wholeBody bool, pointAt bool): joint command
//       with one speed fraction for all or one per joint. With wholeBody and the head's two
//       joints it is a whole-body gaze, as "_lookAtWb".
//   "_lookAtWb"(pitch, yaw): whole-body gaze toward (yaw, pitch) in the robot frame: the head
//       turns and, when the yaw goes beyond kWholeBodyComfortYaw, the base turns so that the
//       head comes back toward the front. The gaze is held in the world until another head
//       command or "_stopLookAt". When a "moveTo" is under way, the yaw is taken relative to
//       the pose that the walk will reach.
//   "_stopLookAt"(bool): the head stops where it is, gaze cancelled.
//   "_stopPointAt"(bool): the arms stop where they are.
//
// Thread-safe (one mutex); deterministic: the state changes only in methods and step().

#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <kr/broker/broker.h>
#include <kr/math/math.h>
#include <kr/model/robot.h>
#include <kr/value/krvalue.h>

#include <krsim/robot/base_controller.h>
#include <krsim/robot/clock.h>
#include <krsim/robot/physics/backend.h>

namespace KR {
namespace Sim {

class SimMotion : public KR::KRModule {
 public:
  /// Beyond this head yaw [rad] a whole-body gaze turns the base.
  static constexpr float kWholeBodyComfortYaw = BaseController::kComfortYaw;
  /// Speed fraction of a "_lookAtWb" gaze, which carries none.
  static constexpr float kWholeBodyGazeFraction = 0.3f;
  /// States kept for "_getSensorTransformAtTime": 2 s of 10 ms steps, well beyond any
  /// detection latency.
  static constexpr std::size_t kHistorySize = 200;

  struct JointState {
    Model::TrackerJoint joint;  // name, limits, velocity limit
    float angle = 0.0f;         // measured [rad]
    float command = 0.0f;       // commanded [rad], within the limits
    float speed = 0.0f;         // [rad/s]
  };

  /// `physics` null: the kinematic backend.
  SimMotion(const Model::Robot& robot, std::shared_ptr<const SimClock> clock,
            std::unique_ptr<PhysicsBackend> physics = nullptr);

  /// Commands the backend, advances it by dt seconds and records a state in the history.
  void step(double dt);
  /// Name of the physics backend.
  std::string physicsName() const;

  // ---- ground truth and test hooks ---------------------------------------------------------
  /// Pose of the base in the map frame.
  Math::Pose2D getTruePose() const;
  /// Puts the robot at a map pose; odometry restarts at zero there.
  void resetPose(const Math::Pose2D& mapPose);
  /// Odometry's relative error on every base displacement (0: perfect odometry).
  void setOdometryDrift(float linearScale, float angularScale);
  /// Pose of the base in FRAME_WORLD (odometry).
  Math::Pose2D getOdometryPose() const;
  /// Pose of the odometry frame in the map frame (changes only with drift).
  Math::Transform getMapToOdometry() const;
  void setWakeUp(bool awake);
  bool isAwake() const;
  void setResourceTaken(const std::string& name, bool taken);
  /// No name (joint or chain) is taken.
  bool areResourcesAvailable(const std::vector<std::string>& names) const;
  void setBaseLimits(const BaseLimits& limits);
  BaseLimits getBaseLimits() const;

  // ---- joints ------------------------------------------------------------------------------
  /// Every joint in the robot's order (head, left arm, right arm).
  std::vector<std::string> jointNames() const;
  /// Joint names of a joint or chain name; KRError for an unknown name.
  std::vector<std::string> expandNames(const std::string& name) const;
  float getAngle(const std::string& joint) const;
  float getCommand(const std::string& joint) const;
  JointState getJointState(const std::string& joint) const;
  /// Sets measured and commanded angle at once (clipped); for test set-ups.
  void setAngleNow(const std::string& joint, float angle);
  /// Commands joints; fractions has one element for all or one per joint.
  void setAngles(const std::vector<std::string>& joints, const std::vector<float>& angles,
                 const std::vector<float>& fractions);
  /// The joints of a chain ("Head", "LArm", "RArm") stop where they are.
  void stopChain(const std::string& chain);

  // ---- base --------------------------------------------------------------------------------
  void moveTo(float x, float y, float theta);
  void move(float vx, float vy, float vtheta);
  bool navigateTo(float x, float y);
  void stopMove();
  bool moveIsActive() const;
  /// Velocity of "move" while it runs, zero otherwise (robot frame).
  Math::Pose2D getRobotVelocity() const;
  void lookAtWholeBody(float pitch, float yaw, float fraction);
  bool isWholeBodyGazeActive() const;
  /// The head stops where it is and the gaze is cancelled.
  void stopLookAt();

  // ---- forward kinematics ------------------------------------------------------------------
  /// Pose of head effector 0, 1 or 2 in the torso frame.
  Math::Transform getTorsoToHeadEffector(int effector) const;
  /// Pose of head effector 0, 1 or 2 in the map frame (ground truth).
  Math::Transform getMapToHeadEffector(int effector) const;
  /// Pose of the torso in the map frame.
  Math::Transform getMapToTorso() const;
  /// Pose of the torso in FRAME_WORLD (odometry).
  Math::Transform getWorldToTorso() const;
  /// Forearm frame of "LArm" or "RArm" in the torso frame (x axis: the pointing direction).
  Math::Transform getTorsoToForearm(const std::string& arm) const;
  /// Pose of a named frame ("Torso", "Head", "CameraTop", "CameraBottom", "DepthCamera",
  /// "LForeArm", "RForeArm", "LArm", "RArm") in FRAME_TORSO, FRAME_WORLD or FRAME_ROBOT.
  /// KRError for an unknown name or frame.
  Math::Transform getTransform(const std::string& name, int frame) const;
  /// Pose of a named frame in FRAME_WORLD at a past time, interpolated in the history of
  /// base and head states (the oldest or newest state outside it). Arms: their current pose
  /// on the base of that time.
  Math::Transform getTransformAtTime(const std::string& name, KRTimePoint time) const;

  const Model::Robot& robot() const { return fRobot; }

 private:
  struct Snapshot {
    KRTimePoint time;
    Math::Pose2D odometry;
    float headYaw = 0.0f;
    float headPitch = 0.0f;
  };
  /// What the controller asks of one joint.
  struct JointCommand {
    Model::TrackerJoint joint;
    float command = 0.0f;  // [rad], within the limits
    float speed = 0.0f;    // [rad/s]
  };

  // Remote methods (motion_bindings.cpp): argument conversion only. Bound on `module`,
  // forwarding to `self` (null for motionMethodTable, which never runs them).
  static void bindMethods(KRModule& module, SimMotion* self);
  friend const KRModule& motionMethodTable();
  std::vector<float> rGetTransform(const std::string& name, int frame, bool useSensors) const;
  std::vector<float> rGetPosition(const std::string& name, int frame, bool useSensors) const;
  std::vector<float> rGetRobotPosition(bool useSensors) const;
  std::vector<float> rGetSensorTransformAtTime(const std::string& name, KRTimePoint time) const;
  std::vector<float> rGetRobotVelocity() const;
  void rSetAngles(const KRValue& names, const KRValue& angles, float fraction);
  std::vector<float> rGetAngles(const KRValue& names, bool useSensors) const;
  void rTrackerWithSpeed(const std::vector<std::string>& names, const std::vector<float>& angles,
                         const std::vector<float>& speeds, bool wholeBody, bool pointAt);
  void rLookAtWb(float pitch, float yaw);
  void rStopLookAt(bool);
  void rStopPointAt(bool);

  std::size_t xIndex(const std::string& name) const;
  void xCommand(std::size_t joint, float angle, float speed);
  std::vector<std::string> xExpand(const std::string& name) const;
  void xStopChain(const std::string& chain);
  void xSetAngles(const std::vector<std::string>& joints, const std::vector<float>& angles,
                  const std::vector<float>& fractions);
  void xRecord();
  Math::Transform xTorsoToFrame(const std::string& name, float headYaw, float headPitch) const;
  Math::Transform xTransform(const std::string& name, int frame) const;

  const Model::Robot fRobot;
  std::shared_ptr<const SimClock> fClock;
  mutable std::mutex fMutex;
  std::unique_ptr<PhysicsBackend> fPhysics;
  std::vector<JointCommand> fJoints;  // in the backend's order
  std::map<std::string, std::size_t> fJointIndex;
  std::map<std::string, std::vector<std::string>> fChains;
  std::size_t fHeadYaw = 0;
  std::size_t fHeadPitch = 1;
  BaseController fBase;

  bool fAwake = true;
  std::set<std::string> fTakenResources;
  std::deque<Snapshot> fHistory;
};

/// The methods of "KRMotion" bound to no motion service: for checking a call's name and
/// arguments (KRModule::checkArguments) before anything runs; never invoked.
const KRModule& motionMethodTable();

}  // namespace Sim
}  // namespace KR
