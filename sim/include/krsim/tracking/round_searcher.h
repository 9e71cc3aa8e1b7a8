#pragma once
// RoundSearcher: the sub-module "_RoundSearcher". Once started ("startEvent"), it waits for
// the smoother's "KRTracker/TargetLost" (raised at once for a target never seen, after the
// tracker's time-out for one that was). Then it searches until "KRTracker/TargetDetected"
// (or "KRTracker/StopSearch") arrives:
//  - head only: the gaze goes first where the target most likely is, the last target the
//    lookers had (the smoother carries it along its path through the time-out; past the
//    head's reach, the reach on its side), then one step either side of it, first on the side
//    the target was moving to, then out to the head's reach on the other side and last on
//    that side (SearchPattern), with steps of at most the camera's field of view; a target
//    never seen is swept for one side out, then the other. With nothing to say which way the
//    target went, the sides are taken so that the base turns toward the point opposite the
//    first stop the shorter way. Then, where the robot can turn, the base turns ("moveTo")
//    round the back in one turn, the way the sweep ended, with the head held at its limit,
//    leading, until the whole field around the robot has been in view. Each round looks at
//    another height; after the first, a round is one whole turn of the base ("move") on the
//    same way, the head leading at its limit. At each stop the gaze rests one camera frame,
//    plus the camera's latency, plus the servos' settling, so that a target in view is
//    detected before the gaze moves on. A target found near the head's limit while the base
//    turns is turned onto at once, under the head looker, the base not stopping. A robot that
//    cannot turn searches what its head reaches, one round per height, then ends the search
//    and looks back where the target was;
//  - whole body ("setUseWholeBodyLookAt"(true)): the gaze steps round the robot with
//    "_lookAtWb", the base turning with it, toward the side the target was moving to.
// Head moves run at the fraction of the joints' velocity limits set by "setFractionMaxSpeed".
//
// Events raised in KRMemory: kSearchStarted when a search starts, kSearchEnded when it ends,
// with the reason as a text: "found", "stopped" or "exhausted" (nothing left to look at).
//
// Remote methods: "initialize"(), "startEvent"(), "stopSearcher"(), "setFractionMaxSpeed"
// (float), "getFractionMaxSpeed"() -> float, "setUseWholeBodyLookAt"(bool), "exit"().
// Errors are KRError("_RoundSearcher", method, text).

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <kr/broker/broker.h>
#include <kr/math/types.h>
#include <kr/model/trackermodel.h>

#include <krsim/tracking/context.h>
#include <krsim/tracking/head_looker.h>
#include <krsim/tracking/target_input.h>

