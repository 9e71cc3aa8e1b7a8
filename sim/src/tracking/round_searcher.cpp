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

namespace {

std::chrono::nanoseconds seconds(double s) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(s));
}

/// Direction of a world point from the torso, as a world yaw [rad], and the head pitch toward it.
struct Bearing {
  float yaw = 0.0f;
  float pitch = 0.0f;
};

Bearing bearingOf(const Math::Transform& worldToTorso, const Model::TrackerHead& head,
                  const Math::Position3D& world) {
  const Math::Position3D inTorso = Math::pinv(worldToTorso) * world;
  const auto polar = Math::polar3DFromPosition3D(inTorso - head.headPosition);
  const float torsoYaw = Math::pose2DFromTransform(worldToTorso).theta;
  return {Math::modulo2PI(torsoYaw + std::get<1>(polar)), std::get<2>(polar)};
}

}  // namespace

const std::vector<float>& RoundSearcher::pitchRows() {
  static const std::vector<float> kRows{0.15f, 0.4f, -0.15f};
  return kRows;
}

RoundSearcher::RoundSearcher(const SimContext& context)
    : SimModule(Tracker::kRoundSearcherModule),
      fMemory(context.memory),
      fMotionService(context.motion),
      fWorld(context.world),
      fMotion(context.broker->getProxy("KRMotion", 0)),
      fFieldOfView(context.robot->getCameraHorizontalFov(context.world->getCameraEffector())),
      fLead(context.memory, context.clock, Namer::getNameLooker()) {
  context.robot->fillTrackerModel(fModel);
  fSubscriptions.push_back(fMemory->subscribe(
      Namer::getNameLost(), [this](const std::string&, const KRValue& v) { xOnLost(v); }));
  for (const std::string& found : {Namer::getNameDetected(), Namer::getNameStopSearch()}) {
    fSubscriptions.push_back(
        fMemory->subscribe(found, [this](const std::string&, const KRValue& v) { xOnFound(v); }));
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

void RoundSearcher::xOnLost(const KRValue& last) {
  std::optional<Math::Position3D> seen;
  try {
    if (last.isArray())
      seen = Tracker::types::TrackInfos(last).getWorldToObject3D();
  } catch (const std::exception&) {
    seen.reset();  // a loss without a usable sample: searched for as never seen
  }
  std::lock_guard<std::mutex> lock(fMutex);
  if (!fState.enabled || fState.searching) {
    return;
  }
  fLastSeen = seen;
  fState.searching = true;
  fState.haltPending = false;
  fState.phase = RoundSearcherState::Phase::Start;
  fState.step = 0;
  fState.turned = false;
  fState.alignPending = false;
}

void RoundSearcher::xOnFound(const KRValue& sample) {
  std::optional<Math::Position3D> at;
  try {
    if (sample.isArray())
      at = Tracker::types::TrackInfos(sample).getWorldToObject3D();
  } catch (const std::exception&) {
    at.reset();  // a stop without a target (StopSearch): nowhere to turn to
  }
  // Motion requests wait for the next update: this runs inside whoever raised the event.
  std::lock_guard<std::mutex> lock(fMutex);
  if (!fState.searching) {
    return;
  }
  fFoundAt = at;
  fState.searching = false;
  fState.haltPending = true;
  fState.endings.push_back("found");
}

void RoundSearcher::xHalt(bool found, KRTimePoint now, bool headLooking) {
  const bool moving = fState.turnSent || fState.baseMoving;
  fState.turnSent = false;
  fState.baseMoving = false;
  // Only under the head looker: a whole-body gaze turns the base itself once it is left to it.
  const std::optional<float> onto =
      found && fState.turned && fFoundAt && headLooking ? xTurnOnto(*fFoundAt) : std::nullopt;
  if (onto) {
    // Found at the edge of the head's reach while the base turns: the base turns on onto the
    // target without stopping, and the head recentres as the base catches up.
    fMotion->call<void>("moveTo", 0.0f, 0.0f, *onto);
  } else {
    if (moving)
      fMotion->call<void>("stopMove");
    if (found && fState.turned) {
      // A target found past the head's reach would stay out of it: the base turns under the
      // head once the lookers have taken over, unless a whole-body gaze turns it already.
      fState.alignPending = true;
      fState.alignAt = now + kAlignDelay;
    }
  }
  fFoundAt.reset();
  fState.turned = false;
  fState.gazeSent = false;  // the lookers' next command replaces a search gaze
}

std::optional<float> RoundSearcher::xTurnOnto(const Math::Position3D& target) const {
  const Math::Transform worldToTorso = fMotionService->getWorldToTorso();
  const float torsoYaw = Math::pose2DFromTransform(worldToTorso).theta;
  const float relative =
      Math::modulo2PI(bearingOf(worldToTorso, fModel.head, target).yaw - torsoYaw);
  const float limit = std::min(-fModel.head.yaw.min, fModel.head.yaw.max);
  if (std::fabs(relative) > limit - 0.5f * fFieldOfView)
    return relative;
  return std::nullopt;
}

void RoundSearcher::xEnd(const std::string& reason) {
  fState.searching = false;
  fState.endings.push_back(reason);
  xHalt(false, KRTimePoint{}, false);
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

void RoundSearcher::setHeadLooker(std::weak_ptr<const HeadLooker> looker) {
  std::lock_guard<std::mutex> lock(fMutex);
  fHeadLooker = std::move(looker);
}

RoundSearcherState RoundSearcher::snapshot() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fState;
}

// ---- the search ----------------------------------------------------------------------------

float RoundSearcher::xRowPitch() const {
  const auto& rows = pitchRows();
  float pitch = rows[static_cast<std::size_t>(fState.round) % rows.size()];
  Math::clipData(fModel.head.pitch.min, fModel.head.pitch.max, pitch);
  return pitch;
}

float RoundSearcher::xTorsoYaw() const {
  return Math::pose2DFromTransform(fMotionService->getWorldToTorso()).theta;
}

void RoundSearcher::xPlan(KRTimePoint now) {
  // The first stop: the lookers' last target (carried along the target's path through the
  // time-out); the side: the way it went from where it was last seen.
  const Math::Transform worldToTorso = fMotionService->getWorldToTorso();
  SearchPattern& p = fState.pattern;
  p.torsoYaw = Math::pose2DFromTransform(worldToTorso).theta;
  p.origin = Math::modulo2PI(p.torsoYaw + fMotionService->getAngle(fModel.head.yaw.name));
  p.side = 1;
  p.alternate = fLastSeen.has_value();
  p.view = fFieldOfView;
  p.canTurn = fMotionService->getBaseLimits().maxAngularSpeed > 0.0f;
  p.headLimit = std::min(-fModel.head.yaw.min, fModel.head.yaw.max);
  fState.pitch = xRowPitch();
  const auto lead = fLead.fresh(now, seconds(1.0));
  if (lead && fLastSeen) {
    const Bearing to = bearingOf(worldToTorso, fModel.head, lead->info.getWorldToObject3D());
    const Bearing from = bearingOf(worldToTorso, fModel.head, *fLastSeen);
    p.origin = to.yaw;
    fState.pitch = std::clamp(to.pitch, fModel.head.pitch.min, fModel.head.pitch.max);
    // A predicted place past the head's reach: the search starts at the reach on its side and
    // takes in what the head reaches before the base turns round toward it (the way the target
    // went). A target that went round the back while hidden may as well have turned back.
    const float offset = Math::modulo2PI(p.origin - p.torsoYaw);
    if (std::fabs(offset) > p.headLimit)
      p.origin = Math::modulo2PI(p.torsoYaw + std::copysign(p.headLimit, offset));
    const float went = Math::modulo2PI(to.yaw - from.yaw);
    p.side = std::fabs(went) > kMoved ? (went > 0.0f ? 1 : -1) : sideOfTheBack(p);
  } else if (fLastSeen) {
    const Bearing at = bearingOf(worldToTorso, fModel.head, *fLastSeen);
    p.origin = at.yaw;
    fState.pitch = std::clamp(at.pitch, fModel.head.pitch.min, fModel.head.pitch.max);
    p.side = sideOfTheBack(p);
  } else {
    p.side = sideOfTheBack(p);
  }
  // Steps of at most a field of view that divide the head's reach evenly: the last stop of
  // each side falls on the limit, none is wasted just short of it.
  const float widest = std::max(kStepOfView * fFieldOfView, 0.1f);
  p.step = p.headLimit / std::max(1.0f, std::ceil(p.headLimit / widest));
  fState.stops = p.stops(&fState.lastSide);
  fState.step = 0;
  // A gaze that already rests on the first stop has looked there: the search moves on.
  const float gaze = xTorsoYaw() + fMotionService->getAngle(fModel.head.yaw.name);
  if (std::fabs(Math::modulo2PI(gaze - p.origin)) < kArrived)
    fState.step = 1;
}

void RoundSearcher::xNextStop(KRTimePoint now) {
  if (fState.step >= static_cast<int>(fState.stops.size())) {
    // A round is over: the next looks at another height, from where this one ended.
    ++fState.round;
    if (!fState.pattern.canTurn && fState.round >= static_cast<int>(pitchRows().size())) {
      const float back = Math::modulo2PI(fState.pattern.origin - xTorsoYaw());
      fMotion->call<void>("setAngles",
                          std::vector<std::string>{fModel.head.yaw.name, fModel.head.pitch.name},
                          std::vector<float>{back, xRowPitch()}, fState.fraction);
      xEnd("exhausted");
      return;
    }
    if (fState.pattern.canTurn) {
      xTurnRound(now);
      return;
    }
    fState.pattern.origin = fState.stops.back();
    fState.pattern.torsoYaw = xTorsoYaw();
    fState.stops = fState.pattern.stops(&fState.lastSide);
    fState.step = 0;
    fState.pitch = xRowPitch();
  }
  const float gaze = fState.stops[static_cast<std::size_t>(fState.step)];
  ++fState.step;
  // The head takes what it reaches; the base turns the rest, the head leading meanwhile.
  const Model::TrackerJoint& yaw = fModel.head.yaw;
  float relative = Math::modulo2PI(gaze - xTorsoYaw());
  const float way = static_cast<float>(fState.pattern.turn());
  if (fState.step == static_cast<int>(fState.stops.size()) && relative * way < 0.0f &&
      std::fabs(relative) > fState.pattern.headLimit)
    relative += way * 2.0f * Math::kPi;  // round the back the search's way, however far
  float head = relative;
  Math::clipData(yaw.min, yaw.max, head);
  if (head != relative && fState.pattern.canTurn) {
    fMotion->call<void>("moveTo", 0.0f, 0.0f, relative - head);
    fState.turnSent = true;
    fState.turned = true;
  } else if (fState.pattern.canTurn && fState.step == static_cast<int>(fState.lastSide) + 1 &&
             fState.stops.size() > fState.lastSide) {
    // The last side's sweep starts: the base sets off at once toward the back, under the
    // head, so that the back comes within the head's reach as that side is searched.
    float back = Math::modulo2PI(fState.stops.back() - xTorsoYaw());
    if (back * way < 0.0f)
      back += way * 2.0f * Math::kPi;  // the back is reached going that way round
    const float backTurn = back - way * fState.pattern.headLimit;
    if (backTurn * way > 0.0f) {
      fMotion->call<void>("moveTo", 0.0f, 0.0f, backTurn);
      fState.baseMoving = true;
      fState.turned = true;
    }
  }
  fMotion->call<void>("setAngles", std::vector<std::string>{yaw.name, fModel.head.pitch.name},
                      std::vector<float>{head, fState.pitch}, fState.fraction);
  fState.headYaw = head;
  fState.phase = RoundSearcherState::Phase::Move;
  // Safety bound on the move: the head at its speed, the base at its own, with margin.
  const float speed = fState.fraction * std::max(yaw.maxVelocity, 0.1f);
  const float omega = std::max(fMotionService->getBaseLimits().maxAngularSpeed, 0.1f);
  fState.phaseEnd =
      now + seconds(2.0 * Math::kPi / speed + std::fabs(relative - head) / omega + 2.0);
}

void RoundSearcher::xTurnRound(KRTimePoint now) {
  // After the first round, where the robot can turn: a whole turn of the base on the way the
  // last one went, the head leading at its reach, so that what was seen longest ago comes
  // first and a target moving round the robot meanwhile is met.
  const float way = static_cast<float>(fState.pattern.turn());
  const float omega = std::max(fMotionService->getBaseLimits().maxAngularSpeed, 0.1f);
  fState.pitch = xRowPitch();
  fState.headYaw = way * fState.pattern.headLimit;
  fMotion->call<void>("setAngles",
                      std::vector<std::string>{fModel.head.yaw.name, fModel.head.pitch.name},
                      std::vector<float>{fState.headYaw, fState.pitch}, fState.fraction);
  fMotion->call<void>("move", 0.0f, 0.0f, way * omega);
  fState.turnSent = true;
  fState.turned = true;
  fState.phase = RoundSearcherState::Phase::Turn;
  // The turn's time, with its acceleration and the head's first move.
  fState.phaseEnd = now + seconds(2.0 * Math::kPi / omega + 1.0);
}

void RoundSearcher::xAlign() {
  fState.alignPending = false;
  if (fMotionService->isWholeBodyGazeActive())
    return;
  const float headYaw = fMotionService->getAngle(fModel.head.yaw.name);
  const float limit = std::min(-fModel.head.yaw.min, fModel.head.yaw.max);
  if (std::fabs(headYaw) > limit - 0.5f * fFieldOfView)
    fMotion->call<void>("moveTo", 0.0f, 0.0f, headYaw);
}

void RoundSearcher::xArrive(KRTimePoint now) {
  const bool turning = fState.turnSent && fMotion->call<bool>("moveIsActive");
  const float yawError = std::fabs(fMotionService->getAngle(fModel.head.yaw.name) - fState.headYaw);
  if ((turning || yawError > kArrived) && now < fState.phaseEnd)
    return;
  fState.turnSent = false;
  const CameraConfig camera = fWorld->getPerception();
  fState.phase = RoundSearcherState::Phase::Dwell;
  fState.phaseEnd = now + seconds(searchDwell(camera.cameraRateHz, camera.latencyS));
}

void RoundSearcher::xNextGaze(KRTimePoint now) {
  const int stepsPerRound = static_cast<int>(std::ceil(2.0f * Math::kPi / kWholeBodyStep));
  fState.round = fState.step / stepsPerRound;
  fMotion->call<void>("_lookAtWb", xRowPitch(),
                      static_cast<float>(fState.pattern.side) * kWholeBodyStep);
  fState.gazeSent = true;
  ++fState.step;
  const float omega = std::max(fMotionService->getBaseLimits().maxAngularSpeed, 0.1f);
  const CameraConfig camera = fWorld->getPerception();
  fState.phaseEnd =
      now + seconds(kWholeBodyStep / omega + searchDwell(camera.cameraRateHz, camera.latencyS));
}

void RoundSearcher::update(KRTimePoint now) {
  // The head looker is asked outside this module's lock: no lock is ever held across both.
  std::shared_ptr<const HeadLooker> head;
  {
    std::lock_guard<std::mutex> lock(fMutex);
    head = fHeadLooker.lock();
  }
  const bool headLooking = head && head->snapshot().running;
  std::vector<std::pair<std::string, KRValue>> raised;
  {
    std::lock_guard<std::mutex> lock(fMutex);
    if (fState.haltPending) {
      fState.haltPending = false;
      xHalt(true, now, headLooking);
    }
    if (fState.alignPending && now >= fState.alignAt && !fState.searching)
      xAlign();
    if (fState.enabled && fState.searching) {
      switch (fState.phase) {
        case RoundSearcherState::Phase::Start:
          raised.emplace_back(kSearchStarted, KRValue());
          xPlan(now);
          if (fState.useWholeBody) {
            fState.phase = RoundSearcherState::Phase::Gaze;
            xNextGaze(now);
          } else {
            xNextStop(now);
          }
          break;
        case RoundSearcherState::Phase::Move:
          xArrive(now);
          break;
        case RoundSearcherState::Phase::Dwell:
          if (now >= fState.phaseEnd)
            xNextStop(now);
          break;
        case RoundSearcherState::Phase::Turn:
          if (now >= fState.phaseEnd) {
            ++fState.round;
            xTurnRound(now);
          }
          break;
        case RoundSearcherState::Phase::Gaze:
          if (now >= fState.phaseEnd)
            xNextGaze(now);
          break;
      }
    }
    for (const auto& reason : fState.endings)
      raised.emplace_back(kSearchEnded, KRValue(reason));
    fState.endings.clear();
  }
  // Events are raised outside the lock: subscribers may call back.
  for (const auto& [name, value] : raised)
    fMemory->raiseEvent(name, value);
}

}  // namespace Sim
}  // namespace KR
