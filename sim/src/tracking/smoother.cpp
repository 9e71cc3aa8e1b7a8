#include <krsim/tracking/smoother.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include <kr/error.h>
#include <kr/math/math.h>

#include <krtracker/config/krgenerictrackerconfig.h>
#include <krtracker/generictracker/submodules.h>
#include <krtracker/tools/namer/namer.h>
#include <krtracker/tools/tools.h>

#include <krsim/tracking/config_reads.h>
#include <krsim/tracking/landmark_pose.h>
#include <krsim/tracking/target_manager.h>
#include <krsim/tracking/track_infos_edit.h>

namespace KR {
namespace Sim {

using Tracker::Namer;
using Tracker::types::TrackInfos;

namespace {

constexpr const char* kInputLogFile = "Smoother_input.txt";

std::vector<std::string> eventsFrom(const std::vector<KRValue>& args, const char* method) {
  if (args.empty() || args.size() > 2) {
    throw KRError(Tracker::kSmootherModule, method, "expects one event name or two.");
  }
  std::vector<std::string> events;
  for (const auto& a : args) {
    if (!a.isString() || a.asString().empty()) {
      throw KRError(Tracker::kSmootherModule, method, "event names must be non-empty strings.");
    }
    events.push_back(a.asString());
  }
  return events;
}

KRTimePoint timeOf(const TrackInfos& info) {
  return KRTimePoint(std::chrono::nanoseconds(info.getTimestamp()));
}

const char* const kCameraNames[] = {"CameraTop", "CameraBottom", "DepthCamera"};

bool isFinite(const Math::Position6D& p) {
  for (float v : p.toVector()) {
    if (!std::isfinite(v))
      return false;
  }
  return true;
}

/// Clock time as the filter's seconds.
double filterTime(KRTimePoint t) {
  return std::chrono::duration<double>(t.time_since_epoch()).count();
}

/// Appends an accepted observation to the input log, created with its header on the first.
void logInputData(const TrackInfos& info, bool first) {
  const std::string path = Tracker::getLogDirectory() + kInputLogFile;
  if (first) {
    Tracker::createLogFile(path);
  }
  Tracker::logToFile(path, info.toString(" ", first), Tracker::kSmootherModule);
}

}  // namespace

Smoother::Smoother(const SimContext& context, std::shared_ptr<const TargetManager> targets)
    : SimModule(Tracker::kSmootherModule),
      fClock(context.clock),
      fMemory(context.memory),
      fMotion(context.broker->getProxy("KRMotion", 0)),
      fTargets(std::move(targets)),
      fCompensation(context.compensation),
      fMaxDistance(std::numeric_limits<float>::max()) {
  // High-rate publications: counted in the memory's history, values not kept.
  fMemory->setKeepValues(Namer::getNameLooker(), false);
  fMemory->setKeepValues(Namer::getNameMove(), false);

  bindRaw("startEvent", [this](const std::vector<KRValue>& args) {
    startEvent(eventsFrom(args, "startEvent"));
    return KRValue();
  });
  bindRaw("restart", [this](const std::vector<KRValue>& args) {
    restart(eventsFrom(args, "restart"));
    return KRValue();
  });
  bind("stopSmoother", &Smoother::stopSmoother, this);
  bind("setTarget", &Smoother::setTarget, this);
  bind("setTargetIds", &Smoother::setTargetIds, this);
  bind("setMap", &Smoother::setMap, this);
  bind("setMaxDistance", &Smoother::setMaxDistance, this);
  bind("setTimeOut", &Smoother::setTimeOut, this);
  bind("getTimeOut", &Smoother::getTimeOut, this);
  bind("_setMoveEvent", &Smoother::setMoveEvent, this);
  bind("_setMoveHysteresis", &Smoother::setMoveHysteresis, this);
  bind("_getMoveHysteresis", &Smoother::getMoveHysteresis, this);
  bind("_raiseSearchEvent", &Smoother::raiseSearchEvent, this);
  bind("getPosition", &Smoother::getPosition, this);
  bind("exit", &Smoother::exit, this);
}

Smoother::~Smoother() {
  std::lock_guard<std::mutex> lock(fMutex);
  xUnsubscribeAll();
}

// ---- following events ----------------------------------------------------------------------

void Smoother::xUnsubscribeAll() {
  for (const auto& t : fTracks) {
    fMemory->unsubscribe(t.subscription);
  }
  fTracks.clear();
  ++fGeneration;
}

void Smoother::xSubscribe(const std::vector<std::string>& events) {
  xUnsubscribeAll();
  const int generation = fGeneration;
  for (std::size_t i = 0; i < events.size(); ++i) {
    Track track;
    track.event = events[i];
    track.subscription = fMemory->subscribe(
        events[i], [this, generation, i](const std::string& name, const KRValue& value) {
          xOnEvent(generation, i, name, value);
        });
    fTracks.push_back(track);
  }
  xAssignLandmarkIds();
  fStartTime = fClock->now();
  fEverSeen = false;
  fLastMove.reset();
  fMoveAtRest = false;
  fRunning = true;
}

void Smoother::startEvent(const std::vector<std::string>& events) {
  std::lock_guard<std::mutex> lock(fMutex);
  xSubscribe(events);
  fLost = false;
  fLastSample.reset();
}

void Smoother::restart(const std::vector<std::string>& events) {
  // A new target while running: the lost state stays, so that the new target's first
  // observation announces it as detected to a searcher that is still looking.
  std::lock_guard<std::mutex> lock(fMutex);
  xSubscribe(events);
}

void Smoother::stopSmoother() {
  std::lock_guard<std::mutex> lock(fMutex);
  xUnsubscribeAll();
  fRunning = false;
  fLost = false;
  fLastMove.reset();
}

void Smoother::exit() {
  stopSmoother();
}

void Smoother::xAssignLandmarkIds() {
  for (std::size_t i = 0; i < fTracks.size(); ++i) {
    fTracks[i].landmarkId = -1;
    for (int id : fLandmarkIds) {
      if (id >= 0 && fTracks[i].event == Namer::getInstance().getName(id)) {
        fTracks[i].landmarkId = id;
      }
    }
    // Events named otherwise take the ids in the order given.
    if (fTracks[i].landmarkId < 0 && i < fLandmarkIds.size()) {
      fTracks[i].landmarkId = fLandmarkIds[i];
    }
  }
}

std::optional<TrackInfos> Smoother::xObservation(const std::string& name, const KRValue& value) {
  TrackInfos info;
  if (!Tracker::tools::convertTrackerEventToTrackInfo(value, Tracker::kSmootherModule, name,
                                                      fMotion, info)) {
    return std::nullopt;  // logged by the conversion
  }
  if (!eventCarriesHeadThreshold(value)) {
    info = withHeadThreshold(
        info, headThresholdForKind(fTargets ? fTargets->kindOfEvent(name) : std::string()));
  }
  if (fCompensation) {
    // Converted with the camera of the delivery: put back where the camera was at capture.
    const char* camera =
        kCameraNames[std::clamp(info.getTrackEffector(), 0, Model::kTrackEffectorCount - 1)];
    const Math::Transform atCapture =
        Tracker::tools::getSensorTransform(*fMotion, camera, timeOf(info));
    const Math::Transform atDelivery =
        Tracker::tools::getSensorTransform(*fMotion, camera, fClock->now());
    const Math::Transform worldToObject = atCapture * Math::pinv(atDelivery) *
                                          Math::transformFromPosition6D(info.getWorldToObject6D());
    info = withPose(info, Math::position6DFromTransform(worldToObject), timeOf(info));
  }
  if (!isFinite(info.getWorldToObject6D()) || !std::isfinite(info.getDistance())) {
    return std::nullopt;  // never handed on
  }
  return info;
}

void Smoother::xOnEvent(int generation, std::size_t index, const std::string& name,
                        const KRValue& value) {
  const std::optional<TrackInfos> info = xObservation(name, value);
  if (!info) {
    return;
  }
  const bool logInput = configSwitch(Tracker::LOG_INPUT_DATA);
  bool detected = false;
  bool logFirst = false;
  {
    std::lock_guard<std::mutex> lock(fMutex);
    if (!fRunning || generation != fGeneration || index >= fTracks.size()) {
      return;
    }
    if (info->getDistance() > fMaxDistance) {
      return;
    }
    detected = xFile(fTracks[index], *info);
    logFirst = fLogInputFirst;
    if (logInput) {
      fLogInputFirst = false;
    }
  }
  if (detected) {
    xRaise(Namer::getNameDetected(), info->toKRValue());
  }
  if (logInput) {
    logInputData(*info, logFirst);
  }
}

bool Smoother::xFile(Track& track, const TrackInfos& info) {
  const KRTimePoint time = timeOf(info);
  track.filter.update(filterTime(time), info.getWorldToObject3D());
  track.hasSample = true;
  track.last = info;
  track.lastTime = std::max(track.lastTime, time);
  fEverSeen = true;
  fLastSample = info;
  if (!fLost) {
    return false;
  }
  fLost = false;
  return true;
}

void Smoother::xRaise(const std::string& name, const KRValue& value) {
  fMemory->raiseEvent(name, value);
}

// ---- the periodic loop ---------------------------------------------------------------------

void Smoother::update(KRTimePoint now) {
  Events events;
  {
    std::lock_guard<std::mutex> lock(fMutex);
    if (!fRunning) {
      return;
    }
    KRTimePoint lastSeen = fStartTime;
    const Track* latest = xLatest(lastSeen);
    // A target never seen is lost at once, so that the search for it starts at once; one
    // that was seen, after the time-out.
    const bool timedOut = !fEverSeen || now - lastSeen > std::chrono::milliseconds(fTimeOutMs);
    if (!fLost && timedOut) {
      fLost = true;
      events.emplace_back(Namer::getNameLost(), fLastSample ? fLastSample->toKRValue() : KRValue());
    }
    if (!fLost && latest != nullptr) {
      xPublish(*latest, now, events);
    }
  }
  for (const auto& e : events) {
    xRaise(e.first, e.second);
  }
}

const Smoother::Track* Smoother::xLatest(KRTimePoint& lastSeen) const {
  const Track* latest = nullptr;
  for (const auto& t : fTracks) {
    if (!t.hasSample) {
      continue;
    }
    lastSeen = std::max(lastSeen, t.lastTime);
    if (latest == nullptr || t.lastTime > latest->lastTime) {
      latest = &t;
    }
  }
  return latest;
}

void Smoother::xPublish(const Track& latest, KRTimePoint now, Events& events) {
  // With compensation, the lookers get where the target will be when a joint command sent
  // now takes effect, the movers where it is now; without, both get the filtered estimate
  // at its last measurement.
  const ConstantVelocityFilter& f = latest.filter;
  const Math::Position6D last = latest.last.getWorldToObject6D();
  // Once the target is out of sight for longer than a prediction covers, the lookers follow
  // its path through the time-out if it was moving, and rest where it vanished if it was not.
  const double coast = std::chrono::duration<double>(now - latest.lastTime).count();
  const double horizon =
      coast > f.gains().maxPrediction && std::hypot(f.velocity().x, f.velocity().y) >= kRestSpeed
          ? fTimeOutMs / 1000.0
          : f.gains().maxPrediction;
  auto at = [&](KRTimePoint t) {
    const Math::Position3D p = fCompensation ? f.predict(filterTime(t), horizon) : f.position();
    return Math::Position6D(p.x, p.y, p.z, last.wx, last.wy, last.wz);
  };
  const bool predicting =
      now - latest.lastTime < std::chrono::duration_cast<std::chrono::nanoseconds>(
                                  std::chrono::duration<double>(f.gains().maxPrediction));
  events.emplace_back(Namer::getNameLooker(),
                      withPose(latest.last, at(now + kCommandLead), now).toKRValue());
  const Math::Position6D pose = at(now);
  const Math::Position3D velocity = predicting ? f.velocity() : Math::Position3D();
  xPublishMove(pose, velocity, withPose(latest.last, pose, now).toKRValue(), events);
}

void Smoother::xPublishMove(const Math::Position6D& pose, const Math::Position3D& velocity,
                            const KRValue& sample, Events& events) {
  // A moving target is published in steps of the hysteresis; where it comes to rest is
  // published once more, so that the movers do not stop short of it.
  const bool resting = std::hypot(velocity.x, velocity.y) < kRestSpeed;
  const bool moved = !fLastMove || std::fabs(pose.x - fLastMove->x) > fMoveHysteresis[0] ||
                     std::fabs(pose.y - fLastMove->y) > fMoveHysteresis[1] ||
                     std::fabs(Math::modulo2PI(pose.wz - fLastMove->wz)) > fMoveHysteresis[2];
  bool settled = false;  // has just come to rest: its velocity is news to the movers
  if (!moved) {
    settled = resting && !fMoveAtRest;
    fMoveAtRest = resting;
  }
  if (!moved && !settled) {
    return;
  }
  fMoveAtRest = resting;
  fLastMove = pose;
  const KRValue move{
      sample, KRValue(std::vector<float>(fRelativePosition.begin(), fRelativePosition.end())),
      KRValue(velocity.toVector())};
  events.emplace_back(Namer::getNameMove(), move);
  if (!fMoveEvent.empty()) {
    events.emplace_back(fMoveEvent, move);
  }
}

// ---- settings ------------------------------------------------------------------------------

void Smoother::setTarget(const KRValue& relativePosition) {
  if (!relativePosition.isArray() || relativePosition.size() < 3) {
    throw KRError(Tracker::kSmootherModule, "setTarget",
                  "Expected [coordX, coordY, coordWz, thresholdX, thresholdY, thresholdWz].");
  }
  std::array<float, 6> values{};
  for (std::size_t i = 0; i < values.size() && i < relativePosition.size(); ++i) {
    if (!relativePosition[i].isNumber()) {
      throw KRError(Tracker::kSmootherModule, "setTarget",
                    "the relative position must hold numbers.");
    }
    values[i] = relativePosition[i].asFloat();
  }
  std::lock_guard<std::mutex> lock(fMutex);
  fRelativePosition = values;
  fLastMove.reset();  // the movers get the new relative position at once
}

void Smoother::setTargetIds(int id0, int id1) {
  std::lock_guard<std::mutex> lock(fMutex);
  fLandmarkIds = {{id0, id1}};
  xAssignLandmarkIds();
}

void Smoother::setMap(const KRValue& map) {
  const char* kFormat = "The map must be [[id0, [x, y, z]], [id1, [x, y, z]]].";
  if (!map.isArray()) {
    throw KRError(Tracker::kSmootherModule, "setMap", kFormat);
  }
  std::map<int, Math::Position3D> parsed;
  for (std::size_t i = 0; i < map.size(); ++i) {
    const KRValue& entry = map[i];
    if (!entry.isArray() || entry.size() != 2 || !entry[0].isInt() || !entry[1].isArray() ||
        entry[1].size() < 2 || entry[1].size() > 3) {
      throw KRError(Tracker::kSmootherModule, "setMap", kFormat);
    }
    std::vector<float> xyz;
    for (std::size_t k = 0; k < entry[1].size(); ++k) {
      if (!entry[1][k].isNumber()) {
        throw KRError(Tracker::kSmootherModule, "setMap", kFormat);
      }
      xyz.push_back(entry[1][k].asFloat());
    }
    parsed[entry[0].asInt()] = Math::Position3D(xyz);
  }
  std::lock_guard<std::mutex> lock(fMutex);
  fMap = std::move(parsed);
}

void Smoother::setMaxDistance(float distance) {
  if (!(distance > 0.0f)) {
    throw KRError(Tracker::kSmootherModule, "setMaxDistance",
                  "The distance must be strictly positive.");
  }
  std::lock_guard<std::mutex> lock(fMutex);
  fMaxDistance = distance;
}

void Smoother::setTimeOut(int timeOutMs) {
  if (timeOutMs <= 0) {
    throw KRError(
        Tracker::kSmootherModule, "setTimeOut",
        "The time-out must be strictly positive, not " + std::to_string(timeOutMs) + " ms.");
  }
  std::lock_guard<std::mutex> lock(fMutex);
  fTimeOutMs = timeOutMs;
}

int Smoother::getTimeOut() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fTimeOutMs;
}

void Smoother::setMoveEvent(const std::string& eventName) {
  std::lock_guard<std::mutex> lock(fMutex);
  fMoveEvent = eventName;
}

void Smoother::setMoveHysteresis(const std::vector<float>& hysteresis) {
  if (hysteresis.size() != 3 ||
      std::any_of(hysteresis.begin(), hysteresis.end(), [](float h) { return !(h >= 0.0f); })) {
    throw KRError(Tracker::kSmootherModule, "_setMoveHysteresis",
                  "Expected three non-negative values [x, y, theta].");
  }
  std::lock_guard<std::mutex> lock(fMutex);
  fMoveHysteresis = hysteresis;
}

std::vector<float> Smoother::getMoveHysteresis() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fMoveHysteresis;
}

