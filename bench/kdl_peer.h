#pragma once
// The look-at and point-at problems of the small humanoid solved numerically by orocos KDL,
// as the reference the closed-form geometry is measured against.
//
// Each chain carries the robot's joints and fixed offsets, then a virtual prismatic joint along
// the line of sight (x): reaching the target with the chain's tip then means exactly "the line
// of sight passes through the target". Only the tip's position is weighted, and the solver
// (ChainIkSolverPos_LMA) starts from the previous target's solution, as a tracking loop would.

#include <memory>

#include <kdl/chain.hpp>
#include <kdl/chainiksolverpos_lma.hpp>
#include <kdl/jntarray.hpp>

#include <kr/math/types.h>
#include <kr/model/trackermodel.h>

namespace krbench {

/// Head: Translation(head position) · Rz(yaw) · Ry(pitch) · neck-to-effector · prismatic x.
class KdlHeadPeer {
 public:
  KdlHeadPeer(const KR::Model::TrackerHead& head, KR::Model::TRACK_EFFECTOR effector);

  /// Yaw and pitch aiming the effector at a torso-frame target; false when the solver does
  /// not converge.
  bool solve(const KR::Math::Position3D& target, float& yaw, float& pitch);

 private:
  KDL::Chain fChain;
  std::unique_ptr<KDL::ChainIkSolverPos_LMA> fSolver;
  KDL::JntArray fQ;  // yaw, pitch, distance along the line of sight: the warm start
  KDL::JntArray fQOut;
};

/// Arm, in the two steps of the closed form, each on its part of the same chain:
/// the shoulder, Translation(shoulder) · Ry(shoulder pitch) · Rz(shoulder roll) · prismatic x,
/// aims the upper arm at the target; then the elbow, upper arm offset · Rz(elbow roll) ·
/// prismatic x, bends the forearm through it. Stated on the whole chain at once the problem
/// would be redundant (one more joint than constraints) and the answer would drift with the
/// warm start; the closed form resolves that redundancy by aiming the upper arm first. The
/// elbow yaw and the wrist yaw turn about the line of sight and do not change where the arm
/// points, so they are not part of the peer.
class KdlArmPeer {
 public:
  explicit KdlArmPeer(const KR::Model::TrackerArm& arm);

  /// Shoulder pitch, shoulder roll and elbow roll pointing the forearm at a torso-frame
  /// target; false when a solver does not converge.
  bool solve(const KR::Math::Position3D& target, float& shoulderPitch, float& shoulderRoll,
             float& elbowRoll);

 private:
  KDL::Vector fShoulder;
  KDL::Chain fShoulderChain;
  KDL::Chain fElbowChain;
  std::unique_ptr<KDL::ChainIkSolverPos_LMA> fShoulderSolver;
  std::unique_ptr<KDL::ChainIkSolverPos_LMA> fElbowSolver;
  KDL::JntArray fShoulderQ;  // shoulder pitch, shoulder roll, distance
  KDL::JntArray fShoulderQOut;
  KDL::JntArray fElbowQ;  // elbow roll, distance
  KDL::JntArray fElbowQOut;
};

}  // namespace krbench
