#include <krsim/report/caption.h>

#include <cstdio>
#include <sstream>

namespace KR {
namespace Sim {

namespace {

std::string fixed(double v, int decimals) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", decimals, v);
  return text;
}

/// How the camera and the tracker see the target.
std::string targetState(const Sample& s) {
  const std::string seen = s.perceived ? "seen" : s.inView ? "in view, hidden" : "out of view";
  return seen + (s.tracked ? ", tracked" : ", not tracked");
}

std::string lineOfSight(const Phase& phase, const Sample& s) {
  if (!phase.lineOfSight)
    return "not measured in this phase";
  const bool onTarget = s.perceived && s.lineOfSightDeg < phase.acquireDegrees;
  return fixed(s.lineOfSightDeg, 1) + " deg, " + (onTarget ? "on target" : "off target") +
         " (under " + fixed(phase.acquireDegrees, 0) + " deg and seen)";
}

}  // namespace

std::vector<CaptionLine> captionLines(const Scenario& scenario, const Sample& s) {
  std::vector<CaptionLine> lines;
  lines.push_back({"time", fixed(s.time, 2) + " s of " + fixed(scenario.duration, 0) + " s"});
  if (s.phase < 0 || static_cast<std::size_t>(s.phase) >= scenario.phases.size()) {
    lines.push_back({"phase", "between phases"});
    return lines;
  }
  const Phase& phase = scenario.phases[static_cast<std::size_t>(s.phase)];
  lines.push_back({"phase", phase.name + " (" + std::to_string(s.phase + 1) + " of " +
                                std::to_string(scenario.phases.size()) + ")"});
  lines.push_back({phase.target, targetState(s)});
  lines.push_back({"line of sight", lineOfSight(phase, s)});
  return lines;
}

void EventTicker::add(const Sample& s) {
  std::istringstream names(s.events);
  std::string name;
  while (names >> name)
    fEvents.emplace_back(s.time, name);
  while (!fEvents.empty() && fEvents.front().first < s.time - kShownSeconds)
    fEvents.pop_front();
  while (fEvents.size() > kMaxShown)
    fEvents.pop_front();
}

std::vector<std::string> EventTicker::shown(double now) const {
  std::vector<std::string> lines;
  for (const auto& [time, name] : fEvents) {
    if (time <= now && time > now - kShownSeconds)
      lines.push_back(fixed(time, 2) + " s  " + name);
  }
  return lines;
}

std::vector<LegendEntry> sceneLegend(bool withInset) {
  std::vector<LegendEntry> legend = {
      {SceneColours::kTarget, "target (true position; faded while hidden)"},
      {SceneColours::kDetection, "detection, where and when the tracker received it"},
      {SceneColours::kLineOfSight, "head camera's line of sight"},
      {SceneColours::kToTarget, "head camera to target"},
  };
  if (withInset)
    legend.push_back({SceneColours::kCameraAxis, "inset: the head camera's view, + its axis"});
  return legend;
}

}  // namespace Sim
}  // namespace KR
