#pragma once
// RoundSearcher: the sub-module "_RoundSearcher". Once started ("startEvent"), it waits for
// the smoother's "KRTracker/TargetLost". Then it searches until "KRTracker/TargetDetected"
// (or "KRTracker/StopSearch") arrives:
//  - head only: the head sweeps five yaw positions across its range, from the right to the
//    left, pausing at each, then returns to the front while the robot turns half a round to
//    the left ("moveTo"); each full round looks at another height;
//  - whole body ("setUseWholeBodyLookAt"(true)): the gaze steps round the robot with
//    "_lookAtWb", the base turning with it.
// Head moves run at the fraction of the joints' velocity limits set by "setFractionMaxSpeed".
//
// Events raised in KRMemory: kSearchStarted when a search starts, kSearchEnded when it ends,
// with the reason as a text: "found" or "stopped".
//
// Remote methods: "initialize"(), "startEvent"(), "stopSearcher"(), "setFractionMaxSpeed"
// (float), "getFractionMaxSpeed"() -> float, "setUseWholeBodyLookAt"(bool), "exit"().
// Errors are KRError("_RoundSearcher", method, text).

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <kr/broker/broker.h>
#include <kr/model/trackermodel.h>

#include <krsim/tracking/context.h>

namespace KR {
namespace Sim {

struct RoundSearcherState {
  enum class Phase { Start, Head, Turn, Gaze };
  bool enabled = false;      // started: searches when the target is lost
  bool searching = false;    // searching now
  bool haltPending = false;  // found: stop the turn at the next update
  float fraction = 0.5f;     // speed fraction of the head (RoundSearcher::kDefaultFraction)
  bool useWholeBody = false;
  Phase phase = Phase::Start;
  int step = 0;          // head position of the sweep, or gaze step
  int round = 0;         // completed half rounds
  float headYaw = 0.0f;  // last commanded search yaw [rad]
  KRTimePoint phaseEnd{};
  bool turnSent = false;
  bool gazeSent = false;
  std::vector<std::string> endings;  // end events to raise at the next update
};

class RoundSearcher : public SimModule {
 public:
  static constexpr float kDefaultFraction = 0.5f;
  /// Pause at each head position, for the detectors to see [ms].
  static constexpr std::chrono::milliseconds kDwell{250};
  /// Head positions of one sweep.
  static constexpr int kSweepPositions = 5;
  /// Gaze step of the whole-body search [rad].
  static constexpr float kWholeBodyStep = 1.2f;
  /// Heights of the successive rounds, as head pitch [rad] (clipped to the joint).
  static const std::vector<float>& pitchRows();
  static constexpr const char* kSearchStarted = "RoundSearcher/SearchStarted";
  static constexpr const char* kSearchEnded = "RoundSearcher/SearchEnded";

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

 private:
  void xOnLost();
  void xOnFound();
  /// Stops what the search set going; caller holds fMutex.
  void xHalt();
  void xEnd(const std::string& reason);
  /// One step of the search; caller holds fMutex.
  void xSearch(KRTimePoint now);
  float xPitch() const;
  void xNextHead(KRTimePoint now);
  void xStartTurn(KRTimePoint now);
  void xNextGaze(KRTimePoint now);

  std::shared_ptr<SimMemory> fMemory;
  std::shared_ptr<SimMotion> fMotionService;
  std::shared_ptr<KR::KRProxy> fMotion;
  Model::KRTrackerModel fModel;
  std::vector<int> fSubscriptions;

  mutable std::mutex fMutex;
  RoundSearcherState fState;
};

}  // namespace Sim
}  // namespace KR
