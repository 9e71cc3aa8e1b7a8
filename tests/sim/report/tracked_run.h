#pragma once
// The runs the report tests draw and write: a built-in scenario for a given length, tracked by
// the tracker's sub-modules on the kinematic robot.

#include <string>

#include <krsim/run/scenario.h>
#include <krsim/run/simulation.h>
#include <krsim/tracking/context.h>

namespace krtest {

/// The kinematic robot with the tracker's sub-modules, the other settings at their defaults.
inline KR::Sim::SimulationConfig trackedKinematicConfig() {
  KR::Sim::SimulationConfig config;
  config.physics = "kinematic";
  config.modules = &KR::Sim::createTrackerModules;
  return config;
}

/// The built-in scenario `name`, `seconds` long.
inline KR::Sim::Scenario scenarioFor(const std::string& name, double seconds) {
  KR::Sim::ScenarioOptions options;
  options.duration = seconds;
  return KR::Sim::makeScenario(name, options);
}

}  // namespace krtest
