#pragma once
// Free functions offered to the tracker and to the tracking service's sub-modules: frame
// conversions through the motion service, head look-at and arm point-at angles with their dead
// bands, tracker event conversion and the motion resource check.
//
// Frames: FRAME_TORSO (attached to the torso), FRAME_WORLD (odometry origin), FRAME_ROBOT
// (the robot's base on the ground). worldToTorso maps torso coordinates into the world frame
// (it is the torso's pose in the world); likewise worldToRobot.

#include <memory>
#include <string>
#include <vector>

#include <kr/broker/broker.h>
#include <kr/math/math.h>
#include <kr/model/trackermodel.h>
#include <kr/value/krvalue.h>

#include <krtracker/config/krgenerictrackerconfig.h>

namespace KR {
namespace Tracker {
namespace types {
class TrackInfos;
}  // namespace types

namespace tools {

// ---- frames --------------------------------------------------------------------------------

/// Pose of the torso in the world frame ("getPosition"("Torso", FRAME_WORLD, true)).
Math::Transform getWorldToTorsoTransform(const std::shared_ptr<KRProxy>& motion);
/// Pose of the robot frame in the world frame ("getRobotPosition"(true)).
Math::Transform getWorldToRobotTransform(const std::shared_ptr<KRProxy>& motion);
/// Transform of a sensor at a time ("_getSensorTransformAtTime"(name, time)); the identity,
/// with an error logged, when the call fails.
Math::Transform getSensorTransform(KRProxy& proxy, const std::string& name, KRTimePoint time);

/// A point given in `frame`, expressed in the torso frame.
Math::Position3D convertToTorsoFrame(const std::shared_ptr<KRProxy>& motion,
                                     const Math::Position3D& position, Math::FRAME frame);
/// A point given in `frame`, expressed in the robot frame.
Math::Position3D convertToRobotFrame(const std::shared_ptr<KRProxy>& motion,
                                     const Math::Position3D& position, Math::FRAME frame);
/// A point given in the torso frame, expressed in `frame`.
Math::Position3D convertTorsoFrameToDesiredFrame(const std::shared_ptr<KRProxy>& motion,
                                                 const Math::Position3D& position,
                                                 Math::FRAME frame);

// ---- head look-at --------------------------------------------------------------------------
// Joint commands are two parallel lists, names and angles, the head yaw first and the pitch
// second. None of these functions allocates beyond growing the caller's lists, nor logs on
// success.

/// Yaw and pitch aiming the effector at a torso-frame target, clipped to the joint limits.
/// False when no solution exists.
bool xComputeLookAtArticular(const Math::Position3D& target, const Model::TrackerHead& head,
                             Model::TRACK_EFFECTOR effector, float& yaw, float& pitch);

/// Head angles toward a target (torso frame; robot frame with useWholeBody). Head only:
/// appends yaw then pitch, false (lists untouched) when no solution. Whole body: replaces the
/// lists by exactly two entries and always returns true.
bool computeLookAtAngles(const Math::Position3D& target, const Model::KRTrackerModel& model,
                         Model::TRACK_EFFECTOR effector, bool useWholeBody,
                         std::vector<std::string>& names, std::vector<float>& angles);

/// Whole-body look-at angles (target in the robot frame) through the dead band; writes
/// elements 0 and 1 of the lists in place. True when an angle changed.
bool computeLookAtWB(const Math::Position3D& target, const Model::KRTrackerModel& model,
                     Model::TRACK_EFFECTOR effector, float threshold,
                     Model::TrackerHeadAngle& angle, std::vector<std::string>& names,
                     std::vector<float>& angles);

/// Head dead band: yaw and pitch through DSP::applyThreshold into `angle`, written to
/// elements 0 and 1 of the lists. True when an angle changed.
bool applyThreshold(float threshold, float yaw, float pitch, const Model::TrackerHead& head,
                    Model::TrackerHeadAngle& angle, std::vector<std::string>& names,
                    std::vector<float>& angles);

/// Head angles toward a torso-frame target, the yaw bounded by HEAD_WZ_LIMIT, through the
/// dead band. False when nothing changed or no solution exists.
bool computeLookAtAnglesWithThreshold(const Math::Position3D& target,
                                      const Model::TrackerHead& head,
                                      Model::TRACK_EFFECTOR effector, float threshold,
                                      Model::TrackerHeadAngle& angle,
                                      std::vector<std::string>& names, std::vector<float>& angles);

/// For a target behind the robot (x < 0): the body turn that brings it within the head's
/// reach, and the target rotated by it. False (bodyAngle 0) when the target is not behind.
bool computeAngleLookBehind(const float yawMin, const float yawMax, Math::Position3D& target,
                            float& bodyAngle);

/// One-shot look: converts the target, computes the angles and sends "_trackerWithSpeed".
/// Throws std::runtime_error("Expected a fraction for pFractionMaxSpeed.") for a bad fraction.
void lookAt(const std::shared_ptr<KRProxy>& motion, const Model::KRTrackerModel& model,
            const Math::Position3D& target, Math::FRAME frame, Model::TRACK_EFFECTOR effector,
            float fractionMaxSpeed, bool useWholeBody);

// ---- arm point-at --------------------------------------------------------------------------

/// Five arm angles pointing the arm at a torso-frame target, clipped to the joint limits.
/// Throws std::runtime_error("Invalid effector name: <name>") for an arm that is neither
/// "LArm" nor "RArm".
void xComputePointAtAngles(const Math::Position3D& target, const Model::TrackerArm& arm, float& a1,
                           float& a2, float& a3, float& a4, float& a5);
/// Wrist yaw keeping the hand level with the vertical, M being the upper arm's end frame.
void xComputeWristFromElbowAngles(const Math::Transform& M, float a4, float a3, float& a5);
/// Appends the arm's joints and angles (the wrist only when the arm has one).
void computePointAtAngles(const Math::Position3D& target, const Model::TrackerArm& arm,
                          std::vector<std::string>& names, std::vector<float>& angles);
/// Arm dead band; appends the arm's joints and remembered angles. True when an angle changed.
bool applyThreshold(float threshold, float a1, float a2, float a3, float a4, float a5,
                    const Model::TrackerArm& arm, Model::TrackerArmAngle& remembered,
                    std::vector<std::string>& names, std::vector<float>& angles);
/// Point-at angles through the dead band ARMS_THRESHOLD, read on every call.
bool computePointAtAnglesWithThreshold(const Math::Position3D& target, const Model::TrackerArm& arm,
                                       Model::TrackerArmAngle& remembered,
                                       std::vector<std::string>& names, std::vector<float>& angles);

// ---- moves ---------------------------------------------------------------------------------

/// True when threshold > |x| + |y| + |theta|: the command is too small to send.
bool isNullMoveCommand(const Math::Pose2D& command, float threshold);

// ---- events and resources ------------------------------------------------------------------

/// Converts a tracker event (layout W: target in the world frame, or layout T: target in the
/// torso frame) into a record in the world frame. Never throws: a malformed event gives false,
/// one log record, and leaves `out` untouched.
bool convertTrackerEventToTrackInfo(const KRValue& event, const std::string& callerName,
                                    const std::string& eventName,
                                    const std::shared_ptr<KRProxy>& motion, types::TrackInfos& out);

/// True when no resource of the list is available ("areResourcesAvailable"). Never throws.
bool areAllResourcesTaken(const std::shared_ptr<KRProxy>& motion,
                          const std::vector<std::string>& resourceNames);

}  // namespace tools
}  // namespace Tracker
}  // namespace KR
