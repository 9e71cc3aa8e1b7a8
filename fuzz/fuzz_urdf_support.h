#pragma once
// Shared by the URDF fuzz targets: one import of a mapping and a URDF given as texts, and the
// properties its outcome must have.

#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include <kr/error.h>
#include <kr/model/modelutils.h>
#include <kr/model/urdfimport.h>

#include "fuzz_support.h"

namespace krfuzz {

inline std::string readRobotFile(const std::string& name) {
  std::ifstream in(std::string(KRTRACKER_ROBOTS_DIR) + "/" + name, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  FUZZ_CHECK(!text.str().empty(), "cannot read " + name);
  return text.str();
}

inline void checkImport(const std::string& yaml, const std::string& urdf) {
  std::unique_ptr<KR::Model::Robot> robot;
  try {
    robot = KR::Model::UrdfImport::robotFromTexts(yaml, "m.yaml", urdf, "r.urdf");
  } catch (const KR::KRError& e) {
    FUZZ_CHECK(e.module() == "UrdfImport", e.what());
    const std::string& m = e.message();
    FUZZ_CHECK(m.rfind("m.yaml: ", 0) == 0 || m.rfind("r.urdf: ", 0) == 0,
               "the file is not named first: " + m);
    FUZZ_CHECK(m.find('\n') == std::string::npos, "more than one line: " + m);
    return;
  }
  FUZZ_CHECK(robot != nullptr, "no robot and no error");
  FUZZ_CHECK(robot->getRobotType() == 0 || robot->getRobotType() == 1, "type");
  const auto& model = robot->trackerModel();
  FUZZ_CHECK(model.head.yaw.min <= model.head.yaw.max, "yaw limits");
  FUZZ_CHECK(model.head.pitch.min <= model.head.pitch.max, "pitch limits");
  FUZZ_CHECK(model.head.yaw.maxVelocity > 0.0f && model.head.pitch.maxVelocity > 0.0f,
             "velocities");
  FUZZ_CHECK(model.wbPitchMin <= model.wbPitchMax && model.wbYawMin <= model.wbYawMax, "bounds");
  // What the tracker is served reads back.
  std::string xml;
  try {
    xml = KR::Model::ModelUtils::robotToXml(*robot);
    const auto back = KR::Model::ModelUtils::robotFromXml(xml);
    FUZZ_CHECK(back->getJoints().size() == robot->getJoints().size(), "joints lost");
  } catch (const KR::KRError& e) {
    FUZZ_CHECK(false, std::string("robotToXml does not read back: ") + e.what() + "\n" + xml);
  }
}

}  // namespace krfuzz
