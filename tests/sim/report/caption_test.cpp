// What the pictures say: the caption of a sample, the events shown for a while, the legend,
// and the words drawn into a picture in memory (PixelCanvas).

#include <string>
#include <vector>

#include <gmock/gmock.h>

#include <krsim/report/canvas.h>
#include <krsim/report/caption.h>

namespace {

using KR::Sim::CaptionLine;
using KR::Sim::Sample;

KR::Sim::Scenario twoPhases() {
  KR::Sim::Scenario s;
  s.duration = 20.0;
  KR::Sim::Phase head;
  head.name = "head tracking";
  head.target = "ball";
  head.acquireDegrees = 3.0;
  KR::Sim::Phase arms = head;
  arms.name = "arms only";
  arms.lineOfSight = false;
  s.phases = {head, arms};
  return s;
}

std::string lineOf(const std::vector<CaptionLine>& lines, const std::string& label) {
  for (const CaptionLine& l : lines) {
    if (l.label == label)
      return l.value;
  }
  return "<no " + label + ">";
}

TEST(Caption, SaysTimePhaseTargetStateAndLineOfSight) {
  struct Case {
    int phase;
    bool inView, perceived, tracked;
    float lineOfSightDeg;
    std::string phaseText, target, sight;
  };
  const std::vector<Case> cases = {
      {0, true, true, true, 1.24f, "head tracking (1 of 2)", "seen, tracked",
       "1.2 deg, on target (under 3 deg and seen)"},
      {0, true, true, false, 4.0f, "head tracking (1 of 2)", "seen, not tracked",
       "4.0 deg, off target (under 3 deg and seen)"},
      // Hidden or out of view: never on target, whatever the angle.
      {0, true, false, true, 0.5f, "head tracking (1 of 2)", "in view, hidden, tracked",
       "0.5 deg, off target (under 3 deg and seen)"},
      {0, false, false, false, 40.0f, "head tracking (1 of 2)", "out of view, not tracked",
       "40.0 deg, off target (under 3 deg and seen)"},
      {1, true, true, true, 1.0f, "arms only (2 of 2)", "seen, tracked",
       "not measured in this phase"},
  };
  for (const Case& c : cases) {
    Sample s;
    s.time = 12.346;
    s.phase = c.phase;
    s.inView = c.inView;
    s.perceived = c.perceived;
    s.tracked = c.tracked;
    s.lineOfSightDeg = c.lineOfSightDeg;
    const auto lines = KR::Sim::captionLines(twoPhases(), s);
    EXPECT_EQ(lineOf(lines, "time"), "12.35 s of 20 s");
    EXPECT_EQ(lineOf(lines, "phase"), c.phaseText);
    EXPECT_EQ(lineOf(lines, "ball"), c.target);
    EXPECT_EQ(lineOf(lines, "line of sight"), c.sight);
  }
  Sample between;
  between.time = 0.5;
  const auto lines = KR::Sim::captionLines(twoPhases(), between);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lineOf(lines, "phase"), "between phases");
}

TEST(Caption, ShowsEachEventForFourSecondsAndTheNewestFourAtMost) {
  KR::Sim::EventTicker ticker;
  auto at = [&](double time, const std::string& events) {
    Sample s;
    s.time = time;
    s.events = events;
    ticker.add(s);
  };
  at(1.0, "TargetLost");
  at(2.0, "TargetDetected HeadTracking/Restarted");
  at(2.5, "");
  EXPECT_THAT(ticker.shown(2.5),
              testing::ElementsAre("1.00 s  TargetLost", "2.00 s  TargetDetected",
                                   "2.00 s  HeadTracking/Restarted"));
  EXPECT_THAT(ticker.shown(5.5),
              testing::ElementsAre("2.00 s  TargetDetected", "2.00 s  HeadTracking/Restarted"));
  at(6.0, "A B C D E");
  EXPECT_THAT(ticker.shown(6.0),
              testing::ElementsAre("6.00 s  B", "6.00 s  C", "6.00 s  D", "6.00 s  E"));
  EXPECT_TRUE(ticker.shown(10.5).empty());
}

