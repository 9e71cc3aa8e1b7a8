#pragma once
// The sub-modules of the tracking service that GenericTracker reaches by name through
// KRBroker::getProxy(name, 0). The one place their names are written: the library, the
// simulated robot, the tests and the fuzz targets all read them from here.

#include <array>

namespace KR {
namespace Tracker {

inline constexpr const char* kSmootherModule = "_Smoother";
inline constexpr const char* kMotionMoveModule = "_MotionMove";
inline constexpr const char* kNavigationMoveModule = "_NavigationMove";
inline constexpr const char* kRoundSearcherModule = "_RoundSearcher";
inline constexpr const char* kHeadLookerModule = "_HeadLooker";
inline constexpr const char* kWholeBodyLookerModule = "_WholeBodyLooker";
inline constexpr const char* kArmsLookerModule = "_ArmsLooker";
inline constexpr const char* kTargetManagerModule = "_KRTargetManager";

/// The eight, in the order GenericTracker opens them: after the platform's "KRMotion", before
/// its "KRMemory".
inline constexpr std::array<const char*, 8> kSubModules{
    kSmootherModule,   kMotionMoveModule,      kNavigationMoveModule, kRoundSearcherModule,
    kHeadLookerModule, kWholeBodyLookerModule, kArmsLookerModule,     kTargetManagerModule};

}  // namespace Tracker
}  // namespace KR
