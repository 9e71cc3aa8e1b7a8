#include <krsim/world/world.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include <kr/error.h>

namespace KR {
namespace Sim {

namespace {
constexpr float kDefaultHearingRange = 5.0f;  // [m]
}

int World::defaultPeriodMs(const std::string& kind) {
  if (kind == "RedBall" || kind == "Face")
    return 50;
  if (kind == "Sound")
    return 200;
  return 100;
}

World::World(std::shared_ptr<const SimClock> clock, std::shared_ptr<SimMemory> memory,
             std::shared_ptr<SimMotion> motion, std::uint32_t seed)
    : fClock(std::move(clock)),
      fMemory(std::move(memory)),
      fMotion(std::move(motion)),
      fCamera(fMotion, seed) {}

void World::addTarget(TargetScript script) {
  std::lock_guard<std::mutex> lock(fMutex);
  for (const auto& t : fTargets) {
    if (t.script.name == script.name) {
      throw KRError("World", "addTarget", "a target is already named " + script.name);
    }
  }
  Target target;
  target.state.name = script.name;
  target.state.kind = script.kind;
  target.state.position = script.path.at(fClock->seconds());
  target.script = std::move(script);
  fTargets.push_back(std::move(target));
}

std::vector<TargetScript> World::targets() const {
  std::lock_guard<std::mutex> lock(fMutex);
  std::vector<TargetScript> out;
  for (const auto& t : fTargets)
    out.push_back(t.script);
  return out;
}

Math::Position3D World::targetPosition(const std::string& name, double time) const {
  std::lock_guard<std::mutex> lock(fMutex);
  for (const auto& t : fTargets) {
    if (t.script.name == name)
      return t.script.path.at(time);
  }
  throw KRError("World", "targetPosition", "no target named " + name);
}

std::vector<TargetState> World::states() const {
  std::lock_guard<std::mutex> lock(fMutex);
  std::vector<TargetState> out;
  for (const auto& t : fTargets)
    out.push_back(t.state);
  return out;
}

TargetState World::state(const std::string& name) const {
  std::lock_guard<std::mutex> lock(fMutex);
  for (const auto& t : fTargets) {
    if (t.script.name == name)
      return t.state;
  }
  throw KRError("World", "state", "no target named " + name);
}

void World::setNoise(float sigma) {
  std::lock_guard<std::mutex> lock(fMutex);
  fCamera.setMapNoise(sigma);
}

void World::setPerception(const CameraConfig& perception) {
  std::lock_guard<std::mutex> lock(fMutex);
  fCamera.setConfig(perception);
}

CameraConfig World::getPerception() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fCamera.config();
}

void World::setCameraEffector(int effector) {
  std::lock_guard<std::mutex> lock(fMutex);
  fCamera.setEffector(effector);
}

int World::getCameraEffector() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fCamera.effector();
}

void World::startPublishing(const std::string& kind, std::vector<std::string> eventNames) {
  for (const auto& name : eventNames)
    fMemory->setKeepValues(name, false);
  std::lock_guard<std::mutex> lock(fMutex);
  Publication& p = fPublications[kind];
  p.eventNames = std::move(eventNames);
  p.nextDueNs = -1;  // at the next update, then every period from there
}

void World::stopPublishing(const std::string& kind) {
  std::lock_guard<std::mutex> lock(fMutex);
  fPublications.erase(kind);
}

void World::stopPublishingAll() {
  std::lock_guard<std::mutex> lock(fMutex);
  fPublications.clear();
}

std::map<std::string, std::vector<std::string>> World::publishing() const {
  std::lock_guard<std::mutex> lock(fMutex);
  std::map<std::string, std::vector<std::string>> out;
  for (const auto& p : fPublications)
    out[p.first] = p.second.eventNames;
  return out;
}

void World::setPeriodMs(const std::string& kind, int periodMs) {
  if (periodMs <= 0) {
    throw KRError("World", "setPeriodMs",
                  "the period must be positive, not " + std::to_string(periodMs) + " ms");
  }
  std::lock_guard<std::mutex> lock(fMutex);
  fPeriodsMs[kind] = periodMs;
}

int World::getPeriodMs(const std::string& kind) const {
  std::lock_guard<std::mutex> lock(fMutex);
  return xPeriodMs(kind);
}

int World::xPeriodMs(const std::string& kind) const {
  const auto it = fPeriodsMs.find(kind);
  return it != fPeriodsMs.end() ? it->second : defaultPeriodMs(kind);
}

std::vector<std::string> World::kinds() const {
  std::lock_guard<std::mutex> lock(fMutex);
  std::vector<std::string> out;
  for (const auto& t : fTargets) {
    if (std::find(out.begin(), out.end(), t.script.kind) == out.end())
      out.push_back(t.script.kind);
  }
  return out;
}

bool World::isInFieldOfView(const Math::Position3D& mapPoint, float range) const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fCamera.isInFieldOfView(mapPoint, range);
}

