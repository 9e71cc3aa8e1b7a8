#pragma once
// SceneRenderer: the simulation as MuJoCo's renderer draws it. The robot in its current
// state (joint angles and the base's true pose copied into a MuJoCo model of the robot,
// whatever the run's physics backend), its targets, a 1 m grid on the floor, and over them
// (colours in krsim/report/caption.h): the head camera's line of sight, the direction from
// that camera to the target, and the detections the tracking service received, each where
// it placed the target, fading over 0.6 s (a halo around that point; a box around it in
// the head camera's picture). Seen from a camera that follows the robot from
// behind and above, from a camera framing the robot and its target, or through the head
// camera itself; boxes and text drawn over the picture (krsim/report/canvas.h).
//
// Needs an OpenGL context current on the calling thread, from construction to destruction
// (an OffscreenContext, or a window's). Draws into MuJoCo's off-screen buffer, or into the
// window's with useWindow(true).

#include <memory>
#include <string>
#include <vector>

#include <kr/math/types.h>

#include <krsim/report/canvas.h>
#include <krsim/report/caption.h>

namespace KR {
namespace Sim {

class Simulation;

/// A detection as the tracking service received it.
struct DetectionMark {
  Math::Position3D position;  // map frame [m]
  double ageS = 0.0;          // since it was received [s]
};

/// Where the follow camera looks from, about the robot's heading.
struct ViewAngles {
  double azimuthDeg = -30.0;    // about the vertical, from straight behind; positive: to the
                                // robot's right, looking to its left
  double elevationDeg = -24.0;  // negative: looking down
  double distanceM = 2.1;       // from the point looked at, 0.5 m ahead of the robot [m]; both
                                // grow with a head camera higher than 0.55 m
};

class SceneRenderer : public Canvas {
 public:
  /// Draws `sim`'s robot (from its URDF when it has one). `shadows`: the light casts shadows (about
  /// twice the drawing time in software, and the marks drawn over the scene cast theirs too).
  /// KRError("krsim", "rendering", ...) when MuJoCo cannot draw with the current context.
  explicit SceneRenderer(Simulation& sim, bool shadows = false);
  ~SceneRenderer() override;
  SceneRenderer(const SceneRenderer&) = delete;
  SceneRenderer& operator=(const SceneRenderer&) = delete;

  /// The largest picture the off-screen buffer holds [pixels].
  int maxWidth() const;
  int maxHeight() const;
  /// Draw into the window of the current context (true) or off screen (false, the default).
  void useWindow(bool window);

  /// Copies the simulation's state. `target`: the world target the line of sight runs to
  /// (empty: the first one); `detections` are drawn as marks.
  void update(Simulation& sim, const std::string& target,
              const std::vector<DetectionMark>& detections = {});

  /// The scene seen from behind and above the robot, turning with it.
  void drawFollowView(const PixelRect& r, const ViewAngles& angles);
  /// The scene seen from behind the robot and to its side, framing the robot and its target.
  void drawOverview(const PixelRect& r);
  /// What the head camera sees; `r` should have the aspect of headCameraAspect().
  void drawHeadCamera(const PixelRect& r);
  /// Over that picture: the camera's axis (a cross) and a box around each detection received
  /// in the last 0.6 s.
  void markHeadCamera(Canvas& canvas, const PixelRect& r) const;
  /// Width over height of the head camera's picture.
  double headCameraAspect() const;

  // ---- over the picture, through OpenGL ------------------------------------------------
  void fill(const PixelRect& r, const Colour& colour) override;
  void text(int x, int y, const std::string& text, const Colour& colour) override;
  int textWidth(const std::string& text) const override;
  int lineHeight() const override;
  /// The font of text(), for a PixelCanvas; drawn off screen once, then kept.
  const GlyphAtlas& glyphs();

  /// The pixels of `r`, 3 bytes (R, G, B) each, rows bottom-up; `rgb` holds 3 x area bytes.
  void readPixels(const PixelRect& r, unsigned char* rgb);

 private:
  struct Impl;
  std::unique_ptr<Impl> fImpl;
};

}  // namespace Sim
}  // namespace KR
