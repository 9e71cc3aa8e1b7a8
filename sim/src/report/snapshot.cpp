#include <krsim/report/snapshot.h>

#include <algorithm>
#include <cmath>
#include <mutex>
#include <vector>

#include <GLFW/glfw3.h>
#include <mujoco/mujoco.h>
#include <png.h>

#include <kr/error.h>
#include <kr/math/math.h>

#include <krsim/robot/motion.h>
#include <krsim/robot/physics/mujoco.h>
#include <krsim/run/simulation.h>
#include <krsim/world/world.h>

namespace KR {
namespace Sim {

namespace {

constexpr const char* kModule = "krsim";

// GLFW stays initialised until the process ends: terminating it unloads the OpenGL driver,
// which leaves a few of its allocations behind.
std::mutex gGlfwMutex;
std::string gGlfwError;  // the last error GLFW reported, under gGlfwMutex

[[noreturn]] void fail(const std::string& what) {
  throw KRError(kModule, "snapshot", what);
}

void addConnector(mjvScene& scene, const Math::Position3D& a, const Math::Position3D& b,
                  double radius, const float rgba[4]) {
  if (scene.ngeom >= scene.maxgeom || Math::distance(a, b) < 1e-4f)
    return;
  mjvGeom* g = scene.geoms + scene.ngeom++;
  mjv_initGeom(g, mjGEOM_CAPSULE, nullptr, nullptr, nullptr, rgba);
  mjv_makeConnector(g, mjGEOM_CAPSULE, radius, a.x, a.y, a.z, b.x, b.y, b.z);
}

}  // namespace

struct SnapshotRenderer::Impl {
  MujocoBackend robot;
  int width;
  int height;
  GLFWwindow* window = nullptr;
  mjvScene scene;
  mjvOption option;
  mjrContext context;
  bool contextMade = false;

