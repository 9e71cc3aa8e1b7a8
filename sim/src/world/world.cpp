#include <krsim/world/world.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include <kr/error.h>
#include <kr/model/trackermodel.h>

namespace KR {
namespace Sim {

void CameraConfig::validate() const {
  if (!(cameraRateHz >= 0.0) || !(latencyS >= 0.0) || !(dropout >= 0.0 && dropout <= 1.0) ||
      !(angleNoise >= 0.0f) || !(distanceNoise >= 0.0f)) {
    throw KRError("World", "setPerception",
                  "the camera rate, latency and noise must not be negative and the dropout must "
                  "lie in [0, 1]");
  }
}

namespace {
constexpr float kDefaultHearingRange = 5.0f;  // [m]

/// A point in the camera's frame lies in its cone and range.
bool inCameraView(const Math::Position3D& local, const Model::Robot& robot, float range) {
  return local.x > 0.0f && local.norm() <= range &&
         std::fabs(std::atan2(local.y, local.x)) <= 0.5f * robot.getCameraHorizontalFov() &&
         std::fabs(std::atan2(local.z, std::hypot(local.x, local.y))) <=
             0.5f * robot.getCameraVerticalFov();
}
}  // namespace

// ---- Path ------------------------------------------------------------------------------

Path::Path(std::vector<Keyframe> keyframes) : fKeyframes(std::move(keyframes)) {
  for (std::size_t i = 1; i < fKeyframes.size(); ++i) {
    if (fKeyframes[i].time < fKeyframes[i - 1].time) {
      throw KRError("World", "Path", "keyframes must be in time order");
    }
  }
}

Path Path::fixed(const Math::Position3D& position) {
  return Path({{0.0, position}});
}

Path Path::orbit(const Math::Position3D& center, float radius, float z, float startAngle,
                 float angularSpeed, double startTime, double endTime, double sampleStep) {
  std::vector<Keyframe> frames;
  const auto n = static_cast<long>(std::ceil((endTime - startTime) / sampleStep - 1e-9));
  for (long i = 0; i <= n; ++i) {
    const double t = std::min(endTime, startTime + static_cast<double>(i) * sampleStep);
    const double a = startAngle + angularSpeed * (t - startTime);
    frames.push_back({t,
                      {center.x + radius * static_cast<float>(std::cos(a)),
                       center.y + radius * static_cast<float>(std::sin(a)), z}});
  }
  return Path(std::move(frames));
}

Path& Path::then(const Path& other) {
  for (const auto& k : other.fKeyframes)
    add(k.time, k.position);
  return *this;
}

Path& Path::add(double time, const Math::Position3D& position) {
  if (!fKeyframes.empty() && time < fKeyframes.back().time) {
    throw KRError("World", "Path", "keyframes must be in time order");
  }
  fKeyframes.push_back({time, position});
  return *this;
}

Math::Position3D Path::at(double time) const {
  if (fKeyframes.empty())
    return {};
  if (time <= fKeyframes.front().time)
    return fKeyframes.front().position;
  if (time >= fKeyframes.back().time)
    return fKeyframes.back().position;
  const auto next = std::upper_bound(fKeyframes.begin(), fKeyframes.end(), time,
                                     [](double t, const Keyframe& k) { return t < k.time; });
  const Keyframe& b = *next;
  const Keyframe& a = *(next - 1);
  const double span = b.time - a.time;
  const float u = span > 0.0 ? static_cast<float>((time - a.time) / span) : 1.0f;
  return a.position + (b.position - a.position) * u;
}

// ---- World -----------------------------------------------------------------------------

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
      fRandom(seed) {}

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

World::Target& World::xTarget(const std::string& name, const char* method) {
  for (auto& t : fTargets) {
    if (t.script.name == name)
      return t;
  }
  throw KRError("World", method, "no target named " + name);
}

void World::moveTarget(const std::string& name, const Math::Position3D& position) {
  std::lock_guard<std::mutex> lock(fMutex);
  Target& target = xTarget(name, "moveTarget");
  const double now = fClock->seconds();
  // The path before now, where the target was at this instant, then the jump.
  std::vector<Keyframe> frames;
  for (const auto& k : target.script.path.keyframes()) {
    if (k.time < now)
      frames.push_back(k);
  }
  if (!frames.empty())
    frames.push_back({now, target.script.path.at(now)});
  frames.push_back({now, position});
  target.script.path = Path(std::move(frames));
  target.state.position = position;
}

void World::setHidden(const std::string& name, bool hidden) {
  std::lock_guard<std::mutex> lock(fMutex);
  Target& target = xTarget(name, "setHidden");
  const double now = fClock->seconds();
  auto& intervals = target.script.hidden;
  if (hidden) {
    intervals.push_back({now, std::numeric_limits<double>::infinity()});
    return;
  }
  for (auto& i : intervals) {
    if (i.begin <= now && now < i.end)
      i.end = now;
  }
}

void World::setNoise(float sigma) {
  std::lock_guard<std::mutex> lock(fMutex);
  fNoise = std::max(0.0f, sigma);
}

void World::setPerception(const CameraConfig& p) {
  p.validate();
  std::lock_guard<std::mutex> lock(fMutex);
  fPerception = p;
}

CameraConfig World::getPerception() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fPerception;
}

void World::setCameraEffector(int effector) {
  if (effector < 0 || effector >= Model::kTrackEffectorCount) {
    throw KRError("World", "setCameraEffector", "effector must be 0, 1 or 2");
  }
  std::lock_guard<std::mutex> lock(fMutex);
  fEffector = effector;
}

int World::getCameraEffector() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fEffector;
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
  const Math::Position3D local =
      Math::pinv(fMotion->getMapToHeadEffector(getCameraEffector())) * mapPoint;
  return inCameraView(local, fMotion->robot(), range);
}

