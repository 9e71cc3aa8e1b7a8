#pragma once
// MoveLimits: the speed limits of the movers, given by their "setParam" (the tracker's
// setMoveConfig) as name/value pairs [["MaxVelocityXY", 0.1], ["MaxVelocityTheta", 0.5]].

#include <string>

#include <kr/value/krvalue.h>

namespace KR {
namespace Sim {

/// An invalid value or an empty list restores the defaults (the base's own limits apply then).
struct MoveLimits {
  float maxVelocityXY = 0.0f;     // [m/s]; 0: the base's limit
  float maxVelocityTheta = 0.0f;  // [rad/s]; 0: the base's limit
};
/// Parses a move configuration; KRError(module, "setParam", ...) for an unknown name or a
/// negative value.
MoveLimits parseMoveConfig(const KRValue& config, const std::string& module);

}  // namespace Sim
}  // namespace KR
