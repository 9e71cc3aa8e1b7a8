#pragma once
// GenericTracker: the object through which the hosting tracking service drives tracking. It
// keeps the tracker's state (active flag, target, mode, effector, searcher flags, limits) and
// drives the tracking service's sub-modules through broker proxies in the right order.
//
// Threads: public methods may be called from several threads at once. fModeMutex guards fMode,
// fTargetNameMutex fTargetName, fEffectorMutex fEffector and fTargetMutex fRelativePosition.
// They are never nested, except effector lock then mode lock (xStartArmLooker reads the mode
// while the effector lock is held). Flags and limits are atomics; the target coordinates and
// the move configuration have a small lock each, held for one copy or assignment only.

#include <array>
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <kr/broker/broker.h>
#include <kr/math/types.h>
#include <kr/model/trackermodel.h>
#include <kr/value/krvalue.h>

namespace KR {
namespace Tracker {

// Tracking modes.
extern const std::string HeadMode;        // "Head", the default
extern const std::string WholeBodyMode;   // "WholeBody"
extern const std::string MoveSafelyMode;  // "MoveSafely", deprecated name of "Move"
extern const std::string MoveMotionMode;  // "Move"
extern const std::string NavigateMode;    // "Navigate", robots of type 1 only
extern const std::string MoveWBMode;      // "MoveWholeBody", never an available mode

/// Default limits: an unused value, maximum acceleration [rad/s^2], maximum velocity [rad/s].
inline constexpr std::array<float, 3> kLimits{100.0f, 10.0f, 1.0f};

class GenericTracker {
 public:
  /// Opens the proxies and reads the robot description from "KRRobotModel". Throws when a
  /// sub-module or the robot description is missing (the memory service is optional).
  explicit GenericTracker(std::shared_ptr<KR::KRBroker> pBroker);
  /// Stops every sub-module and forgets the target; never throws.
  virtual ~GenericTracker();

  GenericTracker(const GenericTracker&) = delete;
  GenericTracker& operator=(const GenericTracker&) = delete;

  // ---- lifecycle ---------------------------------------------------------------------------
  /// Puts every setting back to its default; neither starts nor stops tracking.
  void initialize();
  void start();
  /// Stops every sub-module and forgets the target.
  void stop();
  /// Stops head tracking and the arms looker; keeps the target for restart().
  void pause();
  /// Re-activates the current target and restarts the searcher, arms looker and mode.
  void restart();
  /// As stop(), then asks every sub-module to exit. Their failures reach the caller.
  void exit();
  bool isActive() const;

  // ---- targets -----------------------------------------------------------------------------
  void registerTarget(const std::string& pTarget, const KR::KRValue& pParams);
  void unregisterTarget(const std::string& pTarget);
  void unregisterTargets(const std::vector<std::string>& pTargets);
  void unregisterAllTargets();
  std::vector<std::string> getSupportedTargets();
  std::vector<std::string> getRegisteredTargets();
  std::string getActiveTarget() const;
  void track(const std::string& pTarget);
  void trackEvent(const std::string& pEventName);
  /// Fixed positions of the two landmarks: [[x, y, z], [x, y, z]].
  void setTargetCoordinates(const KR::KRValue& pCoordinates);
  KR::KRValue getTargetCoordinates() const;
  /// Position [x, y, z] of the active target in pFrame; empty when there is none.
  std::vector<float> getTargetPosition(KR::Math::FRAME pFrame);
  std::string getEventName() const;
  std::string getSecondEventName() const;

  // ---- modes and move configuration ---------------------------------------------------------
  void setMode(const std::string& pMode);
  std::string getMode() const;
  std::vector<std::string> getAvailableModes() const;
  void setMoveConfig(const KR::KRValue& pConfig);
  KR::KRValue getMoveConfig() const;
  /// [coordX, coordY, coordWz, thresholdX, thresholdY, thresholdWz].
  void setRelativePosition(const KR::KRValue& pPosition);
  KR::KRValue getRelativePosition() const;
  void setMoveHysteresis(const std::vector<float>& pHysteresis);
  std::vector<float> getMoveHysteresis();
  void setMoveEvent(const std::string& pEventName);
  /// Robot position from the landmarks (six floats); empty for any other target.
  std::vector<float> getRobotPosition();

  // ---- effectors ----------------------------------------------------------------------------
  /// "Arms", "LArm", "RArm" or "None"; throws std::runtime_error for any other name.
  void setEffector(const std::string& pEffector);
  std::string getEffector() const;
  /// Deprecated: use setEffector.
  void addEffector(const std::string& pEffector);
  /// Deprecated: use setEffector("None").
  void removeEffector(const std::string& pEffector);

  // ---- speed limits, smoother and searcher settings -----------------------------------------
  /// Head maximum velocity [rad/s], within [0.001, slowest head joint's velocity].
  void setMaximumVelocity(float pVelocity);
  float getMaximumVelocity() const;
  /// Head maximum acceleration [rad/s^2], within [0.001, 20].
  void setMaximumAcceleration(float pAcceleration);
  float getMaximumAcceleration() const;
  void setTimeOut(int pTimeOut);
  int getTimeOut();
  void setExtractorPeriod(const std::string& pTarget, int pPeriod);
  int getExtractorPeriod(const std::string& pTarget);
  /// Maximum detection distance [m]; must exceed 0.001.
  void setMaximumDistanceDetection(float pDistance);
  float getMaximumDistanceDetection() const;
  void setSearcherFractionMaxSpeed(float pFraction);
  float getSearcherFractionMaxSpeed();
  void searcherSetUseWholeBodyLookAt(bool pUseWholeBody);
  void toggleSearch(bool pEnable);
  bool isSearchEnabled() const;

