#include <krsim/tracking/config_reads.h>

#include <exception>

#include <kr/target/targets.h>

namespace KR {
namespace Sim {

using Tracker::ConfigKey;

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

}  // namespace Sim
}  // namespace KR
