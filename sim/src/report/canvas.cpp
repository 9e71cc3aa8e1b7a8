#include <krsim/report/canvas.h>

#include <algorithm>
#include <cmath>

namespace KR {
namespace Sim {

namespace {

unsigned char toByte(float v) {
  return static_cast<unsigned char>(std::lround(std::clamp(v, 0.0f, 1.0f) * 255.0f));
}

/// `over` at opacity `alpha` (0 to 255) over a byte.
unsigned char blend(unsigned char under, unsigned char over, unsigned alpha) {
  return static_cast<unsigned char>((under * (255u - alpha) + over * alpha + 127u) / 255u);
}

}  // namespace

PixelCanvas::PixelCanvas(unsigned char* rgb, int width, int height, const GlyphAtlas& glyphs)
    : fRgb(rgb), fWidth(width), fHeight(height), fGlyphs(glyphs) {}

void PixelCanvas::fill(const PixelRect& r, const Colour& colour) {
  const int x0 = std::max(0, r.x);
  const int x1 = std::min(fWidth, r.x + r.width);
  const int y0 = std::max(0, r.y);
  const int y1 = std::min(fHeight, r.y + r.height);
  const unsigned alpha = toByte(colour[3]);
  const unsigned char c[3] = {toByte(colour[0]), toByte(colour[1]), toByte(colour[2])};
  for (int y = y0; y < y1; ++y) {
    unsigned char* p = fRgb + 3 * (static_cast<std::ptrdiff_t>(y) * fWidth + x0);
    for (int x = x0; x < x1; ++x, p += 3) {
      for (int k = 0; k < 3; ++k)
        p[k] = blend(p[k], c[k], alpha);
    }
  }
}

void PixelCanvas::text(int x, int y, const std::string& text, const Colour& colour) {
  const unsigned char c[3] = {toByte(colour[0]), toByte(colour[1]), toByte(colour[2])};
  const unsigned opacity = toByte(colour[3]);
  for (const char ch : text) {
    const int i = static_cast<unsigned char>(ch) - GlyphAtlas::kFirst;
    if (i < 0 || ch > GlyphAtlas::kLast)
      continue;
    const auto glyph = static_cast<std::size_t>(i);
    const int w = fGlyphs.widths[glyph];
    for (int gy = 0; gy < fGlyphs.height; ++gy) {
      const int py = y + gy;
      if (py < 0 || py >= fHeight)
        continue;
      const unsigned char* mask = fGlyphs.masks.data() +
                                  static_cast<std::ptrdiff_t>(gy) * fGlyphs.rowWidth +
                                  fGlyphs.offsets[glyph];
      for (int gx = 0; gx < w; ++gx) {
        const int px = x + gx;
        if (px < 0 || px >= fWidth || mask[gx] == 0)
          continue;
        unsigned char* p = fRgb + 3 * (static_cast<std::ptrdiff_t>(py) * fWidth + px);
        const unsigned alpha = mask[gx] * opacity / 255u;
        for (int k = 0; k < 3; ++k)
          p[k] = blend(p[k], c[k], alpha);
      }
    }
    x += w;
  }
}

int PixelCanvas::textWidth(const std::string& text) const {
  int w = 0;
  for (const char ch : text) {
    const int i = static_cast<unsigned char>(ch) - GlyphAtlas::kFirst;
    if (i >= 0 && ch <= GlyphAtlas::kLast)
      w += fGlyphs.widths[static_cast<std::size_t>(i)];
  }
  return w;
}

int PixelCanvas::lineHeight() const {
  return fGlyphs.height;
}

}  // namespace Sim
}  // namespace KR
