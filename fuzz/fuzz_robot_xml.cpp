// ModelUtils::robotFromXml on any text: a malformed description is refused with one KRError
// that says what is wrong; an accepted one keeps the promises of the format (a known type, named
// joints within their limits, both arms when it can point).

#include <cstdint>
#include <string>

#include <kr/error.h>
#include <kr/model/modelutils.h>

#include "fuzz_support.h"

namespace {

void checkJoint(const KR::Model::TrackerJoint& j, bool required, const std::string& what) {
  if (j.name.empty()) {
    FUZZ_CHECK(!required, what + " has no name");
    return;
  }
  FUZZ_CHECK(j.min <= j.max, what + " " + j.name);
  FUZZ_CHECK(j.maxVelocity > 0.0f, what + " " + j.name);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::unique_ptr<KR::Model::Robot> robot;
  try {
    robot = KR::Model::ModelUtils::robotFromXml(text);
  } catch (const KR::KRError& e) {
    FUZZ_CHECK(e.module() == "ModelUtils" && e.method() == "robotFromXml", e.what());
    FUZZ_CHECK(!e.message().empty(), "an empty error");
    return 0;
  }
  FUZZ_CHECK(robot != nullptr, "no robot and no error");
  FUZZ_CHECK(robot->getRobotType() == 0 || robot->getRobotType() == 1, "type");
  FUZZ_CHECK(!robot->getName().empty(), "name");
  KR::Model::KRTrackerModel model;
  robot->fillTrackerModel(model);
  checkJoint(model.head.yaw, true, "head yaw");
  checkJoint(model.head.pitch, true, "head pitch");
  for (const KR::Model::TrackerArm* arm : {&model.leftArm, &model.rightArm}) {
    for (std::size_t i = 0; i < arm->joints.size(); ++i) {
      // The wrist is optional; an arm is described whole or not at all.
      const bool described = !arm->joints[0].name.empty();
      checkJoint(arm->joints[i], robot->canPointAt() && i < 4,
                 arm->name + " joint " + std::to_string(i));
      if (described && i < 4) {
        FUZZ_CHECK(!arm->joints[i].name.empty(), arm->name + " is described in part");
      }
    }
  }
  FUZZ_CHECK(model.wbPitchMin <= model.wbPitchMax && model.wbYawMin <= model.wbYawMax, "bounds");
  FUZZ_CHECK(robot->getJoints().count(model.head.yaw.name) == 1, "joint table");
  return 0;
}
