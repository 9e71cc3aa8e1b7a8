// Head look-at angles: head-only and whole-body solutions, their dead bands, the look-behind
// turn and the one-shot look command.
//
// The angle functions run in the control loops of several sub-modules at once: they keep no
// state, allocate nothing beyond growing the caller's lists, and log nothing on success.

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <string>
#include <vector>

#include <ko/log.h>
#include <kr/math/math.h>

#include <krtracker/config/krgenerictrackerconfig.h>
#include <krtracker/tools/tools.h>
#include <krtracker/tools/toolsinternal.h>

namespace KR {
namespace Tracker {
namespace tools {

namespace {

const std::string kToolsCategory = "KRTracker.tools";

// The dead band writes elements 0 and 1 in place; a list handed in shorter is grown first.
void ensureTwoEntries(std::vector<std::string>& names, std::vector<float>& angles) {
  if (names.size() < 2) {
    names.resize(2);
  }
  if (angles.size() < 2) {
    angles.resize(2);
  }
}

inline bool lookAtArticular(const Math::Position3D& target, const Model::TrackerHead& head,
                            Model::TRACK_EFFECTOR effector, float& yaw, float& pitch) {
  const Math::Transform& neckToEffector = head.getNeckToEffectorTransform(effector);
  if (!Math::computeLookAtAngles(target, head.headPosition, head.yawToPitch, neckToEffector, yaw,
                                 pitch)) {
    return false;
  }
  Math::clipData(head.yaw.min, head.yaw.max, yaw);
  Math::clipData(head.pitch.min, head.pitch.max, pitch);
  return true;
}

inline bool headDeadBand(float threshold, float yaw, float pitch, const Model::TrackerHead& head,
                         Model::TrackerHeadAngle& angle, std::vector<std::string>& names,
                         std::vector<float>& angles) {
  ensureTwoEntries(names, angles);
  // A caller's loop hands the same lists back every cycle: the names are copied only when they
  // differ.
  const bool changedYaw = Math::DSP::applyThreshold(threshold, yaw, angle.yaw);
  if (!sameText(names[0], head.yaw.name)) {
    names[0] = head.yaw.name;
  }
  angles[0] = angle.yaw;
  const bool changedPitch = Math::DSP::applyThreshold(threshold, pitch, angle.pitch);
  if (!sameText(names[1], head.pitch.name)) {
    names[1] = head.pitch.name;
  }
  angles[1] = angle.pitch;
  return changedYaw || changedPitch;
}

}  // namespace

bool xComputeLookAtArticular(const Math::Position3D& target, const Model::TrackerHead& head,
                             Model::TRACK_EFFECTOR effector, float& yaw, float& pitch) {
  return lookAtArticular(target, head, effector, yaw, pitch);
}

bool computeLookAtAngles(const Math::Position3D& target, const Model::KRTrackerModel& model,
                         Model::TRACK_EFFECTOR effector, bool useWholeBody,
                         std::vector<std::string>& names, std::vector<float>& angles) {
  if (useWholeBody) {
    // assign() reuses the lists' storage when they already have room for two entries.
    names.assign(2, std::string());
    angles.assign(2, 0.0f);
    Model::TrackerHeadAngle angle;
    computeLookAtWB(target, model, effector, 0.0f, angle, names, angles);
    return true;
  }

  float yaw = 0.0f;
  float pitch = 0.0f;
  if (!lookAtArticular(target, model.head, effector, yaw, pitch)) {
    return false;
  }
  names.push_back(model.head.yaw.name);
  angles.push_back(yaw);
  names.push_back(model.head.pitch.name);
  angles.push_back(pitch);
  return true;
}

bool computeLookAtWB(const Math::Position3D& target, const Model::KRTrackerModel& model,
                     Model::TRACK_EFFECTOR effector, float threshold,
                     Model::TrackerHeadAngle& angle, std::vector<std::string>& names,
                     std::vector<float>& angles) {
  const Math::Position3D fromLookAtOrigin(target.x, target.y, target.z - model.wbLookAtHeight);
  const auto polar = Math::polar3DFromPosition3D(fromLookAtOrigin);
  float yaw = std::get<1>(polar);
  float pitch = std::get<2>(polar);

  // Maximum first, then minimum: with inverted bounds the minimum wins.
  if (yaw > model.wbYawMax) {
    yaw = model.wbYawMax;
  }
  if (yaw < model.wbYawMin) {
    yaw = model.wbYawMin;
  }
  if (pitch > model.wbPitchMax) {
    pitch = model.wbPitchMax;
  }
  if (pitch < model.wbPitchMin) {
    pitch = model.wbPitchMin;
  }

  // The tilted sensor: its fixed pitch is taken off after the clamp, and the result is not
  // clamped again.
  if (effector == Model::TRACK_EFFECTOR_DEPTH_CAMERA) {
    const Math::Position3D sight =
        model.head.getNeckToEffectorTransform(Model::TRACK_EFFECTOR_DEPTH_CAMERA).xAxis();
    pitch += std::atan2(sight.z, sight.x);
  }

  return applyThreshold(threshold, yaw, pitch, model.head, angle, names, angles);
}

bool applyThreshold(float threshold, float yaw, float pitch, const Model::TrackerHead& head,
                    Model::TrackerHeadAngle& angle, std::vector<std::string>& names,
                    std::vector<float>& angles) {
  return headDeadBand(threshold, yaw, pitch, head, angle, names, angles);
}

bool computeLookAtAnglesWithThreshold(const Math::Position3D& target,
                                      const Model::TrackerHead& head,
                                      Model::TRACK_EFFECTOR effector, float threshold,
                                      Model::TrackerHeadAngle& angle,
                                      std::vector<std::string>& names, std::vector<float>& angles) {
  float yaw = 0.0f;
  float pitch = 0.0f;
  if (!lookAtArticular(target, head, effector, yaw, pitch)) {
    return false;
  }
  // Read on every call: the limit may be changed while the loops run.
  const float yawLimit = getConfigFloatValue(HEAD_WZ_LIMIT);
  if (yaw > yawLimit) {
    yaw = yawLimit;
  } else if (yaw < -yawLimit) {
    yaw = -yawLimit;
  }
  return headDeadBand(threshold, yaw, pitch, head, angle, names, angles);
}

bool computeAngleLookBehind(const float yawMin, const float yawMax, Math::Position3D& target,
                            float& bodyAngle) {
  bodyAngle = 0.0f;
  if (target.x >= 0.0f) {
    return false;
  }
  const float bearing = std::atan2(target.y, target.x);
  bodyAngle = bearing;
  // Turn just enough that the head, at most a quarter turn to the side, reaches the target.
  if (bearing > 0.0f) {
    bodyAngle = bearing + std::max(yawMin, -Math::kPi2);
  } else if (bearing < 0.0f) {
    bodyAngle = bearing + std::min(yawMax, Math::kPi2);
  }
  target = Math::rotationFromRotZ(-bodyAngle) * target;
  return true;
}

void lookAt(const std::shared_ptr<KRProxy>& motion, const Model::KRTrackerModel& model,
            const Math::Position3D& target, Math::FRAME frame, Model::TRACK_EFFECTOR effector,
            float fractionMaxSpeed, bool useWholeBody) {
  if (!Math::Validation::isFractionStrict(fractionMaxSpeed)) {
    throw std::runtime_error("Expected a fraction for pFractionMaxSpeed.");
  }
  const Math::Position3D converted = useWholeBody ? convertToRobotFrame(motion, target, frame)
                                                  : convertToTorsoFrame(motion, target, frame);

  std::vector<std::string> names;
  std::vector<float> angles;
  if (!computeLookAtAngles(converted, model, effector, useWholeBody, names, angles)) {
    ko::log::verbose(kToolsCategory, "lookAt", "computeLookAtAngles fail.");
    return;
  }
  const std::vector<float> speeds{fractionMaxSpeed};
  try {
    motion->call<void>("_trackerWithSpeed", names, angles, speeds, useWholeBody, false);
  } catch (const std::exception& e) {
    ko::log::error(kToolsCategory, "lookAt", e.what());
  }
}

}  // namespace tools
}  // namespace Tracker
}  // namespace KR
