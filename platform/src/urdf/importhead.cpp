// The head of a URDF robot: yaw then pitch, and the cameras they carry.

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "importer.h"

namespace KR {
namespace Model {
namespace importer {

void Importer::head() {
  fYaw = joint(m.headYaw, "head/yaw");
  fPitch = joint(m.headPitch, "head/pitch");
  checkRotary(fYaw);
  checkRotary(fPitch);
  std::vector<Iso> cameraPoses;
  for (std::size_t i = 0; i < m.cameras.size(); ++i) {
    cameraPoses.push_back(cameraPose(i));
  }
  checkAxis(fYaw, Vec::UnitZ(), "the torso's z axis (up)");
  checkAxis(fPitch, Vec::UnitY(), "the torso's y axis (left), so that a positive pitch looks down");

  TrackerHead& h = model.head;
  h.yaw = trackerJoint(fYaw);
  h.pitch = trackerJoint(fPitch);
  const Vec yawAt = jointFrame(*fYaw.joint).translation();
  const Vec pitchAt = jointFrame(*fPitch.joint).translation();
  h.headPosition = toPosition(yawAt);
  h.yawToPitch = toPosition(pitchAt - yawAt);
  effectors(cameraPoses, pitchAt);
  headMass = float(subtreeMass(fModel.getLink(fYaw.joint->child_link_name).get()));
}

Iso Importer::cameraPose(std::size_t i) {
  std::vector<const urdf::Joint*> path;
  const std::string key = "head/cameras[" + std::to_string(i) + "]/frame";
  const UrdfCamera& c = m.cameras[i];
  const urdf::Link* frame = link(c.frame, key);
  if (!chain(fTorso, frame, path)) {
    failMap(key, "camera frame '" + c.frame + "' is not below the torso link '" + m.torso +
                     "' in " + fUrdf);
  }
  checkHeadOrder(key, c, path);
  for (const urdf::Joint* j : path) {
    if (j != fYaw.joint && j != fPitch.joint && j->type != urdf::Joint::FIXED &&
        !m.fixed.count(j->name)) {
      failUrdf("joint '" + j->name + "'",
               std::string("a third moving joint (") + typeName(j->type) + ") between the torso '" +
                   m.torso + "' and the camera '" + c.frame + "', besides the yaw joint '" +
                   m.headYaw + "' and the pitch joint '" + m.headPitch +
                   "': the tracker's head has two; hold it with fixed/" + j->name +
                   " in the mapping");
    }
  }
  return linkPose(frame);
}

void Importer::checkHeadOrder(const std::string& key, const UrdfCamera& c,
                              const std::vector<const urdf::Joint*>& path) const {
  const auto at = [&](const urdf::Joint* j) {
    return std::find(path.begin(), path.end(), j) - path.begin();
  };
  const auto iy = at(fYaw.joint), ip = at(fPitch.joint);
  const auto n = static_cast<std::ptrdiff_t>(path.size());
  if (iy < n && ip < n && ip < iy) {
    failUrdf("joints '" + m.headPitch + "' and '" + m.headYaw + "'",
             "the head is in the other order: the pitch joint '" + m.headPitch +
                 "' is nearer the torso than the yaw joint '" + m.headYaw +
                 "' (the tracker's head turns yaw first, then pitch)");
  }
  if (iy == n) {
    failMap(key, "camera frame '" + c.frame + "' is not below the yaw joint '" + m.headYaw +
                     "' in " + fUrdf);
  }
  if (ip == n) {
    failMap(key, "camera frame '" + c.frame + "' is not below the pitch joint '" + m.headPitch +
                     "' in " + fUrdf);
  }
}

void Importer::effectors(const std::vector<Iso>& cameraPoses, const Vec& pitchAt) {
  TrackerHead& h = model.head;
  // The sensor's line of sight is the model's x axis: an optical frame (z forward, x right,
  // y down) turns onto x forward, y left, z up.
  Eigen::Matrix3d opticalToBody;
  opticalToBody << 0, -1, 0, 0, 0, -1, 1, 0, 0;
  for (int e = 0; e < kTrackEffectorCount; ++e) {
    const std::size_t i = std::size_t(e) < m.cameras.size() ? std::size_t(e) : 0;
    const UrdfCamera& c = m.cameras[i];
    Iso effector = cameraPoses[i];
    effector.translation() -= pitchAt;
    if (c.axis == 'z') {
      effector.linear() = Eigen::Matrix3d(effector.linear() * opticalToBody);
    }
    h.effectorTransforms[e] = toTransform(effector);
    const UrdfCamera& first = m.cameras[0];
    cameras[e] = {c.horizontalFov.value_or(*first.horizontalFov),
                  c.verticalFov.value_or(*first.verticalFov), c.range.value_or(*first.range)};
  }
}

}  // namespace importer
}  // namespace Model
}  // namespace KR
