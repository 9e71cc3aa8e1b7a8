#pragma once
// OpenGL contexts for MuJoCo's renderer.
//
// OffscreenContext draws into MuJoCo's off-screen buffer without showing anything. It is made
// with EGL on Mesa's surfaceless platform, which needs no display server at all (Mesa renders
// in software with llvmpipe, or on a GPU it finds), or, when EGL offers no context, in a
// hidden GLFW window on the X display (under Xvfb on a machine without a screen). The
// environment variable KRTRACKER_GL=egl or KRTRACKER_GL=glfw restricts the choice to one.
//
// A context is used on the thread that made it current; MuJoCo's calls draw into the
// context current on the calling thread. GLFW and the EGL display are initialised once and
// stay so until the process ends (unloading the drivers would leave their allocations).

#include <memory>
#include <string>

struct GLFWwindow;

namespace KR {
namespace Sim {

class OffscreenContext {
 public:
  /// Makes a context and makes it current on this thread. KRError("krsim", "rendering", ...)
  /// saying what was tried and why it failed, with the way out (xvfb-run).
  OffscreenContext();
  ~OffscreenContext();
  OffscreenContext(const OffscreenContext&) = delete;
  OffscreenContext& operator=(const OffscreenContext&) = delete;

  void makeCurrent();
  /// "EGL" or "GLFW".
  const std::string& kind() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> fImpl;
};

/// Empty when an off-screen context can be made here; otherwise the reason, one line.
std::string offscreenRenderingProblem();

/// A GLFW window with an OpenGL context (double-buffered when visible), or KRError saying why
/// not. Destroyed with destroyGlfwWindow.
GLFWwindow* createGlfwWindow(int width, int height, const std::string& title, bool visible);
void destroyGlfwWindow(GLFWwindow* window);
/// Makes the window's context current on this thread, releasing an EGL context first.
void makeWindowCurrent(GLFWwindow* window);

}  // namespace Sim
}  // namespace KR
