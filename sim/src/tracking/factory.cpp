// The tracking service of the simulated robot: its eight sub-modules and the "KRTracker" host,
// registered on the broker in that order (the tracker opens the sub-modules when it is built).

#include <krsim/tracking/context.h>

#include <krsim/tracking/arms_looker.h>
#include <krsim/tracking/head_looker.h>
#include <krsim/tracking/motion_move.h>
#include <krsim/tracking/navigation_move.h>
#include <krsim/tracking/round_searcher.h>
#include <krsim/tracking/smoother.h>
#include <krsim/tracking/target_manager.h>
#include <krsim/tracking/tracker_service.h>
#include <krsim/tracking/whole_body_looker.h>

namespace KR {
namespace Sim {

std::vector<std::shared_ptr<SimModule>> createSubModules(const SimContext& context) {
  auto targetManager = std::make_shared<TargetManager>(context);
  auto smoother = std::make_shared<Smoother>(context, targetManager);
  auto searcher = std::make_shared<RoundSearcher>(context);
  auto headLooker = std::make_shared<HeadLooker>(context);
  auto wholeBodyLooker = std::make_shared<WholeBodyLooker>(context);
  auto armsLooker = std::make_shared<ArmsLooker>(context);
  auto motionMove = std::make_shared<MotionMove>(context);
  auto navigationMove = std::make_shared<NavigationMove>(context);
  searcher->setHeadLooker(headLooker);

  auto& broker = *context.broker;
  broker.addModule(targetManager);
  broker.addModule(smoother);
  broker.addModule(searcher);
  broker.addModule(headLooker);
  broker.addModule(wholeBodyLooker);
  broker.addModule(armsLooker);
  broker.addModule(motionMove);
  broker.addModule(navigationMove);

  // Update order: the smoother publishes the step's target before the searcher and the
  // lookers act on it, and the movers come last. The target manager has no periodic work.
  return {smoother, searcher, headLooker, wholeBodyLooker, armsLooker, motionMove, navigationMove};
}

std::vector<std::shared_ptr<SimModule>> createTrackerModules(const SimContext& context) {
  auto modules = createSubModules(context);
  context.broker->addModule(std::make_shared<TrackerService>(context.broker));
  return modules;
}

}  // namespace Sim
}  // namespace KR
