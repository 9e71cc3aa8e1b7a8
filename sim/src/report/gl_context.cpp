#include <krsim/report/gl_context.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <vector>

#include <EGL/egl.h>
#include <EGL/eglext.h>
#include <GLFW/glfw3.h>

#include <kr/error.h>

namespace KR {
namespace Sim {

namespace {

[[noreturn]] void fail(const std::string& what) {
  throw KRError("krsim", "rendering", what);
}

// ---- GLFW, on the X display ------------------------------------------------------------------

std::mutex gGlfwMutex;
// The last error GLFW reported on this thread: GLFW calls back on the thread whose call failed,
// also for calls made outside createGlfwWindow's lock.
thread_local std::string gGlfwError;
std::atomic<bool> gGlfwReady{false};  // glfwInit succeeded

/// The GLFW context current on this thread, null also before GLFW is initialised.
GLFWwindow* currentGlfwContext() {
  return gGlfwReady ? glfwGetCurrentContext() : nullptr;
}

// ---- EGL, without a display server -----------------------------------------------------------

struct EglDisplay {
  EGLDisplay display = EGL_NO_DISPLAY;
  std::string problem;  // why there is none
};

/// Mesa's surfaceless platform, else the first EGL device (a GPU's driver).
EGLDisplay openEglDisplay() {
  EGLDisplay d = eglGetPlatformDisplay(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, nullptr);
  if (d != EGL_NO_DISPLAY && eglInitialize(d, nullptr, nullptr) == EGL_TRUE)
    return d;
  auto queryDevices =
      reinterpret_cast<PFNEGLQUERYDEVICESEXTPROC>(eglGetProcAddress("eglQueryDevicesEXT"));
  EGLDeviceEXT device = nullptr;
  EGLint count = 0;
  if (queryDevices != nullptr && queryDevices(1, &device, &count) == EGL_TRUE && count > 0) {
    d = eglGetPlatformDisplay(EGL_PLATFORM_DEVICE_EXT, device, nullptr);
    if (d != EGL_NO_DISPLAY && eglInitialize(d, nullptr, nullptr) == EGL_TRUE)
      return d;
  }
  return EGL_NO_DISPLAY;
}

/// Initialised on first use, kept for the process.
const EglDisplay& eglDisplay() {
  static const EglDisplay display = [] {
    EglDisplay e;
    e.display = openEglDisplay();
    if (e.display == EGL_NO_DISPLAY)
      e.problem = "EGL has neither Mesa's surfaceless platform nor a device";
    else if (eglBindAPI(EGL_OPENGL_API) != EGL_TRUE)
      e.problem = "EGL offers no desktop OpenGL";
    return e;
  }();
  return display;
}

EGLContext makeEglContext(EGLDisplay display, std::string& problem) {
  // No surface is drawn into (MuJoCo has its own framebuffer), but a configuration must name
  // one kind: pbuffers are what surfaceless and device displays offer.
  const EGLint attributes[] = {EGL_RENDERABLE_TYPE, EGL_OPENGL_BIT, EGL_SURFACE_TYPE,
                               EGL_PBUFFER_BIT, EGL_NONE};
  EGLConfig config = nullptr;
  EGLint count = 0;
  if (eglChooseConfig(display, attributes, &config, 1, &count) != EGL_TRUE || count < 1) {
    problem = "EGL has no OpenGL configuration";
    return EGL_NO_CONTEXT;
  }
  eglBindAPI(EGL_OPENGL_API);
  EGLContext context = eglCreateContext(display, config, EGL_NO_CONTEXT, nullptr);
  if (context == EGL_NO_CONTEXT) {
    problem = "EGL cannot create an OpenGL context";
    return EGL_NO_CONTEXT;
  }
  if (eglMakeCurrent(display, EGL_NO_SURFACE, EGL_NO_SURFACE, context) != EGL_TRUE) {
    eglDestroyContext(display, context);
    problem = "EGL cannot use a context without a surface";
    return EGL_NO_CONTEXT;
  }
  return context;
}

/// Which ways to try, from KRTRACKER_GL.
void allowedKinds(bool& egl, bool& glfw) {
  const char* choice = std::getenv("KRTRACKER_GL");
  const std::string text = choice == nullptr ? "" : choice;
  egl = text.empty() || text == "egl";
  glfw = text.empty() || text == "glfw";
  if (!egl && !glfw)
    fail("KRTRACKER_GL is egl or glfw, not '" + text + "'");
}

}  // namespace

GLFWwindow* createGlfwWindow(int width, int height, const std::string& title, bool visible) {
  std::lock_guard<std::mutex> lock(gGlfwMutex);
  glfwSetErrorCallback([](int, const char* text) { gGlfwError = text; });
  gGlfwError.clear();
  if (glfwInit() != GLFW_TRUE)
    fail("no X display for OpenGL (" + gGlfwError + ")");
  gGlfwReady = true;
  glfwDefaultWindowHints();
  glfwWindowHint(GLFW_VISIBLE, visible ? GLFW_TRUE : GLFW_FALSE);
  glfwWindowHint(GLFW_DOUBLEBUFFER, visible ? GLFW_TRUE : GLFW_FALSE);
  GLFWwindow* window = glfwCreateWindow(width, height, title.c_str(), nullptr, nullptr);
  if (window == nullptr)
    fail("cannot open an OpenGL window (" + gGlfwError + ")");
  return window;
}

void destroyGlfwWindow(GLFWwindow* window) {
  std::lock_guard<std::mutex> lock(gGlfwMutex);
  if (window != nullptr)
    glfwDestroyWindow(window);
}

struct OffscreenContext::Impl {
  std::string kind;
  EGLDisplay display = EGL_NO_DISPLAY;
  EGLContext context = EGL_NO_CONTEXT;
  GLFWwindow* window = nullptr;
};

OffscreenContext::OffscreenContext() : fImpl(std::make_unique<Impl>()) {
  bool egl = false;
  bool glfw = false;
  allowedKinds(egl, glfw);
  std::string eglProblem = "not tried (KRTRACKER_GL)";
  if (egl) {
    const EglDisplay& d = eglDisplay();
    eglProblem = d.problem;
    if (d.problem.empty()) {
      fImpl->context = makeEglContext(d.display, eglProblem);
      if (fImpl->context != EGL_NO_CONTEXT) {
        fImpl->display = d.display;
        fImpl->kind = "EGL";
        return;
      }
    }
  }
  const char* display = std::getenv("DISPLAY");
  if (!glfw || display == nullptr || *display == '\0') {
    fail("cannot draw off-screen: " + eglProblem + ", and " +
         (glfw ? "there is no X display" : "GLFW is not tried (KRTRACKER_GL)") +
         "; run under Xvfb, e.g. xvfb-run -a <command>");
  }
  try {
    fImpl->window = createGlfwWindow(64, 64, "krtracker off-screen", false);
  } catch (const KRError& e) {
    fail("cannot draw off-screen: " + eglProblem + ", and " + e.message());
  }
  fImpl->kind = "GLFW";
  makeCurrent();
}

OffscreenContext::~OffscreenContext() {
  if (fImpl->context != EGL_NO_CONTEXT) {
    if (eglGetCurrentContext() == fImpl->context)
      eglMakeCurrent(fImpl->display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    eglDestroyContext(fImpl->display, fImpl->context);
  }
  if (fImpl->window != nullptr) {
    if (currentGlfwContext() == fImpl->window)
      glfwMakeContextCurrent(nullptr);
    destroyGlfwWindow(fImpl->window);
  }
}

void OffscreenContext::makeCurrent() {
  if (fImpl->context != EGL_NO_CONTEXT) {
    // One window system's context current per thread: a GLFW (GLX) one is released first.
    if (currentGlfwContext() != nullptr)
      glfwMakeContextCurrent(nullptr);
    eglMakeCurrent(fImpl->display, EGL_NO_SURFACE, EGL_NO_SURFACE, fImpl->context);
  } else {
    makeWindowCurrent(fImpl->window);
  }
}

void makeWindowCurrent(GLFWwindow* window) {
  if (eglGetCurrentContext() != EGL_NO_CONTEXT)
    eglMakeCurrent(eglGetCurrentDisplay(), EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
  glfwMakeContextCurrent(window);
}

const std::string& OffscreenContext::kind() const {
  return fImpl->kind;
}

std::string offscreenRenderingProblem() {
  try {
    OffscreenContext context;
  } catch (const KRError& e) {
    return e.message();
  }
  return {};
}

}  // namespace Sim
}  // namespace KR