  // ---- one-shot look-at and point-at --------------------------------------------------------
  void lookAt(const std::vector<float>& pPosition, KR::Math::FRAME pFrame, float pFractionMaxSpeed,
              bool pUseWholeBody);
  void lookAt(const std::vector<float>& pPosition, KR::Math::FRAME pFrame, int pEffectorId,
              float pFractionMaxSpeed, bool pUseWholeBody);
  /// Look at a torso-frame point, turning the robot first when it is behind and allowed.
  void lookAtAndMove(const std::vector<float>& pPosition, float pFractionMaxSpeed,
                     bool pUseWholeBody, bool pAllowTurning);
  void pointAt(const std::string& pEffector, const std::vector<float>& pPosition,
               KR::Math::FRAME pFrame, float pFractionMaxSpeed);
  void stopLookAt() const;
  void stopPointAt() const;

  // ---- configuration table ------------------------------------------------------------------
  /// Name/value pairs written into the process-wide configuration table.
  void setTrackerConfig(const KR::KRValue& pConfig);
  std::map<std::string, float> getTrackerConfig() const;
  std::string getTrackerConfigStr() const;

 protected:
  void xInitProxies(const std::shared_ptr<KR::KRBroker>& pBroker);
  /// Stops the searcher, then every other sub-module; the first failure ends the sequence.
  void xStopAll();

  void xSetTargetName(const std::string& pName);
  std::string xGetTargetName() const;
  void xSetTarget(const KR::KRValue& pRelativePosition);
  KR::KRValue xGetTarget() const;
  void xSetCoordinates();
  std::string xGetEventName(bool pSecond) const;

  bool xIsValidMode(const std::string& pMode) const;
  /// Starts and stops the lookers and movers for the current mode; caller holds fModeMutex.
  void xUpdateMode();
  std::string xGetMode() const;

  std::string xGetEffector() const;
  void xExpectEffector(const std::string& pEffector) const;
  /// Configures and starts the arms looker; caller holds fEffectorMutex.
  void xStartArmLooker();
  void xStopArmLooker();

  void xStartSmoother();
  void xRestartSmoother();
  void xRunSmoother(bool pRestart);  // the body of both: a restart skips "stopSmoother"
  void xStartSearcher();
  void xRestartSearcher();
  void xStopSearcher();
  void xStartHeadLooker();
  void xStopHeadTracking();

  void xLookAt(const KR::Math::Position3D& pPosition, KR::Math::FRAME pFrame,
               KR::Model::TRACK_EFFECTOR pEffector, float pFractionMaxSpeed, bool pUseWholeBody,
               bool pAllowTurning);
  void xPointAt(const std::string& pEffector, const KR::Math::Position3D& pPosition,
                KR::Math::FRAME pFrame, float pFractionMaxSpeed);

  KR::KRValue xGetTargetCoordinates() const;
  KR::KRValue xGetMoveConfig() const;

  std::atomic<bool> fActive{false};
  std::atomic<bool> fNotLandMarks{true};
  std::atomic<bool> fSearcherRunning{false};
  std::atomic<bool> fSearchEnabled{false};
  mutable std::mutex fModeMutex;
  std::string fMode;
  mutable std::mutex fTargetNameMutex;
  std::string fTargetName;
  mutable std::mutex fEffectorMutex;
  std::string fEffector;
  const std::string fLogName;
  std::atomic<float> fMaxDistanceDetection;
  std::atomic<bool> fIsEventTracking{false};
  std::vector<std::string> fAvailableModes;
  mutable std::mutex fTargetMutex;
  KR::KRValue fRelativePosition;
  mutable std::mutex fTargetCoordinatesMutex;
  KR::KRValue fTargetCoordinates;
  mutable std::mutex fMoveConfigMutex;
  KR::KRValue fMoveConfig;
  KR::Model::KRTrackerModel fModel;
  bool fCanLookBehind = true;
  bool fCanPointAt = true;
  bool fCanNavigate = false;
  /// An unused value, maximum acceleration, maximum velocity.
  std::array<std::atomic<float>, 3> fLimits;

  std::shared_ptr<KR::KRProxy> fSmootherProxy;
  std::shared_ptr<KR::KRProxy> fMotionMoveProxy;
  std::shared_ptr<KR::KRProxy> fNavigationMoveProxy;
  std::shared_ptr<KR::KRProxy> fRoundSearcherProxy;
  std::shared_ptr<KR::KRProxy> fHeadLookerProxy;
  std::shared_ptr<KR::KRProxy> fWholeBodyLookerProxy;
  std::shared_ptr<KR::KRProxy> fArmsLookerProxy;
  std::shared_ptr<KR::KRProxy> fTargetManagerProxy;
  std::shared_ptr<KR::KRProxy> fMotionProxy;
  std::shared_ptr<KR::KRProxy> fMemoryProxy;
};

}  // namespace Tracker
}  // namespace KR
