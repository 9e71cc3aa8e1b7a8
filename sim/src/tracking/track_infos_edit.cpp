#include <krsim/tracking/track_infos_edit.h>

#include <cstdint>

namespace KR {
namespace Sim {

using Tracker::types::TrackInfos;

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

}  // namespace Sim
}  // namespace KR
