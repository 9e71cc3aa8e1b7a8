#include <krsim/tracking/round_searcher.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include <kr/error.h>
#include <kr/math/math.h>

#include <krtracker/generictracker/submodules.h>
#include <krtracker/tools/namer/namer.h>

namespace KR {
namespace Sim {

using Tracker::Namer;

const std::vector<float>& RoundSearcher::pitchRows() {
  static const std::vector<float> kRows{0.15f, 0.4f, -0.15f};
  return kRows;
}

RoundSearcher::RoundSearcher(const SimContext& context)
    : SimModule(Tracker::kRoundSearcherModule),
      fMemory(context.memory),
      fMotionService(context.motion),
      fMotion(context.broker->getProxy("KRMotion", 0)) {
  context.robot->fillTrackerModel(fModel);
  fSubscriptions.push_back(fMemory->subscribe(
      Namer::getNameLost(), [this](const std::string&, const KRValue&) { xOnLost(); }));
  for (const std::string& found : {Namer::getNameDetected(), Namer::getNameStopSearch()}) {
    fSubscriptions.push_back(
        fMemory->subscribe(found, [this](const std::string&, const KRValue&) { xOnFound(); }));
  }
  bind("initialize", &RoundSearcher::initialize, this);
  bind("startEvent", &RoundSearcher::startEvent, this);
  bind("stopSearcher", &RoundSearcher::stopSearcher, this);
  bind("setFractionMaxSpeed", &RoundSearcher::setFractionMaxSpeed, this);
  bind("getFractionMaxSpeed", &RoundSearcher::getFractionMaxSpeed, this);
  bind("setUseWholeBodyLookAt", &RoundSearcher::setUseWholeBodyLookAt, this);
  bind("exit", &RoundSearcher::exit, this);
}

RoundSearcher::~RoundSearcher() {
  for (int id : fSubscriptions) {
    fMemory->unsubscribe(id);
  }
}

// ---- events --------------------------------------------------------------------------------

void RoundSearcher::xOnLost() {
  std::lock_guard<std::mutex> lock(fMutex);
  if (!fState.enabled || fState.searching) {
    return;
  }
  fState.searching = true;
  fState.haltPending = false;
  fState.phase = RoundSearcherState::Phase::Start;
  fState.step = 0;
}

void RoundSearcher::xOnFound() {
  // Motion requests wait for the next update: this runs inside whoever raised the event.
  std::lock_guard<std::mutex> lock(fMutex);
  if (!fState.searching) {
    return;
  }
  fState.searching = false;
  fState.haltPending = true;
  fState.endings.push_back("found");
}

void RoundSearcher::xHalt() {
  if (fState.turnSent) {
    fState.turnSent = false;
    fMotion->call<void>("stopMove");
  }
  fState.gazeSent = false;  // the lookers' next command replaces a search gaze
}

void RoundSearcher::xEnd(const std::string& reason) {
  fState.searching = false;
  fState.endings.push_back(reason);
  xHalt();
}

// ---- remote methods ------------------------------------------------------------------------

void RoundSearcher::initialize() {
  std::lock_guard<std::mutex> lock(fMutex);
  fState.fraction = kDefaultFraction;
  fState.useWholeBody = false;
  if (fState.searching) {
    xEnd("stopped");
  }
  fState.round = 0;
}

void RoundSearcher::startEvent() {
  std::lock_guard<std::mutex> lock(fMutex);
  fState.enabled = true;
}

void RoundSearcher::stopSearcher() {
  std::lock_guard<std::mutex> lock(fMutex);
  fState.enabled = false;
  fState.haltPending = false;
  if (fState.searching) {
    xEnd("stopped");
  }
}

void RoundSearcher::exit() {
  stopSearcher();
}

void RoundSearcher::setFractionMaxSpeed(float fraction) {
  if (!Math::Validation::isFractionStrict(fraction)) {
    throw KRError(Tracker::kRoundSearcherModule, "setFractionMaxSpeed",
                  "Expected a fraction in ]0, 1], not " + std::to_string(fraction) + ".");
  }
  std::lock_guard<std::mutex> lock(fMutex);
  fState.fraction = fraction;
}

float RoundSearcher::getFractionMaxSpeed() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fState.fraction;
}

void RoundSearcher::setUseWholeBodyLookAt(bool useWholeBody) {
  std::lock_guard<std::mutex> lock(fMutex);
  fState.useWholeBody = useWholeBody;
}

RoundSearcherState RoundSearcher::snapshot() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fState;
}

// ---- the search ----------------------------------------------------------------------------

