#include <krsim/report/scene_renderer.h>

#include <algorithm>
#include <cmath>

#include <mujoco/mujoco.h>

#include <kr/error.h>
#include <kr/math/math.h>

#include <krsim/robot/motion.h>
#include <krsim/robot/physics/mujoco.h>
#include <krsim/run/simulation.h>
#include <krsim/world/world.h>

namespace KR {
namespace Sim {

namespace {

constexpr double kRadToDeg = 180.0 / M_PI;
constexpr double kMarkSeconds = 0.6;    // a detection's mark fades out over this [s]
constexpr double kMarkRadius = 0.07;    // around the 5 cm sphere of a target [m]
constexpr double kFloorSquare = 2.0;    // the floor is drawn in squares of this size [m]
constexpr float kHiddenOpacity = 0.3f;  // of a target while it is occluded
constexpr int kGridHalfWidth = 6;       // floor grid lines this far around the robot [m]
constexpr double kLookAhead = 0.5;      // the follow camera looks this far ahead [m]
constexpr double kFramedHeight = 0.55;  // of the head camera the follow view is framed for [m]
constexpr double kSkyRadius = 8.0;      // [m], within the far clipping plane

struct ModelDeleter {
  void operator()(mjModel* m) const { mj_deleteModel(m); }
};

/// Opacity factor of a detection's mark: 1 when received, 0 after kMarkSeconds.
float fade(const DetectionMark& mark) {
  return static_cast<float>(std::clamp(1.0 - mark.ageS / kMarkSeconds, 0.0, 1.0));
}

mjrRect toMujoco(const PixelRect& r) {
  return mjrRect{r.x, r.y, r.width, r.height};
}

void addConnector(mjvScene& scene, int type, double width, const Math::Position3D& a,
                  const Math::Position3D& b, const Colour& colour) {
  if (scene.ngeom >= scene.maxgeom || Math::distance(a, b) < 1e-4f)
    return;
  mjvGeom* g = scene.geoms + scene.ngeom++;
  mjv_initGeom(g, type, nullptr, nullptr, nullptr, colour.data());
  mjv_makeConnector(g, type, width, a.x, a.y, a.z, b.x, b.y, b.z);
}

void addSphere(mjvScene& scene, const Math::Position3D& p, double radius, const Colour& colour) {
  if (scene.ngeom >= scene.maxgeom)
    return;
  const mjtNum size[3] = {radius, radius, radius};
  const mjtNum pos[3] = {p.x, p.y, p.z};
  mjv_initGeom(scene.geoms + scene.ngeom++, mjGEOM_SPHERE, size, pos, nullptr, colour.data());
}

}  // namespace

struct SceneRenderer::Impl {
  MujocoBackend robot;  // the state being drawn
  const Model::Robot& robotModel;
  std::unique_ptr<mjModel, ModelDeleter> model;  // its model with the drawing settings
  mjvScene scene;
  mjvOption option;
  mjrContext context;
  bool contextMade = false;
  double aspect = 4.0 / 3.0;  // of the head camera's picture
  double verticalFov = 0.8;   // of the head camera [rad]

  // The state of the last update().
  Math::Pose2D base;
  Math::Transform camera;  // head camera in the map frame
  int cameraId = 0;        // MuJoCo camera of the world's camera effector
  bool hasAim = false;
  Math::Position3D aim;  // the target the line of sight runs to, map frame
  std::vector<DetectionMark> detections;
  GlyphAtlas glyphs;             // captured on first use
  std::vector<int> targetGeoms;  // the sphere of each target's body

  Impl(const Model::Robot& r, const UrdfSource* urdf) : robot(r, urdf), robotModel(r) {
    mjv_defaultScene(&scene);
    mjv_defaultOption(&option);
    mjr_defaultContext(&context);
  }