namespace KR {
namespace Sim {

/// Where a search looks, as world yaw angles of the gaze [rad], in order: the first stop
/// (`origin`), then, when `alternate` (a place where the target most likely is), the stops one
/// `step` on either side of it, first on `side` (+1 left, -1 right), then outward on the other
/// side to the head's reach and last outward on `side` to its reach; otherwise outward on
/// `side` to the reach, then on the other side. Where the robot can turn, the base then turns
/// round the back the way the sweep ended (turn()) until the whole field around the robot has
/// been in view. The head's reach is `headLimit` either way of the torso's heading `torsoYaw`;
/// `view` is the camera's horizontal field of view.
struct SearchPattern {
  float origin = 0.0f;
  int side = 1;
  bool alternate = true;
  float step = 0.9f;
  float view = 1.0f;
  bool canTurn = true;
  float torsoYaw = 0.0f;
  float headLimit = 2.0f;
  /// The stops in order; `lastSide`, when given, receives the index of the first stop of the
  /// last side's sweep.
  std::vector<float> stops(std::size_t* lastSide = nullptr) const;
  /// The way the base turns round the back: +1 left, -1 right.
  int turn() const;
};

/// The side to search first when nothing says where the target went (+1 left, -1 right): the
/// one with which the base turns round the back toward the point opposite `origin` the
/// shorter way.
int sideOfTheBack(const SearchPattern& p);

/// Time the gaze rests at a stop [s]: the wait for the next frame, its delivery and the
/// servos' settling.
double searchDwell(double cameraRateHz, double latencyS);

struct RoundSearcherState {
  enum class Phase { Start, Move, Dwell, Turn, Gaze };
  bool enabled = false;      // started: searches when the target is lost
  bool searching = false;    // searching now
  bool haltPending = false;  // found: stop the turn at the next update
  float fraction = 1.0f;     // speed fraction of the head (RoundSearcher::kDefaultFraction)
  bool useWholeBody = false;
  Phase phase = Phase::Start;
  int step = 0;              // stop of the round, or gaze step
  std::vector<float> stops;  // the round's stops (SearchPattern::stops)
  std::size_t lastSide = 0;  // the first stop of the last side's sweep
  int round = 0;             // completed rounds
  float headYaw = 0.0f;      // last commanded search yaw [rad]
  float pitch = 0.0f;        // head pitch of the round [rad]
  SearchPattern pattern;
  KRTimePoint phaseEnd{};
  bool turnSent = false;      // a base turn of the current stop is under way
  bool baseMoving = false;    // the base turns toward the back under the last side's sweep
  bool turned = false;        // the search has turned the base
  bool alignPending = false;  // found: turn the base under the head at alignAt
  KRTimePoint alignAt{};
  bool gazeSent = false;
  std::vector<std::string> endings;  // end events to raise at the next update
};

class RoundSearcher : public SimModule {
 public:
  /// The search moves the head at the joints' full speed: every stop saved counts.
  static constexpr float kDefaultFraction = 1.0f;
  /// After a find, the lookers' first commands come before the base turns under the head.
  static constexpr std::chrono::milliseconds kAlignDelay{150};
  /// The servos' settling at a stop [ms].
  static constexpr std::chrono::milliseconds kSettle{50};
  /// Widest step between two stops, as a share of the camera's horizontal field of view (the
  /// camera also sees on the way between stops).
  static constexpr float kStepOfView = 1.0f;
  /// Gaze step of the whole-body search [rad].
  static constexpr float kWholeBodyStep = 1.2f;
  /// A lost target whose predicted place lies less than this from where it was last seen
  /// [rad] is taken as still: its way gives no side to search first.
  static constexpr float kMoved = 0.05f;
  /// The head is at a stop within this much of it [rad].
  static constexpr float kArrived = 0.03f;
  static constexpr const char* kSearchStarted = "RoundSearcher/SearchStarted";
  static constexpr const char* kSearchEnded = "RoundSearcher/SearchEnded";
  /// Heights of the successive rounds, as head pitch [rad] (clipped to the joint).
  static const std::vector<float>& pitchRows();

  explicit RoundSearcher(const SimContext& context);
  ~RoundSearcher() override;

  void update(KRTimePoint now) override;

  void initialize();
  void startEvent();
  void stopSearcher();
  void setFractionMaxSpeed(float fraction);
  float getFractionMaxSpeed() const;
  void setUseWholeBodyLookAt(bool useWholeBody);
  void exit();

  RoundSearcherState snapshot() const;
  /// The head looker: a target found at the head's reach while the base turns is turned onto
  /// at once only while it runs (a whole-body gaze or a mover turns the base itself).
  void setHeadLooker(std::weak_ptr<const HeadLooker> looker);

 private:
  void xOnLost(const KRValue& last);
  void xOnFound(const KRValue& sample);
  /// Stops what the search set going. A target found near or past the head's reach after the
  /// search turned the base, while the head looker runs (`headLooking`): the base turns on
  /// onto it at once (xTurnOnto); otherwise, after a turn, the base is turned under the head a
  /// moment later (xAlign). Caller holds fMutex.
  void xHalt(bool found, KRTimePoint now, bool headLooking);
  /// The base turn that faces `target` (world) when it lies near or past the head's reach.
  std::optional<float> xTurnOnto(const Math::Position3D& target) const;
  void xEnd(const std::string& reason);
  float xRowPitch() const;
  float xTorsoYaw() const;
  void xPlan(KRTimePoint now);
  void xNextStop(KRTimePoint now);
  void xArrive(KRTimePoint now);
  /// A later round where the robot can turn: one whole turn of the base (Phase::Turn).
  void xTurnRound(KRTimePoint now);
  void xAlign();
  void xNextGaze(KRTimePoint now);

  std::shared_ptr<SimMemory> fMemory;
  std::shared_ptr<SimMotion> fMotionService;
  std::shared_ptr<World> fWorld;
  std::shared_ptr<KR::KRProxy> fMotion;
  Model::KRTrackerModel fModel;
  float fFieldOfView;  // horizontal, of the camera the world uses [rad]
  TargetInput fLead;   // the last target given to the lookers
  std::vector<int> fSubscriptions;

  mutable std::mutex fMutex;
  RoundSearcherState fState;
  std::optional<Math::Position3D> fLastSeen;  // world frame, from the loss event [m]
  std::optional<Math::Position3D> fFoundAt;   // world frame, from the detection [m]
  std::weak_ptr<const HeadLooker> fHeadLooker;
};

}  // namespace Sim
}  // namespace KR
