// RobotDescription: a robot loaded once, from an XML description or from a URDF with its
// mapping. A URDF robot is served as XML and its parsed robot read back from that text, so that
// the tracker and the simulated robot hold the same numbers.

#include <sys/stat.h>

#include <fstream>

#include <gtest/gtest.h>

#include <kr/model/modelutils.h>
#include <krsim/robot/robot_description.h>

#include "support/fake_module.h"

namespace {

using KR::Sim::RobotDescription;

TEST(RobotDescriptionUrdf, AMappingLoadsByNameAndIsServedAsXml) {
  const auto lumen = RobotDescription::load("lumen");
  EXPECT_EQ(lumen->path, std::string(KRTRACKER_ROBOTS_DIR) + "/lumen.yaml");
  ASSERT_TRUE(lumen->urdf);
  EXPECT_EQ(lumen->urdf->urdfPath, std::string(KRTRACKER_ROBOTS_DIR) + "/lumen.urdf");
  EXPECT_EQ(lumen->urdf->mapping.headYaw, "head_pan_joint");
  EXPECT_TRUE(lumen->notes.empty());
  // The five meshes of lumen.urdf are not shipped.
  EXPECT_EQ(lumen->urdf->missingMeshes.size(), 5u);
  // What the tracker reads is what the simulated robot holds.
  const auto served = KR::Model::ModelUtils::robotFromXml(lumen->text);
  EXPECT_EQ(KR::Model::ModelUtils::robotToXml(*served),
            KR::Model::ModelUtils::robotToXml(*lumen->robot));
  EXPECT_NEAR(lumen->robot->trackerModel().head.yawToPitch.x, 0.07f, 1e-7f);
  // XML descriptions load as before: no URDF, the text as read.
  const auto kibo = RobotDescription::load("kibo");
  EXPECT_FALSE(kibo->urdf);
  EXPECT_EQ(kibo->text, krtest::readRobotFile("kibo.xml"));
}

TEST(RobotDescriptionUrdf, MeshesAreLookedForWhereRosPackagesKeepThem) {
  // pkg/urdf/robot.urdf and pkg/meshes/base.stl, as a ROS package lays them out.
  const std::string root = ::testing::TempDir() + "/krtracker_mesh_pkg";
  for (const std::string& d : {root, root + "/urdf", root + "/meshes"})
    ::mkdir(d.c_str(), 0755);
  std::ofstream(root + "/meshes/base.stl") << "solid x\nendsolid x\n";
  const std::string urdf = root + "/urdf/robot.urdf";
  EXPECT_EQ(KR::Sim::findUrdfMesh(urdf, "package://pkg/meshes/base.stl"),
            root + "/urdf/../meshes/base.stl");
  EXPECT_EQ(KR::Sim::findUrdfMesh(urdf, "../meshes/base.stl"), root + "/urdf/../meshes/base.stl");
  EXPECT_EQ(KR::Sim::findUrdfMesh(urdf, "file://" + root + "/meshes/base.stl"),
            root + "/meshes/base.stl");
  EXPECT_EQ(KR::Sim::findUrdfMesh(urdf, "package://pkg/meshes/gone.stl"), "");
  EXPECT_EQ(KR::Sim::findUrdfMesh(urdf, "package://pkg/meshes"), "");  // a folder
}

}  // namespace