float RoundSearcher::xPitch() const {
  const auto& rows = pitchRows();
  float pitch = rows[static_cast<std::size_t>(fState.round / 2) % rows.size()];
  Math::clipData(fModel.head.pitch.min, fModel.head.pitch.max, pitch);
  return pitch;
}

void RoundSearcher::xNextHead(KRTimePoint now) {
  const Model::TrackerJoint& yawJoint = fModel.head.yaw;
  const float reach = std::min(1.5f, 0.75f * std::min(-yawJoint.min, yawJoint.max));
  // From the right to the left: the half turn that follows goes on to the left.
  const float u = -1.0f + 2.0f * static_cast<float>(fState.step) / (kSweepPositions - 1);
  const float yaw = u * reach;
  const float pitch = xPitch();
  fMotion->call<void>("setAngles", std::vector<std::string>{yawJoint.name, fModel.head.pitch.name},
                      std::vector<float>{yaw, pitch}, fState.fraction);
  const float speed = fState.fraction * std::max(yawJoint.maxVelocity, 0.1f);
  const double travel = std::fabs(yaw - fState.headYaw) / speed;
  fState.headYaw = yaw;
  ++fState.step;
  fState.phaseEnd =
      now +
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(travel)) +
      kDwell;
}

void RoundSearcher::xStartTurn(KRTimePoint now) {
  fMotion->call<void>("setAngles",
                      std::vector<std::string>{fModel.head.yaw.name, fModel.head.pitch.name},
                      std::vector<float>{0.0f, xPitch()}, fState.fraction);
  fState.headYaw = 0.0f;
  fMotion->call<void>("moveTo", 0.0f, 0.0f, Math::kPi);
  fState.turnSent = true;
  const float omega = std::max(fMotionService->getBaseLimits().maxAngularSpeed, 0.1f);
  // Safety bound on the wait: the turn reports its end through "moveIsActive".
  fState.phaseEnd = now + std::chrono::duration_cast<std::chrono::nanoseconds>(
                              std::chrono::duration<double>(Math::kPi / omega + 2.0));
  fState.phase = RoundSearcherState::Phase::Turn;
}

void RoundSearcher::xNextGaze(KRTimePoint now) {
  const int stepsPerRound = static_cast<int>(std::ceil(2.0f * Math::kPi / kWholeBodyStep));
  fState.round = 2 * (fState.step / stepsPerRound);
  fMotion->call<void>("_lookAtWb", xPitch(), kWholeBodyStep);
  fState.gazeSent = true;
  ++fState.step;
  const float omega = std::max(fMotionService->getBaseLimits().maxAngularSpeed, 0.1f);
  fState.phaseEnd = now +
                    std::chrono::duration_cast<std::chrono::nanoseconds>(
                        std::chrono::duration<double>(kWholeBodyStep / omega)) +
                    kDwell;
}

void RoundSearcher::update(KRTimePoint now) {
  std::vector<std::pair<std::string, KRValue>> raised;
  {
    std::lock_guard<std::mutex> lock(fMutex);
    if (fState.haltPending) {
      fState.haltPending = false;
      xHalt();
    }
    if (fState.enabled && fState.searching) {
      if (fState.phase == RoundSearcherState::Phase::Start)
        raised.emplace_back(kSearchStarted, KRValue());
      xSearch(now);
    }
    for (const auto& reason : fState.endings)
      raised.emplace_back(kSearchEnded, KRValue(reason));
    fState.endings.clear();
  }
  // Events are raised outside the lock: subscribers may call back.
  for (const auto& [name, value] : raised)
    fMemory->raiseEvent(name, value);
}

void RoundSearcher::xSearch(KRTimePoint now) {
  switch (fState.phase) {
    case RoundSearcherState::Phase::Start:
      fState.step = 0;
      if (fState.useWholeBody) {
        fState.phase = RoundSearcherState::Phase::Gaze;
        xNextGaze(now);
      } else {
        fState.phase = RoundSearcherState::Phase::Head;
        xNextHead(now);
      }
      break;
    case RoundSearcherState::Phase::Head:
      if (now < fState.phaseEnd) {
        break;
      }
      if (fState.step < kSweepPositions) {
        xNextHead(now);
      } else {
        xStartTurn(now);
      }
      break;
    case RoundSearcherState::Phase::Turn:
      if (now < fState.phaseEnd && fMotion->call<bool>("moveIsActive")) {
        break;
      }
      fState.turnSent = false;
      ++fState.round;
      fState.step = 0;
      fState.phase = RoundSearcherState::Phase::Head;
      xNextHead(now);
      break;
    case RoundSearcherState::Phase::Gaze:
      if (now >= fState.phaseEnd) {
        xNextGaze(now);
      }
      break;
  }
}

}  // namespace Sim
}  // namespace KR
