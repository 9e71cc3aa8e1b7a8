#pragma once
// The world of the simulated robot: targets moving on scripted paths in the map frame, seen
// by the head camera (or heard, for a sound source) and published as tracker events in
// platform memory, the way the robot's detection modules would.
//
// The head camera (Camera) takes frames at CameraConfig::cameraRateHz. On a frame, a target is
// detected when it lies in the field of view of the head camera of the configured effector (0:
// top camera by default) and within range, unless the frame misses it (CameraConfig::dropout).
// The detection is a point in the camera frame, with an angular error and a distance error
// that grows with the distance. It is delivered CameraConfig::latencyS later, stamped with the
// capture time: the detection module converts it into the event's frame with the head and
// base pose it reads when it publishes, as a robot's vision service does, so a consumer that
// wants the pose at capture time asks KRMotion for it ("_getSensorTransformAtTime").
//
// Observations are raised on KRMemory under the event name(s) that the target manager gives
// for its kind, on the first frame of every period of that kind, in one of the two tracker
// event layouts:
//   Layout::World  [[x, y, z, wx, wy, wz] (FRAME_WORLD), [sec, usec], effector(, threshold)]
//   Layout::Torso  [[torso 6D], [robot 6D], [sec, usec], effector(, threshold)]
// FRAME_WORLD is the motion service's odometry frame, so a drifting odometry shows in the
// events as it would on a robot. Every random draw (dropout, angle, distance, then the extra
// Gaussian noise on each map coordinate) comes from the camera's std::mt19937 seeded at
// construction, in a fixed order: the same seed gives the same run. An observation that is not
// finite is never raised.
//
// Kinds are the platform's target names ("RedBall", "Face", "People", "Sound", "LandMarks").
// When several targets of one kind are seen, the nearest is published; "LandMarks" is the
// exception: its i-th target goes to the i-th event name, so two landmarks need two names.

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <kr/math/math.h>
#include <kr/value/krvalue.h>

#include <krsim/robot/clock.h>
#include <krsim/robot/memory.h>
#include <krsim/robot/motion.h>
#include <krsim/world/camera.h>
#include <krsim/world/path.h>

namespace KR {
namespace Sim {

enum class Layout { World, Torso };

struct TargetScript {
  std::string name;  // unique in the world, e.g. "ball"
  std::string kind;  // "RedBall", "Face", "People", "Sound" or "LandMarks"
  Path path;
  std::vector<TimeInterval> hidden;  // occluded: not seen whatever the camera does
  Layout layout = Layout::Torso;
  float maxRange = 0.0f;        // [m]; 0: the camera's range
  bool heard = false;           // perceived in every direction within range (a sound)
  float headThreshold = -1.0f;  // appended to the events when >= 0 [rad]
};

/// State of one target at the last update.
struct TargetState {
  std::string name;
  std::string kind;
  Math::Position3D position;   // map frame
  bool inFieldOfView = false;  // inside the camera's cone and range
  bool perceived = false;      // in view (or heard) and not hidden
};

class World {
 public:
  /// Default observation periods [ms] by kind.
  static int defaultPeriodMs(const std::string& kind);

  World(std::shared_ptr<const SimClock> clock, std::shared_ptr<SimMemory> memory,
        std::shared_ptr<SimMotion> motion, std::uint32_t seed);

  void addTarget(TargetScript script);
  std::vector<TargetScript> targets() const;
  /// Position of a target in the map frame at a time [s]; KRError for an unknown name.
  Math::Position3D targetPosition(const std::string& name, double time) const;
  /// States at the last update, in the order of addTarget.
  std::vector<TargetState> states() const;
  TargetState state(const std::string& name) const;

  /// Standard deviation of extra noise on each map coordinate [m]; 0 by default.
  void setNoise(float sigma);
  /// The camera and detector; KRError for a negative rate, latency or noise, or a dropout
  /// outside [0, 1].
  void setPerception(const CameraConfig& perception);
  CameraConfig getPerception() const;
  /// Which head camera (TRACK_EFFECTOR 0, 1, 2) sees, and which effector the events carry.
  void setCameraEffector(int effector);
  int getCameraEffector() const;

  // ---- what the target manager drives ------------------------------------------------------
  /// Publishes the observations of a kind under these event names (one, or two for
  /// "LandMarks"). Replaces any earlier names of that kind.
  void startPublishing(const std::string& kind, std::vector<std::string> eventNames);
  void stopPublishing(const std::string& kind);
  void stopPublishingAll();
  std::map<std::string, std::vector<std::string>> publishing() const;
  void setPeriodMs(const std::string& kind, int periodMs);
  int getPeriodMs(const std::string& kind) const;
  /// Kinds that have at least one target in the world.
  std::vector<std::string> kinds() const;

  /// Whether a map-frame point lies in the camera's field of view and within range.
  bool isInFieldOfView(const Math::Position3D& mapPoint, float range) const;

  /// Moves the targets to the clock's time, updates their states and raises the observations
  /// that are due. Events are raised after the world's lock is released.
  void update();

 private:
  struct Target {
    TargetScript script;
    TargetState state;
  };
  struct Publication {
    std::vector<std::string> eventNames;
    std::int64_t nextDueNs = -1;  // clock elapsed time of the next observation [ns]
  };

  int xPeriodMs(const std::string& kind) const;
  void xMoveTargets(double t, const Camera::View& view);
  void xPublish(const std::string& kind, Publication& publication, const Camera::View& view,
                KRTimePoint now, std::int64_t elapsedNs);
  void xDeliver(std::int64_t elapsedNs, std::vector<std::pair<std::string, KRValue>>& events);
  std::optional<KRValue> xMakeEvent(const Detection& detection) const;

  std::shared_ptr<const SimClock> fClock;
  std::shared_ptr<SimMemory> fMemory;
  std::shared_ptr<SimMotion> fMotion;
  mutable std::mutex fMutex;     // guards everything below
  std::vector<Target> fTargets;  // only ever appended to: Detection::target indexes it
  std::map<std::string, Publication> fPublications;
  std::map<std::string, int> fPeriodsMs;
  Camera fCamera;
};

}  // namespace Sim
}  // namespace KR
