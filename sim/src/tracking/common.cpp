#include <krsim/tracking/common.h>

#include <exception>
#include <map>

#include <kr/error.h>
#include <kr/target/targets.h>
#include <kr/value/valueutils.h>

namespace KR {
namespace Sim {

using Tracker::ConfigKey;
using Tracker::types::TrackInfos;

float headThresholdForKind(const std::string& kind) {
  namespace T = Tracker::Target;
  ConfigKey key = Tracker::HEAD_THRESHOLD;
  if (kind == T::TargetRedBall) {
    key = Tracker::REDBALL_HEAD_THRESHOLD;
  } else if (kind == T::TargetFace) {
    key = Tracker::FACE_HEAD_THRESHOLD;
  } else if (kind == T::TargetLandMarks) {
    key = Tracker::LANDMARK_HEAD_THRESHOLD;
  } else if (kind == T::TargetPeople) {
    key = Tracker::PEOPLE_HEAD_THRESHOLD;
  } else if (kind == T::TargetSound) {
    key = Tracker::SOUND_HEAD_THRESHOLD;
  }
  const float generic = configFloat(Tracker::HEAD_THRESHOLD, 0.0f);
  return key == Tracker::HEAD_THRESHOLD ? generic : configFloat(key, generic);
}

bool configSwitch(ConfigKey key) {
  try {
    return Tracker::getConfigBoolValue(key);
  } catch (const std::exception&) {
    return false;
  }
}

float configFloat(ConfigKey key, float fallback) {
  try {
    return Tracker::getConfigFloatValue(key);
  } catch (const std::exception&) {
    return fallback;
  }
}

std::vector<float> configGains(ConfigKey key) {
  std::vector<float> gains;
  try {
    gains = Tracker::getConfigFloatVectorValue(key);
  } catch (const std::exception&) {
    gains.clear();
  }
  gains.resize(3, 0.0f);
  return gains;
}

bool eventCarriesHeadThreshold(const KRValue& event) {
  if (!event.isArray() || event.size() < 3) {
    return false;
  }
  const bool worldLayout = event[0].size() == 6 && event[1].size() == 2;
  return event.size() >= (worldLayout ? 4u : 5u);
}

namespace {
void splitTimestamp(std::int64_t ns, std::int64_t& seconds, std::int64_t& microseconds) {
  const std::int64_t us = ns / 1000;
  seconds = us / 1000000;
  microseconds = us % 1000000;
}
}  // namespace

TrackInfos withHeadThreshold(const TrackInfos& info, float threshold) {
  std::int64_t seconds = 0;
  std::int64_t microseconds = 0;
  splitTimestamp(info.getTimestamp(), seconds, microseconds);
  return TrackInfos(info.getWorldToObject6D(), seconds, microseconds, info.getTrackEffector(),
                    info.getDistance(), threshold);
}

TrackInfos withPose(const TrackInfos& info, const Math::Position6D& worldToObject,
                    KRTimePoint time) {
  std::int64_t seconds = 0;
  std::int64_t microseconds = 0;
  splitTimestamp(time.time_since_epoch().count(), seconds, microseconds);
  return TrackInfos(worldToObject, seconds, microseconds, info.getTrackEffector(),
                    info.getDistance(), info.getHeadThreshold());
}

// ---- TargetInput ---------------------------------------------------------------------------

TargetInput::TargetInput(std::shared_ptr<SimMemory> memory, std::shared_ptr<const SimClock> clock,
                         const std::string& eventName)
    : fMemory(std::move(memory)), fClock(std::move(clock)) {
  fSubscription = fMemory->subscribe(eventName, [this](const std::string&, const KRValue& value) {
    // A payload that does not parse is dropped: the smoother is the only publisher.
    try {
      Sample sample{TrackInfos(value), fClock->now()};
      std::lock_guard<std::mutex> lock(fMutex);
      fLatest = sample;
    } catch (const std::exception&) {
    }
  });
}

TargetInput::~TargetInput() {
  fMemory->unsubscribe(fSubscription);
}

std::optional<TargetInput::Sample> TargetInput::fresh(KRTimePoint now,
                                                      std::chrono::nanoseconds maxAge) const {
  std::lock_guard<std::mutex> lock(fMutex);
  if (!fLatest || now - fLatest->received > maxAge || !fLatest->info.isValid()) {
    return std::nullopt;
  }
  return fLatest;
}

void TargetInput::clear() {
  std::lock_guard<std::mutex> lock(fMutex);
  fLatest.reset();
}

// ---- move configuration --------------------------------------------------------------------

MoveLimits parseMoveConfig(const KRValue& config, const std::string& module) {
  MoveLimits limits;
  if (!config.isValid() || (config.isArray() && config.size() == 0)) {
    return limits;
  }
  const std::map<std::string, KRValue> entries =
      extractKeyValueMapFromKRValue(config, module + ".setParam");
  for (const auto& entry : entries) {
    float* field = nullptr;
    if (entry.first == "MaxVelocityXY") {
      field = &limits.maxVelocityXY;
    } else if (entry.first == "MaxVelocityTheta") {
      field = &limits.maxVelocityTheta;
    } else {
      throw KRError(
          module, "setParam",
          "unknown parameter \"" + entry.first + "\". Could be: MaxVelocityXY, MaxVelocityTheta.");
    }
    const float value = extractFloat(entry.second, module + ".setParam", entry.first);
    if (value < 0.0f) {
      throw KRError(module, "setParam", entry.first + " must not be negative.");
    }
    *field = value;
  }
  return limits;
}

const std::vector<std::string>& baseResources() {
  static const std::vector<std::string> kResources{"Base"};
  return kResources;
}

}  // namespace Sim
}  // namespace KR
