#pragma once
// TrackerService: the tracking service "KRTracker". It constructs one GenericTracker on the
// broker (every sub-module must already be registered there), initialises it, and forwards
// the tracker's public methods under their own names, as the service does on a robot;
// "stopTracker" is another name of "stop". Two forms differ from the C++ ones:
// "lookAt" takes (position, frame, fraction, wholeBody) or (position, frame, effectorId,
// fraction, wholeBody); "getTrackerConfig" answers [[name, value], ...] in name order, and
// "_copyTrackerConfig" the same without its standard-error line per value that is not a
// number (for a process that copies the table).

#include <memory>

#include <kr/broker/broker.h>

#include <krtracker/generictracker/generictracker.h>

namespace KR {
namespace Sim {

/// The service's name on the broker.
inline constexpr const char* kTrackerServiceModule = "KRTracker";

/// Binds the service's methods on `service`, forwarding to `tracker`.
void bindTrackerMethods(KR::KRModule& service, Tracker::GenericTracker* tracker);

/// The service's methods bound to no tracker: for checking a call's name and arguments
/// (KRModule::checkArguments) before anything runs; never invoked.
const KR::KRModule& trackerMethodTable();

class TrackerService : public KR::KRModule {
 public:
  explicit TrackerService(const std::shared_ptr<KR::KRBroker>& broker);
  /// Stops the tracker (its destructor stops every sub-module).
  ~TrackerService() override;

  Tracker::GenericTracker& tracker() { return *fTracker; }

 private:
  void xBindMethods();

  std::unique_ptr<Tracker::GenericTracker> fTracker;
};

}  // namespace Sim
}  // namespace KR
