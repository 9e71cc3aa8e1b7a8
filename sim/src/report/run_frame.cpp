#include <krsim/report/run_frame.h>

#include <algorithm>

namespace KR {
namespace Sim {

namespace {

constexpr int kMargin = 14;                // between the picture's edge and a box [pixels]
constexpr int kPadding = 10;               // inside a box [pixels]
constexpr int kBorder = 3;                 // around the inset [pixels]
constexpr double kInsetShare = 0.3;        // of the picture's width
constexpr double kDetectionMemoryS = 0.6;  // as long as a mark shows [s]
constexpr Colour kLabel = {0.75f, 0.8f, 0.85f, 1.0f};

}  // namespace

RunFrame::RunFrame(ScenarioRun& run) : fRun(run) {
  fRun.addSampleObserver([this](const Sample& s) { xObserve(s); });
}

void RunFrame::xObserve(const Sample& s) {
  fEvents.add(s);
  if (s.hasDetection)
    fDetections.push_back({s.time, s.detection});
  while (!fDetections.empty() && fDetections.front().time < s.time - kDetectionMemoryS)
    fDetections.pop_front();
}

std::vector<DetectionMark> RunFrame::recentDetections() const {
  const double now = fRun.lastSample().time;
  std::vector<DetectionMark> marks;
  for (const Received& d : fDetections)
    marks.push_back({d.position, now - d.time});
  return marks;
}

PixelRect RunFrame::insetRect(double cameraAspect, const PixelRect& r) {
  const int width = static_cast<int>(kInsetShare * r.width);
  const int height = static_cast<int>(width / cameraAspect);
  return {r.x + r.width - kMargin - width, r.y + r.height - kMargin - height, width, height};
}

void RunFrame::drawScene(SceneRenderer& renderer, const PixelRect& r, Camera camera,
                         const ViewAngles& angles) {
  const Sample& s = fRun.lastSample();
  const std::string target =
      s.phase >= 0 ? fRun.scenario().phases[static_cast<std::size_t>(s.phase)].target : "";
  renderer.update(fRun.simulation(), target, recentDetections());
  if (camera == Camera::Follow)
    renderer.drawFollowView(r, angles);
  else
    renderer.drawOverview(r);
  renderer.drawHeadCamera(insetRect(renderer.headCameraAspect(), r));
}

void RunFrame::drawOverlay(Canvas& canvas, const SceneRenderer& renderer, const PixelRect& r) {
  const PixelRect inset = insetRect(renderer.headCameraAspect(), r);
  const int outer = inset.width + 2 * kBorder;
  canvas.fill({inset.x - kBorder, inset.y - kBorder, outer, kBorder}, SceneColours::kBox);
  canvas.fill({inset.x - kBorder, inset.y + inset.height, outer, kBorder}, SceneColours::kBox);
  canvas.fill({inset.x - kBorder, inset.y, kBorder, inset.height}, SceneColours::kBox);
  canvas.fill({inset.x + inset.width, inset.y, kBorder, inset.height}, SceneColours::kBox);
  renderer.markHeadCamera(canvas, inset);
  const std::string title = "head camera";
  canvas.text(inset.x + inset.width - canvas.textWidth(title),
              inset.y - kBorder - 4 - canvas.lineHeight(), title, SceneColours::kText);
  xLegend(canvas, r);
  xCaption(canvas, r);
}

void RunFrame::drawInMemory(SceneRenderer& renderer, const PixelRect& r, Camera camera,
                            unsigned char* rgb) {
  renderer.useWindow(false);
  drawScene(renderer, r, camera);
  renderer.readPixels(r, rgb);
  PixelCanvas canvas(rgb, r.width, r.height, renderer.glyphs());
  drawOverlay(canvas, renderer, r);
}

void RunFrame::xCaption(Canvas& canvas, const PixelRect& r) {
  const Sample& s = fRun.lastSample();
  std::vector<CaptionLine> lines = captionLines(fRun.scenario(), s);
  const std::vector<std::string> events = fEvents.shown(s.time);
  for (std::size_t i = 0; i < std::max<std::size_t>(1, events.size()); ++i)
    lines.push_back({i == 0 ? "events" : "", events.empty() ? "-" : events[i]});

  int labelWidth = 0;
  int valueWidth = 0;
  for (const CaptionLine& line : lines) {
    labelWidth = std::max(labelWidth, canvas.textWidth(line.label));
    valueWidth = std::max(valueWidth, canvas.textWidth(line.value));
  }
  labelWidth += 2 * kPadding;
  const int lineHeight = canvas.lineHeight();
  const int rows = static_cast<int>(lines.size());
  const PixelRect box{r.x + kMargin, r.y + kMargin, labelWidth + valueWidth + 2 * kPadding,
                      rows * lineHeight + 2 * kPadding};
  canvas.fill(box, SceneColours::kBox);
  for (int i = 0; i < rows; ++i) {
    const int y = box.y + box.height - kPadding - (i + 1) * lineHeight;
    canvas.text(box.x + kPadding, y, lines[static_cast<std::size_t>(i)].label, kLabel);
    canvas.text(box.x + kPadding + labelWidth, y, lines[static_cast<std::size_t>(i)].value,
                SceneColours::kText);
  }
}

void RunFrame::xLegend(Canvas& canvas, const PixelRect& r) {
  const std::vector<LegendEntry> legend = sceneLegend(true);
  const int lineHeight = canvas.lineHeight();
  const int swatch = 2 * lineHeight;
  int textWidth = 0;
  for (const LegendEntry& e : legend)
    textWidth = std::max(textWidth, canvas.textWidth(e.text));
  const int rows = static_cast<int>(legend.size());
  const PixelRect box{r.x + kMargin, r.y + r.height - kMargin - rows * lineHeight - 2 * kPadding,
                      swatch + kPadding + textWidth + 2 * kPadding,
                      rows * lineHeight + 2 * kPadding};
  canvas.fill(box, SceneColours::kBox);
  for (int i = 0; i < rows; ++i) {
    const LegendEntry& e = legend[static_cast<std::size_t>(i)];
    const int y = box.y + box.height - kPadding - (i + 1) * lineHeight;
    Colour solid = e.colour;
    solid[3] = 1.0f;
    canvas.fill({box.x + kPadding, y + lineHeight / 3, swatch, lineHeight / 3}, solid);
    canvas.text(box.x + 2 * kPadding + swatch, y, e.text, SceneColours::kText);
  }
}

}  // namespace Sim
}  // namespace KR
