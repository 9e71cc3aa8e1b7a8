#pragma once
// Internal to GenericTracker's translation units: effector names, the log category, the texts
// its clients match, and the one rule for a remote call that may fail.

#include <cstddef>
#include <exception>
#include <string>
#include <utility>

#include <ko/log.h>
#include <kr/value/krvalue.h>

namespace KR {
namespace Tracker {
namespace internal {

/// Log category of every record of the tracker.
inline const std::string kLogCategory = "KRTracker.GenericTracker";

inline const std::string kEffectorArms = "Arms";
inline const std::string kEffectorLArm = "LArm";
inline const std::string kEffectorRArm = "RArm";
inline const std::string kEffectorNone = "None";

// Texts that clients match: each is part of the interface and must not be reworded. A text
// that follows another is noted beside it.
inline const char* const kTextNoTargetAtStart =
    "Tracker is not initialized. Register a target name please.";
inline const char* const kTextNoTargetAtRestart =
    "Do not restart tracking because target name is not valid.";
// follows "<category>::start"
inline const char* const kTextNotInitializedCorrectly = ": Tracker is not initialized correctly.";
inline const char* const kTextInvalidSmootherMode = "Invalid Smoother mode.";
// follows "Invalid effector name: \"<name>\"."
inline const char* const kTextEffectorChoices = " Could be: Arms, LArm, RArm or None.";
// follows "<category>::lookAt"
inline const char* const kTextLookAtPosition = ": Position is not valid. Must be [x, y, z].";
// follows "<category>::lookAt"
inline const char* const kTextLookAtTorsoPosition =
    ": Position is not valid. Must be [x, y, z] in FRAME_TORSO.";
// follows "<category>::pointAt"
inline const char* const kTextPointAtPosition =
    ": Position is not valid could be [x, y, z] in FRAME_TORSO.";
// follows "<category>::lookAt"
inline const char* const kTextEffectorId = ": EffectorId is not valid.";
// follows "<category>::lookAt" or "::pointAt"
inline const char* const kTextFraction = ": Expected a fraction for pFractionMaxSpeed.";
// follows "<category>::pointAt"
inline const char* const kTextCannotPointAt = ": is not possible with this robot.";

/// True when v is an array of n values.
inline bool isArrayOfSize(const KRValue& v, std::size_t n) {
  return v.isValid() && v.isArray() && v.size() == n;
}

/// The rule for a remote call: run pCall; a Caught exception is logged at error level under
/// pOperation, its text after pPrefix, and the tracker carries on. True when pCall succeeded.
template <typename Caught = std::exception, typename Call>
bool guarded(const char* pOperation, Call&& pCall, const char* pPrefix = "") {
  try {
    std::forward<Call>(pCall)();
    return true;
  } catch (const Caught& e) {
    ko::log::error(kLogCategory, pOperation, std::string(pPrefix) + e.what());
    return false;
  }
}

/// The same rule for a call that answers: its answer, or pFallback after a logged failure.
template <typename T, typename Call>
T guardedOr(T pFallback, const char* pOperation, Call&& pCall) {
  guarded(pOperation, [&] { pFallback = std::forward<Call>(pCall)(); });
  return pFallback;
}

}  // namespace internal
}  // namespace Tracker
}  // namespace KR
