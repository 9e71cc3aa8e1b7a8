#include <krsim/report/snapshot.h>

#include <algorithm>

#include <png.h>

#include <kr/error.h>

#include <krsim/report/gl_context.h>
#include <krsim/report/run_frame.h>
#include <krsim/report/scene_renderer.h>
#include <krsim/run/scenario_run.h>

namespace KR {
namespace Sim {

struct SnapshotRenderer::Impl {
  // The context outlives the renderer.
  OffscreenContext context;
  SceneRenderer renderer;
  RunFrame frame;
  int width;
  int height;

  Impl(ScenarioRun& run, int w, int h)
      : renderer(run.simulation()), frame(run), width(w), height(h) {
    renderer.glyphs();  // drawn off screen once, before any picture
  }
};

SnapshotRenderer::SnapshotRenderer(ScenarioRun& run, int width, int height)
    : fImpl(std::make_unique<Impl>(run, width, height)) {
  const SceneRenderer& r = fImpl->renderer;
  if (width <= 0 || height <= 0 || width > r.maxWidth() || height > r.maxHeight()) {
    throw KRError("krsim", "snapshot",
                  "a picture is 1x1 to " + std::to_string(r.maxWidth()) + "x" +
                      std::to_string(r.maxHeight()) + " pixels, not " + std::to_string(width) +
                      "x" + std::to_string(height));
  }
}

SnapshotRenderer::~SnapshotRenderer() {
  // The renderer frees its buffers in its own context.
  fImpl->context.makeCurrent();
}

Picture SnapshotRenderer::render() {
  Impl& r = *fImpl;
  r.context.makeCurrent();
  std::vector<unsigned char> rows(3 * static_cast<std::size_t>(r.width) *
                                  static_cast<std::size_t>(r.height));
  r.frame.drawInMemory(r.renderer, {0, 0, r.width, r.height}, RunFrame::Camera::Overview,
                       rows.data());
  // OpenGL's rows run bottom-up.
  Picture picture{r.width, r.height, std::vector<unsigned char>(rows.size())};
  const std::size_t stride = 3 * static_cast<std::size_t>(r.width);
  for (int y = 0; y < r.height; ++y) {
    std::copy_n(rows.begin() + static_cast<std::ptrdiff_t>(stride * (r.height - 1 - y)), stride,
                picture.rgb.begin() + static_cast<std::ptrdiff_t>(stride * y));
  }
  return picture;
}

void SnapshotRenderer::write(const std::string& pngPath) {
  const Picture picture = render();
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  image.width = static_cast<png_uint_32>(picture.width);
  image.height = static_cast<png_uint_32>(picture.height);
  image.format = PNG_FORMAT_RGB;
  if (!png_image_write_to_file(&image, pngPath.c_str(), 0, picture.rgb.data(), 0, nullptr)) {
    throw KRError("krsim", "snapshot",
                  "cannot write the picture '" + pngPath + "': " + image.message);
  }
}

}  // namespace Sim
}  // namespace KR
