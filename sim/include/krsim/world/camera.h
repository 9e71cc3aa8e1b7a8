#pragma once
// The head camera's settings: frame rate, latency, dropouts and noise, with their defaults.

namespace KR {
namespace Sim {

/// How the head camera and its on-board detector see. The defaults are those of a typical
/// robot head camera running a face or ball detector on board:
/// - 15 Hz: detectors on an embedded CPU or a small accelerator run at 10 to 30 Hz; 15 Hz is
///   the middle of that range (one frame in two of a 30 fps sensor).
/// - 80 ms: capture to delivery adds half a frame of exposure and readout (17 ms at 30 fps),
///   the detector's inference (30 to 50 ms) and the transport to the robot's middleware
///   (10 ms); published measurements of such pipelines lie between 30 and 150 ms.
/// - 3 mrad of angular error: about 2 pixels of centroid jitter for a 640-pixel-wide image
///   across a 60-degree lens (560 pixels of focal length).
/// - distance error 0.02 * d^2 [m] at d metres: the distance comes from the apparent size of
///   the target, whose pixel error is relative to a size that shrinks as 1/d; 2 % at 1 m is
///   one pixel on the 30-pixel image of a 6 cm ball, then growing with the square.
/// - no dropout by default, so that a run shows the latency alone; 0.1 is a typical miss
///   rate of a detector on a moving target.
struct CameraConfig {
  double cameraRateHz = 15.0;   // frames per second; 0: a frame every update
  double latencyS = 0.08;       // capture to delivery [s]
  double dropout = 0.0;         // probability that a frame misses the target
  float angleNoise = 0.003f;    // standard deviation of each of two angles [rad]
  float distanceNoise = 0.02f;  // standard deviation of the distance over its square [1/m]

  /// A frame every update, delivered at once, exact and never missed.
  static CameraConfig ideal() { return {0.0, 0.0, 0.0, 0.0f, 0.0f}; }

  /// KRError naming the first field out of its range: rates, latency and noise must not be
  /// negative, the dropout must lie in [0, 1].
  void validate() const;
};

}  // namespace Sim
}  // namespace KR
