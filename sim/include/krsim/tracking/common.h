#pragma once
// Pieces shared by the tracking service's simulated sub-modules: their names, the payloads
// that the smoother hands to the lookers and movers, the per-kind head thresholds, safe reads
// of the configuration switches, and a subscription that keeps the latest target sample.
//
// Threads: each sub-module keeps its state behind one mutex of its own. Remote methods arrive
// on the callers' threads, update() and the KRMemory callbacks on the simulation's. No module
// raises an event while holding its mutex; motion requests may be made under it, since
// KRMotion never calls back into a sub-module.
//
// Payloads raised by the smoother in KRMemory:
//   Namer::getNameLooker()  TrackInfos KRValue form: the smoothed target (FRAME_WORLD), raised
//                           every step while the target is followed and not lost.
//   Namer::getNameMove()    [TrackInfos KRValue, relative position (6 floats),
//                            target velocity [vx, vy, vz] (FRAME_WORLD, m/s)], raised when the
//                           target has moved by more than the move hysteresis, and once more
//                           when it comes to rest.

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <kr/broker/broker.h>
#include <kr/math/types.h>
#include <kr/value/krvalue.h>

#include <krtracker/config/krgenerictrackerconfig.h>
#include <krtracker/types/types/trackinfos.h>

#include <krsim/robot/memory.h>

namespace KR {
namespace Sim {

// Module names, as the tracker opens them.
inline constexpr const char* kTargetManagerModule = "_KRTargetManager";
inline constexpr const char* kSmootherModule = "_Smoother";
inline constexpr const char* kHeadLookerModule = "_HeadLooker";
inline constexpr const char* kWholeBodyLookerModule = "_WholeBodyLooker";
inline constexpr const char* kArmsLookerModule = "_ArmsLooker";
inline constexpr const char* kRoundSearcherModule = "_RoundSearcher";
inline constexpr const char* kMotionMoveModule = "_MotionMove";
inline constexpr const char* kNavigationMoveModule = "_NavigationMove";
inline constexpr const char* kTrackerServiceModule = "KRTracker";

/// A looker follows a sample only while it is this recent: the smoother publishes every step.
inline constexpr std::chrono::milliseconds kLookerFreshness{50};

/// The head dead band of a target kind ("RedBall" -> REDBALL_HEAD_THRESHOLD, ...); the
/// generic HEAD_THRESHOLD for any other name. Falls back to HEAD_THRESHOLD when the stored
/// value is not a number.
float headThresholdForKind(const std::string& kind);

/// A configuration switch; a value that is not a bool counts as off.
bool configSwitch(Tracker::ConfigKey key);
/// A configuration float, or `fallback` when the stored value is not a number.
float configFloat(Tracker::ConfigKey key, float fallback);
/// A configuration gain vector [kp, ki, kd]; missing entries are 0, a bad value gives zeros.
std::vector<float> configGains(Tracker::ConfigKey key);

/// Whether a tracker event carries its own head threshold (layout W: 4 or more elements,
/// layout T: 5 or more).
bool eventCarriesHeadThreshold(const KRValue& event);

/// The same sample with another head threshold.
Tracker::types::TrackInfos withHeadThreshold(const Tracker::types::TrackInfos& info,
                                             float threshold);
/// The same sample at another pose and time.
Tracker::types::TrackInfos withPose(const Tracker::types::TrackInfos& info,
                                    const Math::Position6D& worldToObject, KRTimePoint time);

/// Seconds between two time points.
inline double secondsBetween(KRTimePoint from, KRTimePoint to) {
  return std::chrono::duration<double>(to - from).count();
}

/// Seconds since the clock's epoch, the time column of the diagnostic angle logs.
inline float logTime(KRTimePoint t) {
  return static_cast<float>(std::chrono::duration<double>(t.time_since_epoch()).count());
}

/// Subscribes to one event of KRMemory and keeps its latest TrackInfos payload with the time
/// it arrived. Thread-safe; unsubscribes when destroyed.
class TargetInput {
 public:
  struct Sample {
    Tracker::types::TrackInfos info;
    KRTimePoint received;
  };

  TargetInput(std::shared_ptr<SimMemory> memory, std::shared_ptr<const SimClock> clock,
              const std::string& eventName);
  ~TargetInput();
  TargetInput(const TargetInput&) = delete;
  TargetInput& operator=(const TargetInput&) = delete;

  /// The latest sample if it arrived at most `maxAge` before `now`.
  std::optional<Sample> fresh(KRTimePoint now, std::chrono::nanoseconds maxAge) const;
  void clear();

 private:
  std::shared_ptr<SimMemory> fMemory;
  std::shared_ptr<const SimClock> fClock;
  int fSubscription = 0;
  mutable std::mutex fMutex;
  std::optional<Sample> fLatest;
};

/// Limits of the movers, given by "setParam" as name/value pairs
/// [["MaxVelocityXY", 0.1], ["MaxVelocityTheta", 0.5]]; an invalid value or an empty list
/// restores the defaults (the base's own limits apply then).
struct MoveLimits {
  float maxVelocityXY = 0.0f;     // [m/s]; 0: the base's limit
  float maxVelocityTheta = 0.0f;  // [rad/s]; 0: the base's limit
};
/// Parses a move configuration; KRError(module, "setParam", ...) for an unknown name or a
/// negative value.
MoveLimits parseMoveConfig(const KRValue& config, const std::string& module);

/// Motion resources of the base, checked by the movers when MOVE_LOW_PRIORITY is on.
const std::vector<std::string>& baseResources();

}  // namespace Sim
}  // namespace KR
