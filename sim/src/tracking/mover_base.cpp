#include <krsim/tracking/mover_base.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include <kr/math/math.h>

#include <krtracker/tools/namer/namer.h>
#include <krtracker/tools/tools.h>

#include <krsim/tracking/config_reads.h>

namespace KR {
namespace Sim {

using Tracker::Namer;

bool MoverBase::Situation::withinThresholds() const {
  return std::fabs(errorX) <= relative[3] && std::fabs(errorY) <= relative[4] &&
         std::fabs(errorTheta) <= relative[5];
}

MoverBase::MoverBase(const std::string& name, const SimContext& context)
    : SubModuleLifecycle(name, context) {
  fSubscriptions.push_back(fMemory->subscribe(
      Namer::getNameMove(), [this](const std::string&, const KRValue& v) { xOnMove(v); }));
  fSubscriptions.push_back(fMemory->subscribe(
      Namer::getNameLost(), [this](const std::string&, const KRValue&) { xOnLost(true); }));
  fSubscriptions.push_back(fMemory->subscribe(
      Namer::getNameDetected(), [this](const std::string&, const KRValue&) { xOnLost(false); }));
  bind("setParam", &MoverBase::setParam, this);
}

MoverBase::~MoverBase() {
  for (int id : fSubscriptions) {
    fMemory->unsubscribe(id);
  }
}

void MoverBase::xOnMove(const KRValue& value) {
  // [TrackInfos, relative position, velocity], as the smoother publishes it.
  try {
    if (!value.isArray() || value.size() != 3) {
      return;
    }
    Goal goal{Tracker::types::TrackInfos(value[0]), {}, {}};
    const auto relative = fromKRValue<std::vector<float>>(value[1]);
    std::copy_n(relative.begin(), std::min<std::size_t>(6, relative.size()), goal.relative.begin());
    goal.velocity = Math::Position3D(fromKRValue<std::vector<float>>(value[2]));
    std::lock_guard<std::mutex> lock(fMutex);
    fGoal = goal;
    fLost = false;  // a new move target means the target is followed again
  } catch (const std::exception&) {
    // Not a move target: ignored.
  }
}

void MoverBase::xOnLost(bool lost) {
  std::lock_guard<std::mutex> lock(fMutex);
  fLost = lost;
}

void MoverBase::setParam(const KRValue& config) {
  const MoveLimits limits = parseMoveConfig(config, getName());
  std::lock_guard<std::mutex> lock(fMutex);
  fState.limits = limits;
}

void MoverBase::xStopBase() {
  if (fState.moving) {
    fState.moving = false;
    fMotion->call<void>("stopMove");
  }
}

bool MoverBase::xBaseAvailable() {
  static const std::vector<std::string> kBaseResources{"Base"};
  return !configSwitch(Tracker::MOVE_LOW_PRIORITY) ||
         !Tracker::tools::areAllResourcesTaken(fMotion, kBaseResources);
}

bool MoverBase::xReached() {
  if (fState.reached) {
    return false;
  }
  fState.reached = true;
  return true;
}

void MoverBase::xRaiseReached() {
  fMemory->raiseEvent(Namer::getNameTargetReached(), KRValue(getName()));
}

std::optional<MoverBase::Situation> MoverBase::xSituation(KRTimePoint now) {
  if (fLost || !fGoal) {
    return std::nullopt;
  }
  const KRTimePoint seen{std::chrono::nanoseconds(fGoal->info.getTimestamp())};
  const auto age = std::clamp<std::chrono::nanoseconds>(now - seen, {}, kMaxExtrapolation);
  // Past the extrapolation horizon the target's velocity is no longer trusted.
  const Math::Position3D velocity =
      now - seen < kMaxExtrapolation ? fGoal->velocity : Math::Position3D();
  const Math::Position3D world =
      fGoal->info.getWorldToObject3D() +
      fGoal->velocity * static_cast<float>(std::chrono::duration<double>(age).count());
  const Math::Transform worldToRobot = Tracker::tools::getWorldToRobotTransform(fMotion);
  const Math::Transform robotToWorld = Math::pinv(worldToRobot);

  Situation s;
  s.target = robotToWorld * world;
  s.velocity = robotToWorld.rotation() * velocity;
  s.bearing = std::atan2(s.target.y, s.target.x);
  s.relative = fGoal->relative;
  s.errorX = s.target.x - s.relative[0];
  s.errorY = s.target.y - s.relative[1];
  s.errorTheta = Math::modulo2PI(s.bearing - s.relative[2]);
  return s;
}

}  // namespace Sim
}  // namespace KR
