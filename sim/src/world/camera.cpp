#include <krsim/world/camera.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include <kr/error.h>
#include <kr/model/trackermodel.h>

namespace KR {
namespace Sim {

void CameraConfig::validate() const {
  if (!(cameraRateHz >= 0.0) || !(latencyS >= 0.0) || !(dropout >= 0.0 && dropout <= 1.0) ||
      !(angleNoise >= 0.0f) || !(distanceNoise >= 0.0f)) {
    throw KRError("World", "setPerception",
                  "the camera rate, latency and noise must not be negative and the dropout must "
                  "lie in [0, 1]");
  }
}

Camera::View::View(const Math::Transform& mapToCamera, const Model::Robot& robot)
    : fMapToCamera(mapToCamera),
      fCameraToMap(Math::pinv(mapToCamera)),
      fPosition(Math::position3DFromTransform(mapToCamera)),
      fRobot(&robot) {}

bool Camera::View::inFieldOfView(const Math::Position3D& mapPoint, float range) const {
  const Math::Position3D local = fCameraToMap * mapPoint;
  return local.x > 0.0f && local.norm() <= range &&
         std::fabs(std::atan2(local.y, local.x)) <= 0.5f * fRobot->getCameraHorizontalFov() &&
         std::fabs(std::atan2(local.z, std::hypot(local.x, local.y))) <=
             0.5f * fRobot->getCameraVerticalFov();
}

Camera::Camera(std::shared_ptr<const SimMotion> motion, std::uint32_t seed)
    : fMotion(std::move(motion)), fRandom(seed) {}

void Camera::setConfig(const CameraConfig& config) {
  config.validate();
  fConfig = config;
}

void Camera::setEffector(int effector) {
  if (effector < 0 || effector >= Model::kTrackEffectorCount) {
    throw KRError("World", "setCameraEffector", "effector must be 0, 1 or 2");
  }
  fEffector = effector;
}

void Camera::setMapNoise(float sigma) {
  fMapNoise = std::max(0.0f, sigma);
}

float Camera::range() const {
  return fMotion->robot().getCameraRange();
}

Camera::View Camera::view() const {
  return View(fMotion->getMapToHeadEffector(fEffector), fMotion->robot());
}

bool Camera::isInFieldOfView(const Math::Position3D& mapPoint, float range) const {
  return view().inFieldOfView(mapPoint, range);
}

bool Camera::frameDue(std::int64_t elapsedNs) {
  if (fConfig.cameraRateHz <= 0.0)
    return true;
  if (elapsedNs < fNextFrameNs)
    return false;
  const auto period = static_cast<std::int64_t>(std::llround(1e9 / fConfig.cameraRateHz));
  fNextFrameNs += period;
  if (fNextFrameNs <= elapsedNs)
    fNextFrameNs = elapsedNs + period;
  return true;
}

void Camera::detect(const View& view, const Math::Position3D& mapPoint, KRTimePoint captured,
                    std::int64_t elapsedNs, std::size_t target, const std::string& eventName) {
  if (fConfig.dropout > 0.0 &&
      std::uniform_real_distribution<double>(0.0, 1.0)(fRandom) < fConfig.dropout) {
    return;
  }
  Math::Position3D p = xWithDetectorErrors(view.cameraToMap() * mapPoint);
  if (fMapNoise > 0.0f) {
    std::normal_distribution<float> n(0.0f, fMapNoise);
    const float dx = n(fRandom);
    const float dy = n(fRandom);
    const float dz = n(fRandom);
    const Math::Position3D onMap = view.mapToCamera() * p;
    p = view.cameraToMap() * Math::Position3D(onMap.x + dx, onMap.y + dy, onMap.z + dz);
  }
  const auto latency = static_cast<std::int64_t>(std::llround(fConfig.latencyS * 1e9));
  fInFlight.push_back({elapsedNs + latency, captured, p, fEffector, target, eventName});
}

// The detector sees a direction and a distance: errors on both, in the camera frame.
Math::Position3D Camera::xWithDetectorErrors(const Math::Position3D& p) {
  if (!(fConfig.angleNoise > 0.0f || fConfig.distanceNoise > 0.0f))
    return p;
  const float d = p.norm();
  float azimuth = std::atan2(p.y, p.x);
  float elevation = std::atan2(p.z, std::hypot(p.x, p.y));
  float range = d;
  if (fConfig.angleNoise > 0.0f) {
    std::normal_distribution<float> angle(0.0f, fConfig.angleNoise);
    azimuth += angle(fRandom);
    elevation += angle(fRandom);
  }
  if (fConfig.distanceNoise > 0.0f) {
    std::normal_distribution<float> distance(0.0f, fConfig.distanceNoise * d * d);
    range = std::max(0.0f, d + distance(fRandom));
  }
  return {range * std::cos(elevation) * std::cos(azimuth),
          range * std::cos(elevation) * std::sin(azimuth), range * std::sin(elevation)};
}

std::vector<Detection> Camera::deliver(std::int64_t elapsedNs) {
  std::vector<Detection> due;
  while (!fInFlight.empty() && fInFlight.front().deliverNs <= elapsedNs) {
    due.push_back(std::move(fInFlight.front()));
    fInFlight.pop_front();
  }
  return due;
}

}  // namespace Sim
}  // namespace KR
