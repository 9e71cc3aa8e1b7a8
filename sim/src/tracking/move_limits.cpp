#include <krsim/tracking/move_limits.h>

#include <map>

#include <kr/error.h>
#include <kr/value/valueutils.h>

namespace KR {
namespace Sim {

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

}  // namespace Sim
}  // namespace KR
