#pragma once
// What the pictures of a run say in words: the caption of a moment (time, phase, the target
// as the camera and the tracker see it, the line-of-sight error against the phase's
// on-target threshold, the tracker's recent events) and the legend of the colours that the
// scene is drawn with. The video, the live view and the snapshots show the same.

#include <deque>
#include <string>
#include <utility>
#include <vector>

#include <krsim/report/canvas.h>
#include <krsim/run/sample.h>
#include <krsim/run/scenario.h>

namespace KR {
namespace Sim {

/// The colours of what is drawn over the robot, named once for the scene and its legend.
struct SceneColours {
  static constexpr Colour kLineOfSight = {1.0f, 0.85f, 0.1f, 1.0f};  // camera's x axis
  static constexpr Colour kToTarget = {0.9f, 0.15f, 0.1f, 0.6f};     // camera to target
  static constexpr Colour kTarget = {0.95f, 0.2f, 0.1f, 1.0f};       // the model's spheres
  static constexpr Colour kDetection = {0.1f, 0.85f, 0.3f, 0.45f};   // as received
  static constexpr Colour kCameraAxis = {1.0f, 0.85f, 0.1f, 0.9f};   // inset's cross
  static constexpr Colour kFloorGrid = {0.4f, 0.43f, 0.47f, 1.0f};   // 1 m squares
  static constexpr Colour kSky = {0.62f, 0.74f, 0.86f, 1.0f};
  static constexpr Colour kText = {1.0f, 1.0f, 1.0f, 1.0f};     // over kBox
  static constexpr Colour kBox = {0.08f, 0.09f, 0.11f, 0.72f};  // behind text
};

/// A line of a caption: what is described, and its value.
struct CaptionLine {
  std::string label;
  std::string value;
};

/// The caption of `scenario` at sample `s`: time, phase, the phase's target and the line of
/// sight. Outside the phases, only the time and "between phases".
std::vector<CaptionLine> captionLines(const Scenario& scenario, const Sample& s);

/// The tracker's events as they happen, each shown for kShownSeconds, the newest last.
class EventTicker {
 public:
  static constexpr double kShownSeconds = 4.0;
  static constexpr std::size_t kMaxShown = 4;

  /// Takes the events of a sample (its `events`, at its `time`).
  void add(const Sample& s);
  /// "12.34 s  TargetLost", for the events of the last kShownSeconds before `now` (at most
  /// kMaxShown, the newest).
  std::vector<std::string> shown(double now) const;

 private:
  std::deque<std::pair<double, std::string>> fEvents;  // time [s], name
};

/// A line of the legend: a colour and what it marks.
struct LegendEntry {
  Colour colour;
  std::string text;
};

/// The legend of the scene: target, line of sight, direction to the target, detections.
/// `withInset` adds the head camera's picture and its cross.
std::vector<LegendEntry> sceneLegend(bool withInset);

}  // namespace Sim
}  // namespace KR