std::optional<KRValue> World::xMakeEvent(const Detection& detection) const {
  // Converted with the pose of the moment of publication (see the header).
  const TargetScript& script = fTargets[detection.target].script;
  const Math::Transform mapToObject = Math::transformFromPosition3D(
      fMotion->getMapToHeadEffector(detection.effector) * detection.cameraToObject);
  int sec = 0;
  int usec = 0;
  SimClock::split(detection.captured, sec, usec);
  const KRValue stamp{KRValue(sec), KRValue(usec)};
  // One or two poses of six floats: FRAME_WORLD, or the torso and the robot frame.
  std::vector<std::vector<float>> poses;
  if (script.layout == Layout::World) {
    poses.push_back(
        Math::position6DFromTransform(Math::pinv(fMotion->getMapToOdometry()) * mapToObject)
            .toVector());
  } else {
    const Math::Transform torsoToObject = Math::pinv(fMotion->getMapToTorso()) * mapToObject;
    poses.push_back(Math::position6DFromTransform(torsoToObject).toVector());
    poses.push_back(
        Math::position6DFromTransform(
            Math::Transform::fromPosition(0.0f, 0.0f, fMotion->robot().getTorsoHeight()) *
            torsoToObject)
            .toVector());
  }
  KRValue::Array event;
  for (const auto& pose : poses) {
    if (!std::all_of(pose.begin(), pose.end(), [](float v) { return std::isfinite(v); }))
      return std::nullopt;
    event.push_back(KRValue(pose));
  }
  event.push_back(stamp);
  event.push_back(KRValue(detection.effector));
  if (script.headThreshold >= 0.0f)
    event.push_back(KRValue(script.headThreshold));
  return KRValue(std::move(event));
}

void World::update() {
  std::vector<std::pair<std::string, KRValue>> events;
  {
    std::lock_guard<std::mutex> lock(fMutex);
    const double t = fClock->seconds();
    const KRTimePoint now = fClock->now();
    const Camera::View view = fCamera.view();
    xMoveTargets(t, view);
    const std::int64_t elapsed = fClock->elapsed().count();
    if (fCamera.frameDue(elapsed)) {
      for (auto& entry : fPublications)
        xPublish(entry.first, entry.second, view, now, elapsed);
    }
    xDeliver(elapsed, events);
  }
  for (const auto& e : events)
    fMemory->raiseEvent(e.first, e.second);
}

// Each target to its place at time t [s], seen (or heard) from where the camera is.
void World::xMoveTargets(double t, const Camera::View& view) {
  for (auto& target : fTargets) {
    TargetState& s = target.state;
    s.position = target.script.path.at(t);
    if (target.script.heard) {
      const float range =
          target.script.maxRange > 0.0f ? target.script.maxRange : kDefaultHearingRange;
      s.inFieldOfView = Math::distance(s.position, view.position()) <= range;
    } else {
      const float range = target.script.maxRange > 0.0f ? target.script.maxRange : fCamera.range();
      s.inFieldOfView = view.inFieldOfView(s.position, range);
    }
    const bool hidden = std::any_of(target.script.hidden.begin(), target.script.hidden.end(),
                                    [t](const TimeInterval& i) { return i.contains(t); });
    s.perceived = s.inFieldOfView && !hidden;
  }
}

// On a camera frame: when the kind's period is due, its nearest perceived target (every
// landmark, each under its own event name) goes to the camera's detector.
void World::xPublish(const std::string& kind, Publication& pub, const Camera::View& view,
                     KRTimePoint now, std::int64_t elapsed) {
  if (elapsed < pub.nextDueNs)
    return;
  const std::int64_t period = static_cast<std::int64_t>(xPeriodMs(kind)) * 1000000;
  pub.nextDueNs = pub.nextDueNs < 0 ? elapsed + period : pub.nextDueNs + period;
  if (pub.nextDueNs <= elapsed)
    pub.nextDueNs = elapsed + period;
  if (kind == "LandMarks") {
    std::size_t index = 0;
    for (std::size_t i = 0; i < fTargets.size(); ++i) {
      if (fTargets[i].script.kind != kind)
        continue;
      if (index < pub.eventNames.size() && fTargets[i].state.perceived)
        fCamera.detect(view, fTargets[i].state.position, now, elapsed, i, pub.eventNames[index]);
      ++index;
    }
    return;
  }
  std::size_t nearest = fTargets.size();
  float best = std::numeric_limits<float>::max();
  for (std::size_t i = 0; i < fTargets.size(); ++i) {
    const Target& target = fTargets[i];
    if (target.script.kind != kind || !target.state.perceived)
      continue;
    const float d = Math::distance(target.state.position, view.position());
    if (d < best) {
      best = d;
      nearest = i;
    }
  }
  if (nearest < fTargets.size() && !pub.eventNames.empty()) {
    fCamera.detect(view, fTargets[nearest].state.position, now, elapsed, nearest,
                   pub.eventNames.front());
  }
}

// The detections delivered by now become events, but for kinds no longer published.
void World::xDeliver(std::int64_t elapsed, std::vector<std::pair<std::string, KRValue>>& events) {
  for (const Detection& d : fCamera.deliver(elapsed)) {
    bool wanted = false;
    for (const auto& p : fPublications) {
      wanted = wanted || std::find(p.second.eventNames.begin(), p.second.eventNames.end(),
                                   d.eventName) != p.second.eventNames.end();
    }
    if (!wanted)
      continue;
    if (auto event = xMakeEvent(d))
      events.emplace_back(d.eventName, std::move(*event));
  }
}

}  // namespace Sim
}  // namespace KR
