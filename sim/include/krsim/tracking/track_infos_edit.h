#pragma once
// Edits of a TrackInfos record made by the smoother: whether a tracker event carries its own
// head threshold, and the same record with another head threshold or another pose and time.

#include <kr/math/types.h>
#include <kr/value/krvalue.h>

#include <krtracker/types/types/trackinfos.h>

#include <krsim/robot/clock.h>

namespace KR {
namespace Sim {

/// Whether a tracker event carries its own head threshold (layout W: 4 or more elements,
/// layout T: 5 or more).
bool eventCarriesHeadThreshold(const KRValue& event);

/// The same sample with another head threshold.
Tracker::types::TrackInfos withHeadThreshold(const Tracker::types::TrackInfos& info,
                                             float threshold);
/// The same sample at another pose and time.
Tracker::types::TrackInfos withPose(const Tracker::types::TrackInfos& info,
                                    const Math::Position6D& worldToObject, KRTimePoint time);

}  // namespace Sim
}  // namespace KR