void Smoother::raiseSearchEvent() {
  KRValue last;
  {
    std::lock_guard<std::mutex> lock(fMutex);
    if (!fRunning || !fLost) {
      return;  // nothing to search for
    }
    last = fLastSample ? fLastSample->toKRValue() : KRValue();
  }
  xRaise(Namer::getNameLost(), last);
}

KRValue Smoother::getPosition() {
  std::array<Math::Position3D, 2> observed;
  std::array<Math::Position3D, 2> mapped;
  {
    std::lock_guard<std::mutex> lock(fMutex);
    if (fTracks.size() != 2) {
      return KRValue();
    }
    for (std::size_t i = 0; i < 2; ++i) {
      const Track& t = fTracks[i];
      const auto inMap = fMap.find(t.landmarkId);
      if (!t.hasSample || inMap == fMap.end()) {
        return KRValue();
      }
      observed[i] = t.filter.position();
      mapped[i] = inMap->second;
    }
  }
  // Landmarks seen from the robot, against their map positions.
  const Math::Transform robotToWorld =
      Math::pinv(Tracker::tools::getWorldToRobotTransform(fMotion));
  const auto pose =
      robotPoseFromLandmarks({robotToWorld * observed[0], robotToWorld * observed[1]}, mapped);
  if (!pose) {
    return KRValue();
  }
  return KRValue(std::vector<float>{pose->x, pose->y, 0.0f, 0.0f, 0.0f, pose->theta});
}

// ---- state ---------------------------------------------------------------------------------

Smoother::Status Smoother::snapshot() const {
  std::lock_guard<std::mutex> lock(fMutex);
  Status status{fRunning, fLost, {}, fRelativePosition, fMaxDistance};
  for (const auto& t : fTracks) {
    status.events.push_back(t.event);
  }
  return status;
}

}  // namespace Sim
}  // namespace KR
