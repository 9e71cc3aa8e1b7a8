#pragma once
// Pictures of a run: the robot as MuJoCo draws it, its targets (red spheres), the head
// camera's line of sight (yellow) and the direction from that camera to the target (thin red).
// The picture shows the simulation's state whatever its physics backend: joint angles, the
// base's true pose and the targets' positions are copied into a MuJoCo model of the robot.
//
// Drawing is off-screen through OpenGL in a hidden GLFW window, which needs an X display:
// on a machine without one, run under Xvfb (`xvfb-run -a krtracker-sim ...`). Without a
// display the renderer's constructor throws KRError("krsim", "snapshot", ...) saying so.
// The OpenGL context belongs to the thread that built the renderer; use it from that thread.

#include <memory>
#include <string>
#include <vector>

namespace KR {
namespace Model {
class Robot;
}
namespace Sim {

class Simulation;
struct UrdfSource;

/// An RGB picture, rows top-down, 3 bytes a pixel.
struct Picture {
  int width = 0;
  int height = 0;
  std::vector<unsigned char> rgb;
};

class SnapshotRenderer {
 public:
  /// Opens the off-screen drawing context for this robot; pictures are width x height pixels.
  explicit SnapshotRenderer(const Model::Robot& robot, int width = 960, int height = 720);
  /// A URDF robot is drawn from its URDF (mujoco_urdf.h).
  SnapshotRenderer(const Model::Robot& robot, const UrdfSource* urdf, int width = 960,
                   int height = 720);
  ~SnapshotRenderer();
  SnapshotRenderer(const SnapshotRenderer&) = delete;
  SnapshotRenderer& operator=(const SnapshotRenderer&) = delete;

  /// Draws the simulation as it is now. The line of sight is drawn as long as the distance to
  /// `target` (a world target's name; empty: the first target), or 2 m without targets.
  Picture render(Simulation& sim, const std::string& target = "");
  /// render() written to a PNG file; KRError when the file cannot be written.
  void write(Simulation& sim, const std::string& pngPath, const std::string& target = "");

 private:
  struct Impl;
  std::unique_ptr<Impl> fImpl;
};

/// One picture of the simulation, with a renderer opened for it (see SnapshotRenderer).
void writeSnapshot(Simulation& sim, const std::string& pngPath, const std::string& target = "");

}  // namespace Sim
}  // namespace KR