TEST(Caption, LegendNamesEveryColourDrawnOnceAndTheInsetWhenThereIsOne) {
  const auto without = KR::Sim::sceneLegend(false);
  const auto with = KR::Sim::sceneLegend(true);
  EXPECT_EQ(with.size(), without.size() + 1);
  for (const auto& colour :
       {KR::Sim::SceneColours::kTarget, KR::Sim::SceneColours::kDetection,
        KR::Sim::SceneColours::kLineOfSight, KR::Sim::SceneColours::kToTarget}) {
    int n = 0;
    for (const auto& e : without)
      n += e.colour == colour ? 1 : 0;
    EXPECT_EQ(n, 1);
  }
  EXPECT_THAT(with.back().text, testing::HasSubstr("inset"));
}

/// A font of two glyphs, 'a' (2 pixels wide, its left column covered) and 'b' (3 wide, its
/// top row covered), 2 rows high; every other character is 1 pixel wide and empty.
KR::Sim::GlyphAtlas tinyFont() {
  KR::Sim::GlyphAtlas g;
  g.height = 2;
  for (int c = KR::Sim::GlyphAtlas::kFirst; c <= KR::Sim::GlyphAtlas::kLast; ++c) {
    g.offsets.push_back(g.rowWidth);
    g.widths.push_back(c == 'a' ? 2 : c == 'b' ? 3 : 1);
    g.rowWidth += g.widths.back();
  }
  g.masks.assign(static_cast<std::size_t>(g.rowWidth * g.height), 0);
  const int a = g.offsets['a' - KR::Sim::GlyphAtlas::kFirst];
  const int b = g.offsets['b' - KR::Sim::GlyphAtlas::kFirst];
  g.masks[static_cast<std::size_t>(a)] = 255;               // bottom row, left column
  g.masks[static_cast<std::size_t>(g.rowWidth + a)] = 255;  // top row, left column
  for (int x = 0; x < 3; ++x)
    g.masks[static_cast<std::size_t>(g.rowWidth + b + x)] = 255;  // top row
  return g;
}

TEST(PixelCanvas, BlendsBoxesAndTextIntoBottomUpRowsClippedToThePicture) {
  const KR::Sim::GlyphAtlas font = tinyFont();
  const int w = 6;
  const int h = 4;
  std::vector<unsigned char> rgb(3 * w * h, 100);
  KR::Sim::PixelCanvas canvas(rgb.data(), w, h, font);
  auto px = [&](int x, int y, int k) { return static_cast<int>(rgb[3 * (y * w + x) + k]); };

  // Half-opaque white over grey 100, hanging off the left and bottom edges.
  canvas.fill({-2, -2, 4, 4}, {1.0f, 1.0f, 1.0f, 0.5f});
  EXPECT_EQ(px(0, 0, 0), 178);
  EXPECT_EQ(px(1, 1, 2), 178);
  EXPECT_EQ(px(2, 0, 0), 100);
  EXPECT_EQ(px(0, 2, 0), 100);

  EXPECT_EQ(canvas.textWidth("ab?"), 6);
  EXPECT_EQ(canvas.lineHeight(), 2);
  // "ab" from (3, 2): 'a' covers column 3 on rows 2 and 3, 'b' row 3 from column 5 on (the
  // rest falls outside the picture).
  canvas.text(3, 2, "ab", {1.0f, 0.0f, 0.0f, 1.0f});
  EXPECT_EQ(px(3, 2, 0), 255);
  EXPECT_EQ(px(3, 2, 1), 0);
  EXPECT_EQ(px(3, 3, 0), 255);
  EXPECT_EQ(px(4, 2, 0), 100);
  EXPECT_EQ(px(5, 3, 0), 255);
  EXPECT_EQ(px(5, 2, 0), 100);
}

}  // namespace
