#pragma once
// Smoother: the sub-module "_Smoother". It follows the tracker events of the active target
// (one event, or the two events of the landmarks), converts each observation into a
// TrackInfos record in FRAME_WORLD, drops those beyond the maximum distance and those that
// are not finite, and filters the position with a constant-velocity filter. Every step while
// the target is followed it publishes the filtered target for the lookers
// (Namer::getNameLooker()), and, when it has moved by more than the move hysteresis or has
// come to rest, for the movers (Namer::getNameMove(), and the move event when one is set).
//
// Payloads raised in KRMemory:
//   Namer::getNameLooker()  TrackInfos KRValue form: the smoothed target (FRAME_WORLD), raised
//                           every step while the target is followed and not lost (read by
//                           TargetInput, target_input.h).
//   Namer::getNameMove()    [TrackInfos KRValue, relative position (6 floats),
//                            target velocity [vx, vy, vz] (FRAME_WORLD, m/s)], raised when the
//                           target has moved by more than the move hysteresis, and once more
//                           when it comes to rest (read by MoverBase, mover_base.h).
//
// Latency compensation (on unless the context turns it off). A detection reaches the
// smoother late, converted with the camera pose of its delivery; the smoother moves it to
// where the camera was at its capture time ("_getSensorTransformAtTime", through the library's
// getSensorTransform), files it at that time in the filter, and publishes the target
// predicted to when a command sent now takes effect (kCommandLead ahead). Off: the detection
// as delivered, filed at its capture time, published as filtered, without prediction.
//
// Through the time-out, a target that was moving is published along its predicted path, one
// that was still where it vanished.
//
// Lost and found: when no observation has arrived for the time-out, or at once for a target
// never seen since the start, it raises "KRTracker/TargetLost" once; the next
// observation raises "KRTracker/TargetDetected". Both carry the last sample (TrackInfos
// KRValue form), or an invalid value when there is none.
//
// Landmarks: given the two ids ("setTargetIds") and their map positions ("setMap"), the
// latest observation of each landmark gives the robot's pose in the map frame
// ("getPosition": [x, y, 0, 0, 0, theta]; landmark_pose.h).
//
// Remote methods: "startEvent"(event[, event2]), "stopSmoother"(), "restart"(event[, event2]),
// "setTarget"(relative position), "setTargetIds"(int, int), "setMap"(map), "setMaxDistance"
// (float), "setTimeOut"(int ms), "getTimeOut"() -> int, "_setMoveEvent"(string),
// "_setMoveHysteresis"(floats), "_getMoveHysteresis"() -> floats, "_raiseSearchEvent"(),
// "getPosition"() -> KRValue, "exit"(). Errors are KRError("_Smoother", method, text).

#include <array>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <kr/broker/broker.h>
#include <kr/math/types.h>
#include <kr/value/krvalue.h>

#include <krtracker/types/types/trackinfos.h>

#include <krsim/tracking/context.h>
#include <krsim/tracking/filter.h>

namespace KR {
namespace Sim {

class TargetManager;

class Smoother : public SimModule {
 public:
  static constexpr int kDefaultTimeOutMs = 3000;
  /// A command sent at an update moves the joints this much later: it reaches the servo
  /// bus at the next control period, acts one period after, and the servo lags about 20 ms.
  static constexpr std::chrono::milliseconds kCommandLead{40};
  /// Below this speed the target is at rest [m/s].
  static constexpr float kRestSpeed = 0.05f;

  /// `targets` names the kind of target behind each event, for its head threshold.
  Smoother(const SimContext& context, std::shared_ptr<const TargetManager> targets);
  ~Smoother() override;

  void update(KRTimePoint now) override;