  /// A sky about the robot: four walls, lit evenly, whose inner faces the cameras see (a
  /// sphere would be seen from inside, where its faces are culled).
  void addSky() {
    const double size[4][3] = {{0.1, kSkyRadius, kSkyRadius},
                               {0.1, kSkyRadius, kSkyRadius},
                               {kSkyRadius, 0.1, kSkyRadius},
                               {kSkyRadius, 0.1, kSkyRadius}};
    const double offset[4][2] = {
        {kSkyRadius, 0}, {-kSkyRadius, 0}, {0, kSkyRadius}, {0, -kSkyRadius}};
    for (int i = 0; i < 4 && scene.ngeom < scene.maxgeom; ++i) {
      const mjtNum pos[3] = {base.x + offset[i][0], base.y + offset[i][1], 0.0};
      mjvGeom* g = scene.geoms + scene.ngeom++;
      mjv_initGeom(g, mjGEOM_BOX, size[i], pos, nullptr, SceneColours::kSky.data());
      g->emission = 0.35f;  // with the headlight, about kSky whichever way a wall faces
      g->specular = 0.0f;
    }
  }

  /// The head camera of a head effector (0, 1 or 2): its MuJoCo camera and its lens.
  void useCamera(int effector) {
    static const char* const kNames[] = {"CameraTop", "CameraBottom", "DepthCamera"};
    const int e = std::clamp(effector, 0, 2);
    cameraId = std::max(0, mj_name2id(model.get(), mjOBJ_CAMERA, kNames[e]));
    verticalFov = robotModel.getCameraVerticalFov(e);
    aspect = std::tan(0.5 * robotModel.getCameraHorizontalFov(e)) / std::tan(0.5 * verticalFov);
  }

  /// A target inside one of its scripted occlusions is drawn faded: the camera cannot see it.
  void fadeHiddenTargets(const std::vector<TargetScript>& scripts, double time) {
    for (std::size_t i = 0; i < scripts.size() && i < targetGeoms.size(); ++i) {
      const auto& hidden = scripts[i].hidden;
      const bool occluded = std::any_of(hidden.begin(), hidden.end(),
                                        [time](const TimeInterval& h) { return h.contains(time); });
      model->geom_rgba[4 * targetGeoms[i] + 3] = occluded ? kHiddenOpacity : 1.0f;
    }
  }

  /// The floor grid.
  void addGrid() {
    const float cx = std::round(base.x);
    const float cy = std::round(base.y);
    for (int i = -kGridHalfWidth; i <= kGridHalfWidth; ++i) {
      const float d = static_cast<float>(i);
      const float h = static_cast<float>(kGridHalfWidth);
      addConnector(scene, mjGEOM_LINE, 1.0, {cx + d, cy - h, 0.001f}, {cx + d, cy + h, 0.001f},
                   SceneColours::kFloorGrid);
      addConnector(scene, mjGEOM_LINE, 1.0, {cx - h, cy + d, 0.001f}, {cx + h, cy + d, 0.001f},
                   SceneColours::kFloorGrid);
    }
  }

  /// The line of sight, the direction to the target and the detections (a halo around where
  /// each placed the target), seen from outside the head.
  void addSightMarks() {
    for (const DetectionMark& mark : detections) {
      Colour colour = SceneColours::kDetection;
      colour[3] *= fade(mark);
      if (colour[3] > 0.02f)
        addSphere(scene, mark.position, kMarkRadius, colour);
    }
    const Math::Position3D eye = camera.translation();
    const float sight = hasAim ? Math::distance(eye, aim) : 2.0f;
    addConnector(scene, mjGEOM_CAPSULE, 0.008, eye, eye + camera.xAxis().normalize() * sight,
                 SceneColours::kLineOfSight);
    if (hasAim)
      addConnector(scene, mjGEOM_CAPSULE, 0.004, eye, aim, SceneColours::kToTarget);
  }

