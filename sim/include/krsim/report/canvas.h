#pragma once
// Canvas: where boxes and text are drawn over a picture of the scene. The scene renderer is
// one (OpenGL, for a window); PixelCanvas is the other: it draws into the picture's pixels
// once they are read back, with MuJoCo's own font captured once as coverage masks
// (GlyphAtlas). A software OpenGL draws each character as a call of its own, which costs as
// much as the scene for a caption; in memory the same text costs a fraction of a millisecond.
//
// Coordinates are pixels from the bottom left corner, as OpenGL's.

#include <array>
#include <string>
#include <vector>

namespace KR {
namespace Sim {

using Colour = std::array<float, 4>;  // red, green, blue, opacity, each 0 to 1

/// A rectangle of the picture in pixels, from its bottom-left corner (OpenGL's convention).
struct PixelRect {
  int x = 0;
  int y = 0;
  int width = 0;
  int height = 0;
};

class Canvas {
 public:
  virtual ~Canvas() = default;
  /// Blends `colour` over `r` by its opacity.
  virtual void fill(const PixelRect& r, const Colour& colour) = 0;
  /// Text with the lower left corner of its line at (x, y).
  virtual void text(int x, int y, const std::string& text, const Colour& colour) = 0;
  virtual int textWidth(const std::string& text) const = 0;
  virtual int lineHeight() const = 0;
};

/// The printable ASCII characters of a font as coverage masks (0 to 255) of one line height,
/// each as wide as the font advances for it. Other characters are drawn as nothing.
struct GlyphAtlas {
  static constexpr int kFirst = 32;
  static constexpr int kLast = 126;
  int height = 0;
  std::vector<int> offsets;          // of each character's mask in a row of `masks`, from kFirst
  std::vector<int> widths;           // [pixels]
  int rowWidth = 0;                  // sum of the widths
  std::vector<unsigned char> masks;  // height rows of rowWidth, bottom row first
};

/// Draws over an RGB picture in memory, 3 bytes a pixel, rows bottom-up (as OpenGL reads
/// them), clipped to the picture.
class PixelCanvas : public Canvas {
 public:
  PixelCanvas(unsigned char* rgb, int width, int height, const GlyphAtlas& glyphs);

  void fill(const PixelRect& r, const Colour& colour) override;
  void text(int x, int y, const std::string& text, const Colour& colour) override;
  int textWidth(const std::string& text) const override;
  int lineHeight() const override;

 private:
  unsigned char* fRgb;
  int fWidth;
  int fHeight;
  const GlyphAtlas& fGlyphs;
};

}  // namespace Sim
}  // namespace KR