  void startEvent(const std::vector<std::string>& events);
  void stopSmoother();
  void restart(const std::vector<std::string>& events);
  /// [coordX, coordY, coordWz(, thresholdX, thresholdY, thresholdWz)]; missing thresholds 0.
  void setTarget(const KRValue& relativePosition);
  void setTargetIds(int id0, int id1);
  /// [[id0, [x, y, z]], [id1, [x, y, z]]]: map positions of the landmarks.
  void setMap(const KRValue& map);
  void setMaxDistance(float distance);
  void setTimeOut(int timeOutMs);
  int getTimeOut() const;
  void setMoveEvent(const std::string& eventName);
  void setMoveHysteresis(const std::vector<float>& hysteresis);
  std::vector<float> getMoveHysteresis() const;
  void raiseSearchEvent();
  /// Robot pose in the map frame from the landmarks; invalid when it cannot be computed.
  KRValue getPosition();
  void exit();

  /// What the smoother is doing, read at once.
  struct Status {
    bool running = false;
    bool lost = false;
    std::vector<std::string> events;  // followed events
    std::array<float, 6> relativePosition{};
    float maxDistance = 0.0f;  // [m]
  };
  Status snapshot() const;

 private:
  /// One followed event and its filter.
  struct Track {
    std::string event;
    int subscription = 0;
    int landmarkId = -1;  // for the landmarks
    bool hasSample = false;
    Tracker::types::TrackInfos last;  // last accepted observation
    KRTimePoint lastTime{};           // its timestamp
    ConstantVelocityFilter filter;    // FRAME_WORLD [m], times since fStartTime [s]
  };

  using Events = std::vector<std::pair<std::string, KRValue>>;  // [(name, value)]

  void xSubscribe(const std::vector<std::string>& events);
  void xUnsubscribeAll();
  void xOnEvent(int generation, std::size_t index, const std::string& name, const KRValue& value);
  /// A tracker event as a target sample: converted, with its head threshold, and (with
  /// compensation) placed where the camera was at capture. None when it does not convert or
  /// is not finite.
  std::optional<Tracker::types::TrackInfos> xObservation(const std::string& name,
                                                         const KRValue& value);
  /// Files an accepted sample in its track; true when it ends a loss. Caller holds fMutex.
  bool xFile(Track& track, const Tracker::types::TrackInfos& info);
  /// The track observed last (null when none has a sample); moves `lastSeen` on to the last
  /// observation of any track. Caller holds fMutex.
  const Track* xLatest(KRTimePoint& lastSeen) const;
  /// The step's publications of the followed target. Caller holds fMutex.
  void xPublish(const Track& latest, KRTimePoint now, Events& events);
  /// The movers' publication, when the target has moved by the hysteresis or come to rest.
  /// Caller holds fMutex.
  void xPublishMove(const Math::Position6D& pose, const Math::Position3D& velocity,
                    const KRValue& sample, Events& events);
  void xAssignLandmarkIds();
  void xRaise(const std::string& name, const KRValue& value);

  std::shared_ptr<const SimClock> fClock;
  std::shared_ptr<SimMemory> fMemory;
  std::shared_ptr<KR::KRProxy> fMotion;
  std::shared_ptr<const TargetManager> fTargets;
  const bool fCompensation;

  mutable std::mutex fMutex;
  bool fRunning = false;
  int fGeneration = 0;  // bumped by every (re)subscription; older callbacks are ignored
  std::vector<Track> fTracks;
  KRTimePoint fStartTime{};
  bool fLost = false;
  bool fEverSeen = false;
  std::optional<Tracker::types::TrackInfos> fLastSample;
  int fTimeOutMs = kDefaultTimeOutMs;
  float fMaxDistance;
  std::array<float, 6> fRelativePosition{};
  std::string fMoveEvent;
  std::vector<float> fMoveHysteresis{0.1f, 0.1f, 0.02f};
  std::optional<Math::Position6D> fLastMove;  // last target published for the movers
  bool fMoveAtRest = false;                   // ... and it was then at rest
  std::array<int, 2> fLandmarkIds{{-1, -1}};
  std::map<int, Math::Position3D> fMap;
  bool fLogInputFirst = true;
};

}  // namespace Sim
}  // namespace KR
