#include "kdl_peer.h"

#include <kdl/frames.hpp>
#include <kdl/joint.hpp>
#include <kdl/segment.hpp>

namespace krbench {

namespace {
// Tuning. Only the tip's position is weighted; the orientation of the line of sight is left
// free. The solver's initial damping is fixed, so the weight sets how close its first step is
// to a Gauss-Newton step: at 100 a warm-started solve of a target that moved about 1 cm
// converges in its first iteration, about four times faster than with the default weight of 1.
constexpr double kWeight = 100.0;
const Eigen::Matrix<double, 6, 1> kPositionOnly =
    (Eigen::Matrix<double, 6, 1>() << kWeight, kWeight, kWeight, 0, 0, 0).finished();
// The stopping threshold applies to the weighted error: the tip within 0.1 mm of the target.
constexpr double kEps = 1e-4 * kWeight;
constexpr int kMaxIterations = 100;

KDL::Vector toKdl(const KR::Math::Position3D& p) {
  return KDL::Vector(p.x, p.y, p.z);
}

KDL::Frame toKdl(const KR::Math::Transform& t) {
  return KDL::Frame(KDL::Rotation(toKdl(t.xAxis()), toKdl(t.yAxis()), toKdl(t.zAxis())),
                    toKdl(t.translation()));
}

std::unique_ptr<KDL::ChainIkSolverPos_LMA> makeSolver(const KDL::Chain& chain) {
  return std::make_unique<KDL::ChainIkSolverPos_LMA>(chain, kPositionOnly, kEps, kMaxIterations);
}

KDL::Segment fixed(const KDL::Frame& f) {
  return KDL::Segment(KDL::Joint(KDL::Joint::None), f);
}
KDL::Segment joint(KDL::Joint::JointType type) {
  return KDL::Segment(KDL::Joint(type), KDL::Frame::Identity());
}
KDL::Segment joint(KDL::Joint::JointType type, const KDL::Frame& tip) {
  return KDL::Segment(KDL::Joint(type), tip);
}
}  // namespace

KdlHeadPeer::KdlHeadPeer(const KR::Model::TrackerHead& head, KR::Model::TRACK_EFFECTOR effector) {
  fChain.addSegment(fixed(KDL::Frame(toKdl(head.headPosition))));
  fChain.addSegment(joint(KDL::Joint::RotZ));
  fChain.addSegment(joint(KDL::Joint::RotY, toKdl(head.getNeckToEffectorTransform(effector))));
  fChain.addSegment(joint(KDL::Joint::TransX));
  fSolver = makeSolver(fChain);
  fQ = KDL::JntArray(fChain.getNrOfJoints());
  fQOut = KDL::JntArray(fChain.getNrOfJoints());
  fQ(2) = 1.0;  // looking straight ahead, one metre out
}

bool KdlHeadPeer::solve(const KR::Math::Position3D& target, float& yaw, float& pitch) {
  if (fSolver->CartToJnt(fQ, KDL::Frame(toKdl(target)), fQOut) != KDL::SolverI::E_NOERROR) {
    return false;
  }
  fQ = fQOut;
  yaw = static_cast<float>(fQ(0));
  pitch = static_cast<float>(fQ(1));
  return true;
}

KdlArmPeer::KdlArmPeer(const KR::Model::TrackerArm& arm) : fShoulder(toKdl(arm.shoulderPosition)) {
  fShoulderChain.addSegment(fixed(KDL::Frame(fShoulder)));
  fShoulderChain.addSegment(joint(KDL::Joint::RotY));
  fShoulderChain.addSegment(joint(KDL::Joint::RotZ));
  fShoulderChain.addSegment(joint(KDL::Joint::TransX));

  fElbowChain.addSegment(fixed(toKdl(arm.armTransform)));
  fElbowChain.addSegment(joint(KDL::Joint::RotZ));
  fElbowChain.addSegment(joint(KDL::Joint::TransX));

  fShoulderSolver = makeSolver(fShoulderChain);
  fElbowSolver = makeSolver(fElbowChain);
  fShoulderQ = KDL::JntArray(fShoulderChain.getNrOfJoints());
  fShoulderQOut = KDL::JntArray(fShoulderChain.getNrOfJoints());
  fElbowQ = KDL::JntArray(fElbowChain.getNrOfJoints());
  fElbowQOut = KDL::JntArray(fElbowChain.getNrOfJoints());
  fShoulderQ(2) = 1.0;  // arm straight ahead, target one metre out
  fElbowQ(1) = 1.0;
}

bool KdlArmPeer::solve(const KR::Math::Position3D& target, float& shoulderPitch,
                       float& shoulderRoll, float& elbowRoll) {
  const KDL::Vector torsoToTarget = toKdl(target);
  if (fShoulderSolver->CartToJnt(fShoulderQ, KDL::Frame(torsoToTarget), fShoulderQOut) !=
      KDL::SolverI::E_NOERROR) {
    return false;
  }
  fShoulderQ = fShoulderQOut;

  // The target seen from the upper arm's frame, where the elbow chain starts.
  const KDL::Rotation upperArm =
      KDL::Rotation::RotY(fShoulderQ(0)) * KDL::Rotation::RotZ(fShoulderQ(1));
  const KDL::Vector inUpperArm = upperArm.Inverse(torsoToTarget - fShoulder);
  if (fElbowSolver->CartToJnt(fElbowQ, KDL::Frame(inUpperArm), fElbowQOut) !=
      KDL::SolverI::E_NOERROR) {
    return false;
  }
  fElbowQ = fElbowQOut;

  shoulderPitch = static_cast<float>(fShoulderQ(0));
  shoulderRoll = static_cast<float>(fShoulderQ(1));
  elbowRoll = static_cast<float>(fElbowQ(0));
  return true;
}

}  // namespace krbench
