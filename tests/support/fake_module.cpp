#include "support/fake_module.h"

#include <cmath>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <gtest/gtest.h>

#include <kr/error.h>
#include <kr/model/modelutils.h>

namespace krtest {

void FakeModule::answer(const std::string& method, KR::KRValue result) {
  answerWith(method, [result](const std::vector<KR::KRValue>&) { return result; });
}

void FakeModule::answerWith(const std::string& method,
                            std::function<KR::KRValue(const std::vector<KR::KRValue>&)> fn) {
  std::lock_guard<std::mutex> lock(fMutex);
  fScripts[method] = std::move(fn);
}

void FakeModule::throwOn(const std::string& method, const std::string& message) {
  answerWith(method, [message](const std::vector<KR::KRValue>&) -> KR::KRValue {
    throw std::runtime_error(message);
  });
}

void FakeModule::throwKRErrorOn(const std::string& method, const std::string& message) {
  const std::string module = getName();
  answerWith(method, [module, method, message](const std::vector<KR::KRValue>&) -> KR::KRValue {
    throw KR::KRError(module, method, message);
  });
}

void FakeModule::reset(const std::string& method) {
  std::lock_guard<std::mutex> lock(fMutex);
  if (method.empty())
    fScripts.clear();
  else
    fScripts.erase(method);
}

KR::KRValue FakeModule::invoke(const std::string& method, const std::vector<KR::KRValue>& args) {
  std::function<KR::KRValue(const std::vector<KR::KRValue>&)> script;
  {
    std::lock_guard<std::mutex> lock(fMutex);
    auto it = fScripts.find(method);
    if (it != fScripts.end())
      script = it->second;
  }
  if (script)
    return script(args);
  if (hasMethod(method))
    return KR::KRModule::invoke(method, args);
  return KR::KRValue();
}

std::string formatCall(const KR::KRCallRecord& r) {
  std::ostringstream os;
  if (r.posted)
    os << "post ";
  os << r.module << "." << r.method << "(";
  for (std::size_t i = 0; i < r.args.size(); ++i) {
    if (i > 0)
      os << ", ";
    os << r.args[i];
  }
  os << ")";
  return os.str();
}

CallRecorder::CallRecorder(std::shared_ptr<KR::KRBroker> broker) : fBroker(std::move(broker)) {
  fBroker->setCallObserver([this](const KR::KRCallRecord& r) {
    std::lock_guard<std::mutex> lock(fMutex);
    fRecords.push_back(r);
  });
}

CallRecorder::~CallRecorder() {
  fBroker->setCallObserver(nullptr);
}

std::vector<std::string> CallRecorder::calls() const {
  std::vector<std::string> out;
  for (const auto& r : records())
    out.push_back(formatCall(r));
  return out;
}

std::vector<KR::KRCallRecord> CallRecorder::records() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fRecords;
}

void CallRecorder::clear() {
  std::lock_guard<std::mutex> lock(fMutex);
  fRecords.clear();
}

std::string readRobotFile(const std::string& fileName) {
  const std::string path = std::string(KRTRACKER_ROBOTS_DIR) + "/" + fileName;
  std::ifstream in(path);
  if (!in)
    throw std::runtime_error("cannot read robot file " + path);
  std::ostringstream os;
  os << in.rdbuf();
  return os.str();
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
  const auto at = text.find(from);
  EXPECT_NE(at, std::string::npos) << from;
  return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

std::unique_ptr<KR::Model::Robot> loadRobot(const std::string& file, const std::string& from,
                                            const std::string& to) {
  const std::string xml = readRobotFile(file);
  return KR::Model::ModelUtils::robotFromXml(from.empty() ? xml : replaced(xml, from, to));
}

void expectSameRobot(const KR::Model::Robot& a, const KR::Model::Robot& b, float relative,
                     float transform) {
  EXPECT_EQ(a.getName(), b.getName());
  EXPECT_EQ(a.getRobotType(), b.getRobotType());
  EXPECT_EQ(a.canLookBehind(), b.canLookBehind());
  EXPECT_EQ(a.canPointAt(), b.canPointAt());
  const auto near = [relative](float x, float y) { EXPECT_NEAR(x, y, relative * std::fabs(x)); };
  near(a.getTorsoHeight(), b.getTorsoHeight());
  near(a.getTorsoMass(), b.getTorsoMass());
  near(a.getHeadMass(), b.getHeadMass());
  near(a.getArmMass("LArm"), b.getArmMass("LArm"));
  near(a.getArmMass("RArm"), b.getArmMass("RArm"));
  const KR::Model::KRTrackerModel& m = a.trackerModel();
  const KR::Model::KRTrackerModel& n = b.trackerModel();
  for (int e = 0; e < 3; ++e) {
    EXPECT_EQ(a.getCameraHorizontalFov(e), b.getCameraHorizontalFov(e));
    EXPECT_EQ(a.getCameraVerticalFov(e), b.getCameraVerticalFov(e));
    EXPECT_EQ(a.getCameraRange(e), b.getCameraRange(e));
    EXPECT_TRUE(m.head.effectorTransforms[e].isNear(n.head.effectorTransforms[e], transform))
        << e << ": " << m.head.effectorTransforms[e] << " / " << n.head.effectorTransforms[e];
  }
  EXPECT_EQ(m.wbPitchMin, n.wbPitchMin);
  EXPECT_EQ(m.wbPitchMax, n.wbPitchMax);
  EXPECT_EQ(m.wbYawMin, n.wbYawMin);
  EXPECT_EQ(m.wbYawMax, n.wbYawMax);
  EXPECT_EQ(m.wbLookAtHeight, n.wbLookAtHeight);
  EXPECT_EQ(m.head.headPosition, n.head.headPosition);
  EXPECT_EQ(m.head.yawToPitch, n.head.yawToPitch);
  for (const auto& [x, y] :
       {std::make_pair(&m.leftArm, &n.leftArm), std::make_pair(&m.rightArm, &n.rightArm)}) {
    EXPECT_EQ(x->shoulderPosition, y->shoulderPosition) << x->name;
    EXPECT_TRUE(x->armTransform.isNear(y->armTransform, 1e-7f)) << x->name;
    for (int i = 0; i < 5; ++i)
      EXPECT_EQ(x->joints[i].name, y->joints[i].name) << x->name << " " << i;
  }
  ASSERT_EQ(a.getJoints().size(), b.getJoints().size());
  for (const auto& [name, j] : a.getJoints()) {
    ASSERT_EQ(b.getJoints().count(name), 1u) << name;
    const KR::Model::TrackerJoint& k = b.getJoints().at(name);
    EXPECT_EQ(j.min, k.min) << name;
    EXPECT_EQ(j.max, k.max) << name;
    EXPECT_EQ(j.maxVelocity, k.maxVelocity) << name;
    EXPECT_EQ(a.getServo(name).stiffness, b.getServo(name).stiffness) << name;
    EXPECT_EQ(a.getServo(name).maxTorque, b.getServo(name).maxTorque) << name;
    EXPECT_EQ(a.getServo(name).armature, b.getServo(name).armature) << name;
  }
}

}  // namespace krtest