  void render(const PixelRect& r, mjvCamera& view, bool sightMarks) {
    mjv_updateScene(model.get(), robot.data(), &option, nullptr, &view, mjCAT_ALL, &scene);
    addSky();
    addGrid();
    if (sightMarks)
      addSightMarks();
    mjr_render(toMujoco(r), &scene, &context);
  }
};

SceneRenderer::SceneRenderer(Simulation& sim, bool shadows)
    : fImpl(std::make_unique<Impl>(sim.robot(), sim.description().urdf.get())) {
  Impl& r = *fImpl;
  r.model.reset(mj_copyModel(nullptr, r.robot.model()));
  if (!r.model)
    throw KRError("krsim", "rendering", "cannot copy the robot's MuJoCo model");
  // Drawn in software on most machines without a GPU: no multisampling, and a shadow map
  // of 1024 pixels, which keeps a 1280x720 picture at about 10 to 20 ms.
  r.model->vis.quality.offsamples = 0;
  r.model->vis.quality.shadowsize = 1024;
  // The floor is drawn as squares of its third size: 10 cm squares make 40,000 of them, which
  // cost more than the rest of the scene; the grid lines are drawn over it anyway.
  for (int g = 0; g < r.model->ngeom; ++g) {
    if (r.model->geom_type[g] == mjGEOM_PLANE)
      r.model->geom_size[3 * g + 2] = kFloorSquare;
  }
  r.model->vis.headlight.ambient[0] = r.model->vis.headlight.ambient[1] =
      r.model->vis.headlight.ambient[2] = 0.25f;
  for (int i = 0; i < MujocoBackend::kTargetCount; ++i) {
    const std::string name = "Target" + std::to_string(i);
    const int body = mj_name2id(r.model.get(), mjOBJ_BODY, name.c_str());
    if (body >= 0 && r.model->body_geomnum[body] > 0)
      r.targetGeoms.push_back(r.model->body_geomadr[body]);
  }
  mjv_makeScene(r.model.get(), &r.scene, 2000);
  if (!shadows)
    r.scene.flags[mjRND_SHADOW] = 0;
  mjr_makeContext(r.model.get(), &r.context, mjFONTSCALE_150);
  r.contextMade = true;
  useWindow(false);
  if (r.context.currentBuffer != mjFB_OFFSCREEN)
    throw KRError("krsim", "rendering", "the OpenGL context has no off-screen buffer");
  r.useCamera(sim.world().getCameraEffector());
}

SceneRenderer::~SceneRenderer() {
  if (fImpl->contextMade)
    mjr_freeContext(&fImpl->context);
  mjv_freeScene(&fImpl->scene);
}

int SceneRenderer::maxWidth() const {
  return fImpl->context.offWidth;
}

int SceneRenderer::maxHeight() const {
  return fImpl->context.offHeight;
}

void SceneRenderer::useWindow(bool window) {
  mjr_setBuffer(window ? mjFB_WINDOW : mjFB_OFFSCREEN, &fImpl->context);
}

void SceneRenderer::update(Simulation& sim, const std::string& target,
                           const std::vector<DetectionMark>& detections) {
  Impl& r = *fImpl;
  MujocoBackend& robot = r.robot;
  SimMotion& motion = sim.motion();
  const std::vector<std::string> joints = motion.jointNames();
  for (std::size_t i = 0; i < joints.size(); ++i)
    robot.resetJoint(i, motion.getAngle(joints[i]));
  r.base = motion.getTruePose();
  robot.resetBase(r.base);
  const std::vector<TargetState> targets = sim.world().states();
  r.hasAim = false;
  for (const TargetState& t : targets) {
    if (!r.hasAim || t.name == target) {
      r.aim = t.position;
      r.hasAim = true;
    }
  }
  for (int i = 0; i < MujocoBackend::kTargetCount; ++i) {
    robot.setTargetPosition(
        i, i < static_cast<int>(targets.size()) ? targets[i].position : Math::Position3D(0, 0, -1));
  }
  r.fadeHiddenTargets(sim.world().targets(), sim.time());
  robot.forward();
  const int effector = sim.world().getCameraEffector();
  r.camera = motion.getMapToHeadEffector(effector);
  r.useCamera(effector);
  r.detections = detections;
}

void SceneRenderer::drawFollowView(const PixelRect& rect, const ViewAngles& angles) {
  Impl& r = *fImpl;
  mjvCamera view;
  mjv_defaultCamera(&view);
  view.type = mjCAMERA_FREE;
  // Framed for a robot whose head camera is kFramedHeight high; a taller one is seen from
  // further away.
  const double scale = std::max(1.0, r.camera.translation().z / kFramedHeight);
  view.lookat[0] = r.base.x + scale * kLookAhead * std::cos(r.base.theta);
  view.lookat[1] = r.base.y + scale * kLookAhead * std::sin(r.base.theta);
  view.lookat[2] = 0.6 * r.camera.translation().z;
  view.distance = scale * angles.distanceM;
  view.azimuth = r.base.theta * kRadToDeg + angles.azimuthDeg;
  view.elevation = angles.elevationDeg;
  r.render(rect, view, true);
}

void SceneRenderer::drawOverview(const PixelRect& rect) {
  Impl& r = *fImpl;
  const Math::Position3D eye = r.camera.translation();
  Math::Position3D centre = eye * 0.5f;
  centre.x += 0.5f * r.base.x;
  centre.y += 0.5f * r.base.y;
  float span = 1.0f;
  if (r.hasAim) {
    centre = (eye + r.aim) * 0.5f;
    span = std::max(span, Math::distance(eye, r.aim));
  }
  mjvCamera view;
  mjv_defaultCamera(&view);
  view.type = mjCAMERA_FREE;
  view.lookat[0] = centre.x;
  view.lookat[1] = centre.y;
  view.lookat[2] = std::max(0.3f, centre.z);
  view.distance = 1.6 * span + 1.0;
  view.azimuth = r.base.theta * kRadToDeg + 215.0;
  view.elevation = -25.0;
  r.render(rect, view, true);
}

void SceneRenderer::drawHeadCamera(const PixelRect& rect) {
  Impl& r = *fImpl;
  mjvCamera view;
  mjv_defaultCamera(&view);
  view.type = mjCAMERA_FIXED;
  view.fixedcamid = r.cameraId;
  // The line of sight would run from the eye into the picture: markHeadCamera() draws a
  // cross instead.
  r.render(rect, view, false);
}

void SceneRenderer::markHeadCamera(Canvas& canvas, const PixelRect& rect) const {
  // The axis: a cross open in the middle, so as not to hide a target on it.
  const int cx = rect.x + rect.width / 2;
  const int cy = rect.y + rect.height / 2;
  const int arm = std::max(6, rect.width / 24);
  const int gap = std::max(4, rect.width / 16);
  const Colour& c = SceneColours::kCameraAxis;
  canvas.fill({cx - gap - arm, cy, arm, 2}, c);
  canvas.fill({cx + gap, cy, arm, 2}, c);
  canvas.fill({cx, cy - gap - arm, 2, arm}, c);
  canvas.fill({cx, cy + gap, 2, arm}, c);

  // A box about each detection: pinhole projection through the head camera (x forward,
  // y left, z up), the same focal length across and up, the picture having the lens's aspect.
  const Impl& r = *fImpl;
  const Math::Transform toCamera = Math::pinv(r.camera);
  const double focal = 0.5 * rect.height / std::tan(0.5 * r.verticalFov);
  for (const DetectionMark& mark : r.detections) {
    const Math::Position3D p = toCamera * mark.position;
    Colour colour = SceneColours::kDetection;
    colour[3] = std::min(1.0f, 2.0f * colour[3]) * fade(mark);
    if (p.x < 0.05f || colour[3] <= 0.02f)
      continue;
    const int u = rect.x + static_cast<int>(std::lround(0.5 * rect.width - focal * p.y / p.x));
    const int v = rect.y + static_cast<int>(std::lround(0.5 * rect.height + focal * p.z / p.x));
    const int half = std::max(3, static_cast<int>(focal * kMarkRadius / p.x));
    // Clipped to the inset.
    const int left = std::max(rect.x, u - half);
    const int right = std::min(rect.x + rect.width, u + half);
    const int bottom = std::max(rect.y, v - half);
    const int top = std::min(rect.y + rect.height, v + half);
    if (left >= right || bottom >= top)
      continue;
    canvas.fill({left, bottom, right - left, 2}, colour);
    canvas.fill({left, top - 2, right - left, 2}, colour);
    canvas.fill({left, bottom, 2, top - bottom}, colour);
    canvas.fill({right - 2, bottom, 2, top - bottom}, colour);
  }
}

double SceneRenderer::headCameraAspect() const {
  return fImpl->aspect;
}

void SceneRenderer::fill(const PixelRect& r, const Colour& c) {
  mjr_rectangle(toMujoco(r), c[0], c[1], c[2], c[3]);
}

void SceneRenderer::text(int x, int y, const std::string& text, const Colour& c) {
  // A label left-aligned: its box is the text's own width, drawn transparent.
  const mjrRect box{x, y, textWidth(text), lineHeight()};
  mjr_label(box, mjFONT_NORMAL, text.c_str(), 0, 0, 0, 0, c[0], c[1], c[2], &fImpl->context);
}

int SceneRenderer::textWidth(const std::string& text) const {
  int w = 0;
  for (const char ch : text) {
    const auto i = static_cast<unsigned char>(ch);
    w += i < 127 ? fImpl->context.charWidth[i] : 0;
  }
  return w;
}

int SceneRenderer::lineHeight() const {
  return fImpl->context.charHeight;
}

const GlyphAtlas& SceneRenderer::glyphs() {
  Impl& r = *fImpl;
  if (r.glyphs.height > 0)
    return r.glyphs;
  // White characters on black in a grid of 16 columns, read back once as coverage.
  GlyphAtlas& g = r.glyphs;
  const int count = GlyphAtlas::kLast - GlyphAtlas::kFirst + 1;
  int cell = 1;
  for (int c = GlyphAtlas::kFirst; c <= GlyphAtlas::kLast; ++c)
    cell = std::max(cell, r.context.charWidth[c]);
  const int columns = 16;
  const int rows = (count + columns - 1) / columns;
  const PixelRect grid{0, 0, columns * cell, rows * lineHeight()};
  useWindow(false);
  fill(grid, {0.0f, 0.0f, 0.0f, 1.0f});
  for (int i = 0; i < count; ++i) {
    text((i % columns) * cell, (i / columns) * lineHeight(),
         std::string(1, static_cast<char>(GlyphAtlas::kFirst + i)), {1.0f, 1.0f, 1.0f, 1.0f});
  }
  std::vector<unsigned char> rgb(3 * static_cast<std::size_t>(grid.width) *
                                 static_cast<std::size_t>(grid.height));
  readPixels(grid, rgb.data());
  g.height = lineHeight();
  for (int i = 0; i < count; ++i) {
    g.offsets.push_back(g.rowWidth);
    g.widths.push_back(r.context.charWidth[GlyphAtlas::kFirst + i]);
    g.rowWidth += g.widths.back();
  }
  g.masks.assign(static_cast<std::size_t>(g.rowWidth) * static_cast<std::size_t>(g.height), 0);
  for (int i = 0; i < count; ++i) {
    const int x0 = (i % columns) * cell;
    const int y0 = (i / columns) * g.height;
    for (int y = 0; y < g.height; ++y) {
      for (int x = 0; x < g.widths[static_cast<std::size_t>(i)]; ++x) {
        g.masks[static_cast<std::size_t>(y * g.rowWidth + g.offsets[static_cast<std::size_t>(i)] +
                                         x)] =
            rgb[3 * static_cast<std::size_t>((y0 + y) * grid.width + x0 + x)];
      }
    }
  }
  return g;
}

void SceneRenderer::readPixels(const PixelRect& r, unsigned char* rgb) {
  mjr_readPixels(rgb, nullptr, toMujoco(r), &fImpl->context);
}

}  // namespace Sim
}  // namespace KR
