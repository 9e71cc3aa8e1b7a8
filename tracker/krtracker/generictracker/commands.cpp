// One-shot commands of GenericTracker: look at a point (head only or whole body, turning the
// robot first when allowed), point at a point with one arm or both, and stop either.
//
// A command that finds tracking running suspends the looker it would fight with, sends its
// request to the motion service and restarts tracking. Remote failures are logged, never
// thrown: the caller asked for a gesture, not for a transaction.

#include <cmath>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <ko/log.h>
#include <kr/math/math.h>

#include <krtracker/generictracker/generictracker.h>
#include <krtracker/generictracker/trackerinternal.h>
#include <krtracker/tools/tools.h>

namespace KR {
namespace Tracker {

using namespace internal;

void GenericTracker::lookAt(const std::vector<float>& pPosition, KR::Math::FRAME pFrame,
                            float pFractionMaxSpeed, bool pUseWholeBody) {
  if (pPosition.size() != 3) {
    throw std::runtime_error(fLogName + "::" + "lookAt" + kTextLookAtPosition);
  }
  xLookAt(Math::Position3D(pPosition), pFrame, Model::TRACK_EFFECTOR_CAMERA_TOP, pFractionMaxSpeed,
          pUseWholeBody, false);
}

void GenericTracker::lookAt(const std::vector<float>& pPosition, KR::Math::FRAME pFrame,
                            int pEffectorId, float pFractionMaxSpeed, bool pUseWholeBody) {
  if (pPosition.size() != 3) {
    throw std::runtime_error(fLogName + "::" + "lookAt" + kTextLookAtPosition);
  }
  // Compared unsigned so that negative ids are refused too.
  if (static_cast<unsigned int>(pEffectorId) >=
      static_cast<unsigned int>(Model::kTrackEffectorCount)) {
    throw std::runtime_error(fLogName + "::" + "lookAt" + kTextEffectorId);
  }
  xLookAt(Math::Position3D(pPosition), pFrame, static_cast<Model::TRACK_EFFECTOR>(pEffectorId),
          pFractionMaxSpeed, pUseWholeBody, false);
}

void GenericTracker::lookAtAndMove(const std::vector<float>& pPosition, float pFractionMaxSpeed,
                                   bool pUseWholeBody, bool pAllowTurning) {
  if (pPosition.size() != 3) {
    throw std::runtime_error(fLogName + "::" + "lookAt" + kTextLookAtTorsoPosition);
  }
  xLookAt(Math::Position3D(pPosition), Math::FRAME_TORSO, Model::TRACK_EFFECTOR_CAMERA_TOP,
          pFractionMaxSpeed, pUseWholeBody, pAllowTurning);
}

void GenericTracker::pointAt(const std::string& pEffector, const std::vector<float>& pPosition,
                             KR::Math::FRAME pFrame, float pFractionMaxSpeed) {
  if (pPosition.size() != 3) {
    throw std::runtime_error(fLogName + "::" + "pointAt" + kTextPointAtPosition);
  }
  xPointAt(pEffector, Math::Position3D(pPosition), pFrame, pFractionMaxSpeed);
}

void GenericTracker::xLookAt(const KR::Math::Position3D& pPosition, KR::Math::FRAME pFrame,
                             KR::Model::TRACK_EFFECTOR pEffector, float pFractionMaxSpeed,
                             bool pUseWholeBody, bool pAllowTurning) {
  if (!Math::Validation::isFractionStrict(pFractionMaxSpeed)) {
    throw std::runtime_error(fLogName + "::" + "lookAt" + kTextFraction);
  }
  Math::Position3D target = pUseWholeBody
                                ? tools::convertToRobotFrame(fMotionProxy, pPosition, pFrame)
                                : tools::convertToTorsoFrame(fMotionProxy, pPosition, pFrame);

  float bodyAngle = 0.0f;
  bool turned = false;
  if (pAllowTurning && fCanLookBehind) {
    turned =
        tools::computeAngleLookBehind(fModel.head.yaw.min, fModel.head.yaw.max, target, bodyAngle);
  }

  std::vector<std::string> names;
  std::vector<float> angles;
  if (!tools::computeLookAtAngles(target, fModel, pEffector, pUseWholeBody, names, angles)) {
    ko::log::verbose(kLogCategory, "xLookAt", "computeLookAtAngles fail.");
    return;
  }
  const std::vector<float> speeds{pFractionMaxSpeed};

  const bool wasActive = fActive;
  if (wasActive) {
    xStopHeadTracking();
  }

  if (turned) {
    // The whole body waits for the turn; a head-only look is sent at once, while the robot
    // turns.
    guarded("xLookAt", [&] {
      if (pUseWholeBody) {
        fMotionProxy->call<void>("moveTo", 0.0f, 0.0f, bodyAngle);
      } else {
        fMotionProxy->pCall("moveTo", 0.0f, 0.0f, bodyAngle);
      }
    });
  }

  guarded("xLookAt", [&] {
    const bool awake = !fCanNavigate || fMotionProxy->call<bool>("robotIsWakeUp");
    if (awake) {
      if (pUseWholeBody) {
        fMotionProxy->call<void>("_lookAtWb", angles.at(1), angles.at(0));
      } else {
        fMotionProxy->call<void>("_trackerWithSpeed", names, angles, speeds, false, false);
      }
    }
  });

  if (wasActive) {
    restart();
  }
}

void GenericTracker::xPointAt(const std::string& pEffector, const KR::Math::Position3D& pPosition,
                              KR::Math::FRAME pFrame, float pFractionMaxSpeed) {
  xExpectEffector(pEffector);
  if (!fCanPointAt) {
    throw std::runtime_error(fLogName + "::" + "pointAt" + kTextCannotPointAt);
  }
  if (!Math::Validation::isFractionStrict(pFractionMaxSpeed)) {
    throw std::runtime_error(fLogName + "::" + "pointAt" + kTextFraction);
  }
  Math::Position3D target = tools::convertToTorsoFrame(fMotionProxy, pPosition, pFrame);

  float bodyAngle = 0.0f;
  bool turned = false;
  if (target.x < 0.0f) {
    if (!fCanLookBehind) {
      std::ostringstream text;
      text << "pointAt"
           << ": x position must be strictly positive for this robot."
           << " Given target: " << target;
      ko::log::warning(kLogCategory, "xPointAt", text.str());
      return;
    }
    // Turn by the whole bearing: afterwards the point is straight ahead.
    bodyAngle = std::atan2(target.y, target.x);
    target = Math::rotationFromRotZ(-bodyAngle) * target;
    turned = true;
  }

  const bool wasActive = fActive;
  if (wasActive) {
    xStopArmLooker();
  }

  std::vector<std::string> names;
  std::vector<float> angles;
  const std::vector<float> speeds{pFractionMaxSpeed};
  if (pEffector == kEffectorArms || pEffector == kEffectorLArm) {
    tools::computePointAtAngles(target, fModel.leftArm, names, angles);
  }
  if (pEffector == kEffectorArms || pEffector == kEffectorRArm) {
    tools::computePointAtAngles(target, fModel.rightArm, names, angles);
  }

  if (turned) {
    guarded("xPointAt", [&] { fMotionProxy->call<void>("moveTo", 0.0f, 0.0f, bodyAngle); });
  }

  guarded("xPointAt", [&] {
    const bool awake = !fCanNavigate || fMotionProxy->call<bool>("robotIsWakeUp");
    if (awake) {
      fMotionProxy->call<void>("_trackerWithSpeed", names, angles, speeds, false, true);
    }
  });

  if (wasActive) {
    restart();
  }
}

void GenericTracker::stopLookAt() const {
  guarded("stopLookAt", [&] { fMotionProxy->call<void>("_stopLookAt", true); });
}

void GenericTracker::stopPointAt() const {
  guarded("stopPointAt", [&] { fMotionProxy->call<void>("_stopPointAt", true); });
}

}  // namespace Tracker
}  // namespace KR
