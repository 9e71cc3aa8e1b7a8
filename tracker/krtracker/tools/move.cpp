#include <cmath>

#include <krtracker/tools/tools.h>

namespace KR {
namespace Tracker {
namespace tools {

bool isNullMoveCommand(const Math::Pose2D& command, float threshold) {
  // Strict: a command whose size equals the threshold is still sent.
  return threshold > std::fabs(command.x) + std::fabs(command.y) + std::fabs(command.theta);
}

}  // namespace tools
}  // namespace Tracker
}  // namespace KR