bool World::xFrameDue(std::int64_t elapsedNs) {
  if (fPerception.cameraRateHz <= 0.0)
    return true;
  if (elapsedNs < fNextFrameNs)
    return false;
  const auto period = static_cast<std::int64_t>(std::llround(1e9 / fPerception.cameraRateHz));
  fNextFrameNs += period;
  if (fNextFrameNs <= elapsedNs)
    fNextFrameNs = elapsedNs + period;
  return true;
}

void World::xDetect(const Target& target, const std::string& eventName, KRTimePoint now,
                    const Math::Transform& mapToCamera, std::int64_t elapsedNs) {
  if (fPerception.dropout > 0.0 &&
      std::uniform_real_distribution<double>(0.0, 1.0)(fRandom) < fPerception.dropout) {
    return;
  }
  Math::Position3D p = Math::pinv(mapToCamera) * target.state.position;
  if (fPerception.angleNoise > 0.0f || fPerception.distanceNoise > 0.0f) {
    // The detector sees a direction and a distance: errors on both, in the camera frame.
    const float d = p.norm();
    float azimuth = std::atan2(p.y, p.x);
    float elevation = std::atan2(p.z, std::hypot(p.x, p.y));
    float range = d;
    if (fPerception.angleNoise > 0.0f) {
      std::normal_distribution<float> angle(0.0f, fPerception.angleNoise);
      azimuth += angle(fRandom);
      elevation += angle(fRandom);
    }
    if (fPerception.distanceNoise > 0.0f) {
      std::normal_distribution<float> distance(0.0f, fPerception.distanceNoise * d * d);
      range = std::max(0.0f, d + distance(fRandom));
    }
    p = {range * std::cos(elevation) * std::cos(azimuth),
         range * std::cos(elevation) * std::sin(azimuth), range * std::sin(elevation)};
  }
  if (fNoise > 0.0f) {
    std::normal_distribution<float> n(0.0f, fNoise);
    const float dx = n(fRandom);
    const float dy = n(fRandom);
    const float dz = n(fRandom);
    const Math::Position3D onMap = mapToCamera * p;
    p = Math::pinv(mapToCamera) * Math::Position3D(onMap.x + dx, onMap.y + dy, onMap.z + dz);
  }
  const auto latency = static_cast<std::int64_t>(std::llround(fPerception.latencyS * 1e9));
  fInFlight.push_back({elapsedNs + latency, now, eventName, p, target.script.layout, fEffector,
                       target.script.headThreshold});
}

