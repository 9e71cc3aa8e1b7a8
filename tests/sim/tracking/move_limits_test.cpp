// The movers' speed limits as "setParam" gives them: name/value pairs, defaults restored by an
// empty or invalid configuration, errors that name the module.

#include <string>

#include <gtest/gtest.h>

#include <kr/error.h>
#include <krsim/tracking/move_limits.h>

#include "support/error_of.h"

namespace {

using KR::KRValue;
using KR::Sim::MoveLimits;
using KR::Sim::parseMoveConfig;

TEST(MoveLimits, NamedLimitsAreTakenAndAnEmptyOrInvalidConfigurationRestoresTheDefaults) {
  const struct {
    const char* name;
    KRValue config;
    float xy;
    float theta;
  } cases[] = {
      {"both", KRValue{KRValue{"MaxVelocityXY", 0.1f}, KRValue{"MaxVelocityTheta", 0.5f}}, 0.1f,
       0.5f},
      {"one, the other at the base's limit", KRValue{KRValue{"MaxVelocityTheta", 0.3f}}, 0.0f,
       0.3f},
      {"an int", KRValue{KRValue{"MaxVelocityXY", 1}}, 1.0f, 0.0f},
      {"zero: the base's limit", KRValue{KRValue{"MaxVelocityXY", 0.0f}}, 0.0f, 0.0f},
      {"invalid", KRValue(), 0.0f, 0.0f},
      {"empty", KRValue(KRValue::Array{}), 0.0f, 0.0f},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const MoveLimits limits = parseMoveConfig(c.config, "_MotionMove");
    EXPECT_EQ(limits.maxVelocityXY, c.xy);
    EXPECT_EQ(limits.maxVelocityTheta, c.theta);
  }
}

TEST(MoveLimits, RefusesUnknownNamesAndNegativeValuesNamingTheModule) {
  const struct {
    KRValue config;
    std::string message;
  } cases[] = {
      {KRValue{KRValue{"Speed", 1.0f}},
       "unknown parameter \"Speed\". Could be: MaxVelocityXY, MaxVelocityTheta."},
      {KRValue{KRValue{"MaxVelocityTheta", -1.0f}}, "MaxVelocityTheta must not be negative."},
      {KRValue{KRValue{"MaxVelocityXY", 0.2f}, KRValue{"MaxVelocityXY", -0.1f}},
       "MaxVelocityXY must not be negative."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.message);
    const KR::KRError e = krtest::krErrorOf([&] { parseMoveConfig(c.config, "_NavigationMove"); });
    EXPECT_EQ(e.module(), "_NavigationMove");
    EXPECT_EQ(e.method(), "setParam");
    EXPECT_EQ(e.message(), c.message);
  }
}

}  // namespace
