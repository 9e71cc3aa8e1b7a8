#pragma once
// The head camera and its on-board detector: its settings (CameraConfig), and Camera, which
// takes frames at its rate, tells what lies in its field of view, turns what it sees into
// detections with their errors or misses them, and holds each detection for the latency
// before delivering it.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <kr/math/math.h>

#include <krsim/robot/motion.h>

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

/// A detection on its way to the detection module: what the camera saw, and the labels the
/// world gave it to publish it.
struct Detection {
  std::int64_t deliverNs = 0;       // clock elapsed time of delivery [ns]
  KRTimePoint captured;             // when the frame was taken
  Math::Position3D cameraToObject;  // camera frame at capture, errors included [m]
  int effector = 0;                 // the head camera that took it
  std::size_t target = 0;           // the world's index of the target seen
  std::string eventName;            // the event it is published under
};

/// The head camera of one effector (TRACK_EFFECTOR 0, 1 or 2) of the motion service's head.
/// Every random draw comes from one std::mt19937 seeded at construction, in a fixed order (see
/// detect()): the same seed and the same calls give the same detections. Not thread-safe: its
/// owner serialises the calls.
class Camera {
 public:
  /// Where the camera is at one moment and what it sees from there.
  class View {
   public:
    View(const Math::Transform& mapToCamera, const Model::Robot& robot);
    const Math::Transform& mapToCamera() const { return fMapToCamera; }
    const Math::Transform& cameraToMap() const { return fCameraToMap; }
    /// The camera's position in the map frame [m].
    const Math::Position3D& position() const { return fPosition; }
    /// Whether a map point lies in the camera's cone and within `range` [m].
    bool inFieldOfView(const Math::Position3D& mapPoint, float range) const;

   private:
    Math::Transform fMapToCamera;
    Math::Transform fCameraToMap;
    Math::Position3D fPosition;
    const Model::Robot* fRobot;
  };

  Camera(std::shared_ptr<const SimMotion> motion, std::uint32_t seed);

  /// KRError("World", "setPerception", ...) for settings out of range (CameraConfig::validate).
  void setConfig(const CameraConfig& config);
  const CameraConfig& config() const { return fConfig; }
  /// KRError("World", "setCameraEffector", ...) for an effector other than 0, 1 or 2.
  void setEffector(int effector);
  int effector() const { return fEffector; }
  /// Standard deviation of extra noise on each map coordinate of a detection [m]; 0 by
  /// default, a negative one counts as 0.
  void setMapNoise(float sigma);
  /// How far the detector finds a target [m]: the robot's camera range.
  float range() const;

  /// The camera where the head puts it now.
  View view() const;
  /// Whether a map point lies in the camera's field of view now, within `range` [m].
  bool isInFieldOfView(const Math::Position3D& mapPoint, float range) const;

  /// Whether a frame is taken at this clock time [ns since the start]: at the camera rate, or
  /// at every call when the rate is 0. Once per update: a frame due is consumed.
  bool frameDue(std::int64_t elapsedNs);
  /// The detection of a map point on the frame taken from `view` at `captured`, to be
  /// delivered the latency after `elapsedNs`, unless the frame misses it. Draws, each only
  /// when its setting is not zero: the miss, the two angles, the distance, then the three map
  /// coordinates of the extra noise.
  void detect(const View& view, const Math::Position3D& mapPoint, KRTimePoint captured,
              std::int64_t elapsedNs, std::size_t target, const std::string& eventName);
  /// Takes out the detections delivered by `elapsedNs` [ns since the start], first due first.
  std::vector<Detection> deliver(std::int64_t elapsedNs);

 private:
  Math::Position3D xWithDetectorErrors(const Math::Position3D& cameraPoint);

  std::shared_ptr<const SimMotion> fMotion;
  CameraConfig fConfig;
  int fEffector = 0;
  float fMapNoise = 0.0f;
  std::int64_t fNextFrameNs = 0;
  std::deque<Detection> fInFlight;  // in order of delivery while the latency stays the same
  std::mt19937 fRandom;
};

}  // namespace Sim
}  // namespace KR