  Impl(const Model::Robot& r, const UrdfSource* urdf, int w, int h)
      : robot(r, urdf), width(w), height(h) {
    mjv_defaultScene(&scene);
    mjv_defaultOption(&option);
    mjr_defaultContext(&context);
  }
};

SnapshotRenderer::SnapshotRenderer(const Model::Robot& robot, int width, int height)
    : SnapshotRenderer(robot, nullptr, width, height) {}

SnapshotRenderer::SnapshotRenderer(const Model::Robot& robot, const UrdfSource* urdf, int width,
                                   int height)
    : fImpl(std::make_unique<Impl>(robot, urdf, width, height)) {
  const mjModel* m = fImpl->robot.model();
  if (width <= 0 || height <= 0 || width > m->vis.global.offwidth ||
      height > m->vis.global.offheight) {
    fail("a picture is 1x1 to " + std::to_string(m->vis.global.offwidth) + "x" +
         std::to_string(m->vis.global.offheight) + " pixels, not " + std::to_string(width) + "x" +
         std::to_string(height));
  }
  {
    std::lock_guard<std::mutex> lock(gGlfwMutex);
    glfwSetErrorCallback([](int, const char* text) { gGlfwError = text; });
    gGlfwError.clear();
    if (glfwInit() != GLFW_TRUE) {
      fail("cannot draw off-screen: no display for OpenGL (" + gGlfwError +
           "); run under Xvfb, e.g. xvfb-run -a <command>");
    }
    glfwWindowHint(GLFW_VISIBLE, GLFW_FALSE);
    glfwWindowHint(GLFW_DOUBLEBUFFER, GLFW_FALSE);
    fImpl->window = glfwCreateWindow(width, height, "krtracker snapshot", nullptr, nullptr);
    if (!fImpl->window)
      fail("cannot open an OpenGL context (" + gGlfwError + ")");
  }
  glfwMakeContextCurrent(fImpl->window);
  mjv_makeScene(m, &fImpl->scene, 2000);
  mjr_makeContext(m, &fImpl->context, mjFONTSCALE_100);
  fImpl->contextMade = true;
  mjr_setBuffer(mjFB_OFFSCREEN, &fImpl->context);
  if (fImpl->context.currentBuffer != mjFB_OFFSCREEN)
    fail("the OpenGL context has no off-screen buffer");
}

SnapshotRenderer::~SnapshotRenderer() {
  if (fImpl->contextMade) {
    glfwMakeContextCurrent(fImpl->window);
    mjr_freeContext(&fImpl->context);
  }
  mjv_freeScene(&fImpl->scene);
  std::lock_guard<std::mutex> lock(gGlfwMutex);
  if (fImpl->window) {
    glfwDestroyWindow(fImpl->window);
  }
}

Picture SnapshotRenderer::render(Simulation& sim, const std::string& target) {
  Impl& r = *fImpl;
  MujocoBackend& robot = r.robot;
  glfwMakeContextCurrent(r.window);

  // The simulation's state into the drawing model.
  SimMotion& motion = sim.motion();
  const std::vector<std::string> joints = motion.jointNames();
  for (std::size_t i = 0; i < joints.size(); ++i)
    robot.resetJoint(i, motion.getAngle(joints[i]));
  const Math::Pose2D base = motion.getTruePose();
  robot.resetBase(base);
  const std::vector<TargetState> targets = sim.world().states();
  const TargetState* aim = targets.empty() ? nullptr : &targets.front();
  for (const TargetState& t : targets) {
    if (t.name == target)
      aim = &t;
  }
  for (int i = 0; i < MujocoBackend::kTargetCount; ++i) {
    robot.setTargetPosition(
        i, i < static_cast<int>(targets.size()) ? targets[i].position : Math::Position3D(0, 0, -1));
  }
  robot.forward();

  // Seen from behind the robot and to its side, framing the robot and its target.
  const Math::Transform camera = motion.getMapToHeadEffector(sim.world().getCameraEffector());
  const Math::Position3D eye = camera.translation();
  Math::Position3D centre = eye * 0.5f;
  centre.x += 0.5f * base.x;
  centre.y += 0.5f * base.y;
  float span = 1.0f;
  if (aim) {
    centre = (eye + aim->position) * 0.5f;
    span = std::max(span, Math::distance(eye, aim->position));
  }
  mjvCamera view;
  mjv_defaultCamera(&view);
  view.type = mjCAMERA_FREE;
  view.lookat[0] = centre.x;
  view.lookat[1] = centre.y;
  view.lookat[2] = std::max(0.3f, centre.z);
  view.distance = 1.6 * span + 1.0;
  view.azimuth = base.theta * 180.0 / M_PI + 215.0;
  view.elevation = -25.0;
  mjv_updateScene(robot.model(), robot.data(), &r.option, nullptr, &view, mjCAT_ALL, &r.scene);

  const float yellow[4] = {1.0f, 0.85f, 0.1f, 1.0f};
  const float red[4] = {0.9f, 0.15f, 0.1f, 0.6f};
  const float sight = aim ? Math::distance(eye, aim->position) : 2.0f;
  addConnector(r.scene, eye, eye + camera.xAxis().normalize() * sight, 0.008, yellow);
  if (aim)
    addConnector(r.scene, eye, aim->position, 0.004, red);

  const mjrRect viewport = {0, 0, r.width, r.height};
  mjr_render(viewport, &r.scene, &r.context);
  std::vector<unsigned char> rows(static_cast<std::size_t>(3 * r.width * r.height));
  mjr_readPixels(rows.data(), nullptr, viewport, &r.context);
  // OpenGL's rows run bottom-up.
  Picture picture{r.width, r.height, std::vector<unsigned char>(rows.size())};
  const std::size_t stride = 3 * static_cast<std::size_t>(r.width);
  for (int y = 0; y < r.height; ++y) {
    std::copy_n(rows.begin() + static_cast<std::ptrdiff_t>(stride * (r.height - 1 - y)), stride,
                picture.rgb.begin() + static_cast<std::ptrdiff_t>(stride * y));
  }
  return picture;
}

void SnapshotRenderer::write(Simulation& sim, const std::string& pngPath,
                             const std::string& target) {
  const Picture picture = render(sim, target);
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  image.width = static_cast<png_uint_32>(picture.width);
  image.height = static_cast<png_uint_32>(picture.height);
  image.format = PNG_FORMAT_RGB;
  if (!png_image_write_to_file(&image, pngPath.c_str(), 0, picture.rgb.data(), 0, nullptr))
    fail("cannot write the picture '" + pngPath + "': " + image.message);
}

void writeSnapshot(Simulation& sim, const std::string& pngPath, const std::string& target) {
  SnapshotRenderer(sim.robot(), sim.description().urdf.get()).write(sim, pngPath, target);
}

}  // namespace Sim
}  // namespace KR