std::optional<KRValue> World::xMakeEvent(const Detection& detection) {
  // Converted with the pose of the moment of publication (see the header).
  const Math::Transform mapToObject = Math::transformFromPosition3D(
      fMotion->getMapToHeadEffector(detection.effector) * detection.cameraToObject);
  int sec = 0;
  int usec = 0;
  SimClock::split(detection.captured, sec, usec);
  const KRValue stamp{KRValue(sec), KRValue(usec)};
  // One or two poses of six floats: FRAME_WORLD, or the torso and the robot frame.
  std::vector<std::vector<float>> poses;
  if (detection.layout == Layout::World) {
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
  if (detection.headThreshold >= 0.0f)
    event.push_back(KRValue(detection.headThreshold));
  return KRValue(std::move(event));
}

void World::update() {
  std::vector<std::pair<std::string, KRValue>> events;
  {
    std::lock_guard<std::mutex> lock(fMutex);
    const double t = fClock->seconds();
    const KRTimePoint now = fClock->now();
    const Model::Robot& robot = fMotion->robot();
    const Math::Transform mapToCamera = fMotion->getMapToHeadEffector(fEffector);
    const Math::Transform cameraToMap = Math::pinv(mapToCamera);
    const Math::Position3D cameraPosition = Math::position3DFromTransform(mapToCamera);
    for (auto& target : fTargets) {
      TargetState& s = target.state;
      s.position = target.script.path.at(t);
      if (target.script.heard) {
        const float range =
            target.script.maxRange > 0.0f ? target.script.maxRange : kDefaultHearingRange;
        s.inFieldOfView = Math::distance(s.position, cameraPosition) <= range;
      } else {
        const float range =
            target.script.maxRange > 0.0f ? target.script.maxRange : robot.getCameraRange();
        s.inFieldOfView = inCameraView(cameraToMap * s.position, robot, range);
      }
      const bool hidden = std::any_of(target.script.hidden.begin(), target.script.hidden.end(),
                                      [t](const TimeInterval& i) { return i.contains(t); });
      s.perceived = s.inFieldOfView && !hidden;
    }

    const std::int64_t elapsed = fClock->elapsed().count();
    const bool frame = xFrameDue(elapsed);
    for (auto& entry : fPublications) {
      const std::string& kind = entry.first;
      Publication& pub = entry.second;
      if (!frame || elapsed < pub.nextDueNs)
        continue;
      const std::int64_t period =
          static_cast<std::int64_t>(
              (fPeriodsMs.count(kind) != 0 ? fPeriodsMs.at(kind) : defaultPeriodMs(kind))) *
          1000000;
      pub.nextDueNs = pub.nextDueNs < 0 ? elapsed + period : pub.nextDueNs + period;
      if (pub.nextDueNs <= elapsed)
        pub.nextDueNs = elapsed + period;
      if (kind == "LandMarks") {
        std::size_t index = 0;
        for (const auto& target : fTargets) {
          if (target.script.kind != kind)
            continue;
          if (index < pub.eventNames.size() && target.state.perceived)
            xDetect(target, pub.eventNames[index], now, mapToCamera, elapsed);
          ++index;
        }
        continue;
      }
      const Target* nearest = nullptr;
      float best = std::numeric_limits<float>::max();
      for (const auto& target : fTargets) {
        if (target.script.kind != kind || !target.state.perceived)
          continue;
        const float d = Math::distance(target.state.position, cameraPosition);
        if (d < best) {
          best = d;
          nearest = &target;
        }
      }
      if (nearest != nullptr && !pub.eventNames.empty())
        xDetect(*nearest, pub.eventNames.front(), now, mapToCamera, elapsed);
    }
    // Latencies are equal, so the queue is in order of delivery.
    while (!fInFlight.empty() && fInFlight.front().deliverNs <= elapsed) {
      const Detection d = std::move(fInFlight.front());
      fInFlight.pop_front();
      // A kind that stopped meanwhile is not delivered any more.
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
  for (const auto& e : events)
    fMemory->raiseEvent(e.first, e.second);
}

}  // namespace Sim
}  // namespace KR
