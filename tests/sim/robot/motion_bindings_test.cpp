// SimMotion's bindings on the broker: the argument forms the remote methods accept (a name or
// a list of names, a number or a list of numbers) and the errors for any other.

#include <gmock/gmock.h>

#include <kr/error.h>

#include "sim/helpers.h"

namespace {

using namespace krtest;
using testing::HasSubstr;

class MotionBindingsTest : public ::testing::Test, protected SimRobot {
 protected:
  std::vector<float> angles(const KRValue& names, bool useSensors) {
    return proxy->call<std::vector<float>>("getAngles", names, useSensors);
  }
};

TEST_F(MotionBindingsTest, NamesAndAnglesComeAloneOrInListsChainsExpanded) {
  struct Case {
    const char* what;
    KRValue names, values;
    KRValue read;  // the names read back
    std::vector<float> expected;
  };
  const Case cases[] = {
      {"a joint and an angle", "HeadYaw", 0.3f, "HeadYaw", {0.3f}},
      {"lists", KRValue{"HeadPitch", "HeadYaw"}, KRValue{-0.1f, 0.2f}, "Head", {0.2f, -0.1f}},
      {"a chain and one angle", "Head", 0.1f, KRValue{"HeadYaw", "HeadPitch"}, {0.1f, 0.1f}},
      {"a chain in a list", KRValue{"Head"}, KRValue{0.25f, -0.2f}, "Head", {0.25f, -0.2f}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    proxy->call<void>("setAngles", c.names, c.values, 0.5f);
    EXPECT_EQ(angles(c.read, false), c.expected) << "commanded at once";
    clock->advance(std::chrono::seconds(1));
    motion->step(1.0);
    EXPECT_THAT(angles(c.read, true), testing::Pointwise(testing::FloatNear(1e-6f), c.expected))
        << "measured once there";
  }
  EXPECT_EQ(proxy->call<std::vector<std::string>>("getJointNames", std::string("Head")),
            (std::vector<std::string>{"HeadYaw", "HeadPitch"}));
  EXPECT_EQ(proxy->call<std::vector<std::string>>("getJointNames", std::string("Body")),
            motion->jointNames());
}

TEST_F(MotionBindingsTest, ArgumentsOfAnyOtherFormAreRefusedAndMoveNothing) {
  struct Case {
    const char* method;
    KRValue names, values;
    const char* error;
  };
  const Case cases[] = {
      {"setAngles", KRValue{"HeadYaw", 3}, KRValue{0.1f, 0.1f}, "joint names must be strings"},
      {"setAngles", 3, 0.1f, "expects a name or a list of names"},
      {"setAngles", "HeadYaw", KRValue{"up"}, "angles must be numbers"},
      {"setAngles", "HeadYaw", "up", "expects a number or a list of numbers"},
      {"setAngles", "Tail", 0.1f, "unknown joint or chain Tail"},
      {"getAngles", KRValue{true}, true, "joint names must be strings"},
      {"getAngles", 1.5f, true, "expects a name or a list of names"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.method) + " " + c.error);
    auto call = [&] {
      if (std::string(c.method) == "setAngles")
        proxy->call<void>("setAngles", c.names, c.values, 1.0f);
      else
        proxy->call<std::vector<float>>("getAngles", c.names, c.values.asBool());
    };
    EXPECT_THAT(call, testing::ThrowsMessage<KR::KRError>(HasSubstr(c.error)));
    EXPECT_EQ(motion->getCommand("HeadYaw"), 0.0f);
  }
}

TEST_F(MotionBindingsTest, StopPointAtHoldsBothArmsWhereTheyAre) {
  motion->setAngles({"LShoulderPitch", "RShoulderPitch"}, {0.0f, 0.0f}, {1.0f});
  clock->advance(std::chrono::milliseconds(100));
  motion->step(0.1);
  proxy->call<void>("_stopPointAt", true);
  const std::vector<float> held = angles(KRValue{"LShoulderPitch", "RShoulderPitch"}, true);
  ASSERT_GT(held[0], 0.0f) << "stopped on the way down from rest";
  clock->advance(std::chrono::seconds(1));
  motion->step(1.0);
  EXPECT_EQ(angles(KRValue{"LShoulderPitch", "RShoulderPitch"}, true), held);
}

}  // namespace
