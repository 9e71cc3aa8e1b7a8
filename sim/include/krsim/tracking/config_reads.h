#pragma once
// Reads of the tracker's configuration table (krgenerictrackerconfig.h) by the sub-modules:
// each falls back to a safe value instead of throwing, since a sub-module's periodic loop must
// go on whatever a client stored.

#include <string>
#include <vector>

#include <krtracker/config/krgenerictrackerconfig.h>

namespace KR {
namespace Sim {

/// A configuration switch; a value that is not a bool counts as off.
bool configSwitch(Tracker::ConfigKey key);
/// A configuration float, or `fallback` when the stored value is not a number.
float configFloat(Tracker::ConfigKey key, float fallback);
/// A configuration gain vector [kp, ki, kd]; missing entries are 0, a bad value gives zeros.
std::vector<float> configGains(Tracker::ConfigKey key);

/// The head dead band of a target kind ("RedBall" -> REDBALL_HEAD_THRESHOLD, ...); the
/// generic HEAD_THRESHOLD for any other name. Falls back to HEAD_THRESHOLD when the stored
/// value is not a number.
float headThresholdForKind(const std::string& kind);

}  // namespace Sim
}  // namespace KR
