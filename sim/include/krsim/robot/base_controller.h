#pragma once
// BaseController: what the simulated robot's base is asked to do and where it believes it is.
// "moveTo" (a relative goal), "move" (a velocity) and the turn of a whole-body gaze each give a
// robot-frame velocity, reached within the base's acceleration limits (a goal is approached
// braking so as to stop on it; a stop decelerates), and from it a displacement per step,
// which the physics backend carries out. Odometry
// integrates the measured displacement with a relative drift; FRAME_WORLD is its frame.
//
// Not thread-safe: SimMotion calls it under its lock.

#include <kr/math/types.h>

namespace KR {
namespace Sim {

/// Limits of the base [m/s], [rad/s], [m/s^2], [rad/s^2]. A walking humanoid gets up to
/// speed in about half a second; a wheeled base in about a third of a second.
struct BaseLimits {
  float maxLinearSpeed = 0.15f;
  float maxAngularSpeed = 0.8f;
  float maxLinearAcceleration = 0.3f;
  float maxAngularAcceleration = 1.6f;
  /// Defaults for a robot type: a small humanoid walks slowly, a wheeled one rolls faster.
  static BaseLimits forRobotType(int type);
};

/// The highest speed from which steps of dt seconds, each slowing down by acceleration * dt,
/// still stop within `distance` (all magnitudes, non-negative).
float brakingSpeed(float distance, float acceleration, float dt);

/// A pose moved by a robot-frame displacement, integrated at the mid heading.
Math::Pose2D displace(const Math::Pose2D& pose, const Math::Pose2D& displacement);
/// The robot-frame displacement that `displace` turns `from` into `to` with.
Math::Pose2D displacementBetween(const Math::Pose2D& from, const Math::Pose2D& to);

class BaseController {
 public:
  /// Beyond this head yaw [rad] a whole-body gaze turns the base.
  static constexpr float kComfortYaw = 0.35f;

  /// A whole-body gaze: the direction is held in the odometry frame.
  struct Gaze {
    bool active = false;
    float yaw = 0.0f;  // odometry frame [rad]
    float pitch = 0.0f;
    float fraction = 0.0f;  // speed fraction of the head joints
  };

  explicit BaseController(const BaseLimits& limits) : fLimits(limits) {}

  /// Goal relative to the robot frame.
  void moveTo(float x, float y, float theta);
  /// Velocity in the robot frame, clipped to the limits; all zero stops.
  void move(float vx, float vy, float vtheta);
  void stop();
  bool isActive() const { return fMode != Mode::Idle; }
  /// The velocity of "move" while it runs, zero otherwise.
  Math::Pose2D commandedVelocity() const;

  /// Gaze toward `yaw` of the robot frame, or of the pose a walk under way will reach.
  void lookAt(float pitch, float yaw, float fraction);
  void stopGaze() { fGaze.active = false; }
  const Gaze& gaze() const { return fGaze; }

  /// The robot-frame displacement for the next dt seconds; ends a goal that is reached.
  Math::Pose2D plan(double dt);
  /// The velocity of the last planned step, robot frame.
  const Math::Pose2D& plannedVelocity() const { return fPlanned; }
  /// Odometry after a robot-frame displacement (drift included).
  Math::Pose2D odometryAfter(const Math::Pose2D& displacement) const;
  /// Records a measured robot-frame displacement in the odometry.
  void moved(const Math::Pose2D& displacement) { fOdometry = odometryAfter(displacement); }
  const Math::Pose2D& odometry() const { return fOdometry; }

  /// Odometry back at zero, nothing under way.
  void reset();
  void setDrift(float linearScale, float angularScale);
  void setLimits(const BaseLimits& limits) { fLimits = limits; }
  const BaseLimits& limits() const { return fLimits; }

 private:
  enum class Mode { Idle, Goal, Velocity };

  BaseLimits fLimits;
  Mode fMode = Mode::Idle;
  Math::Pose2D fGoal;      // odometry frame
  Math::Pose2D fVelocity;  // robot frame
  Math::Pose2D fPlanned;   // velocity of the last step, robot frame
  Gaze fGaze;
  Math::Pose2D fOdometry;  // FRAME_WORLD
  float fDriftLinear = 0.0f;
  float fDriftAngular = 0.0f;
};

}  // namespace Sim
}  // namespace KR
