#include <krtracker/config/krgenerictrackerconfig.h>

#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/error_of.h"

namespace {

using namespace KR::Tracker;
using KR::KRValue;

// The default table as text, written out by hand: floats with a forced sign and point and four
// significant digits, bools as words, gain vectors as arrays.
const char* const kDefaultText =
    "HEAD_THRESHOLD: +0.05236\n"
    "FACE_HEAD_THRESHOLD: +0.04363\n"
    "REDBALL_HEAD_THRESHOLD: +0.02618\n"
    "LANDMARK_HEAD_THRESHOLD: +0.03491\n"
    "PEOPLE_HEAD_THRESHOLD: +0.08727\n"
    "SOUND_HEAD_THRESHOLD: +0.08727\n"
    "COMPASS_HEAD_THRESHOLD: +0.08727\n"
    "ARMS_THRESHOLD: +0.04363\n"
    "WHOLEBODY_THRESHOLD: +0.08727\n"
    "LOG_HEAD_COMMAND: false\n"
    "LOG_ARM_COMMAND: false\n"
    "LOG_MOVE_COMMAND: false\n"
    "LOG_INPUT_DATA: false\n"
    "HEAD_WZ_LIMIT: +6.283\n"
    "MOVE_X_GAINS: [+1.100, +0.000, +0.000]\n"
    "MOVE_Y_GAINS: [+0.9000, +0.000, +0.000]\n"
    "MOVE_THETA_GAINS: [+0.5000, +0.000, +0.000]\n"
    "MOVE_LOW_PRIORITY: false\n";

const char* const kGainsStderr =
    "KRTracker.configToMap: unsupported value for MOVE_X_GAINS config\n"
    "KRTracker.configToMap: unsupported value for MOVE_Y_GAINS config\n"
    "KRTracker.configToMap: unsupported value for MOVE_THETA_GAINS config\n";

// The text of the standard runtime error that call raises.
const auto errorOf = [](auto&& call) { return krtest::errorOf<std::runtime_error>(call); };

class ConfigTest : public ::testing::Test {
 protected:
  void SetUp() override { resetConfig(); }
  void TearDown() override { resetConfig(); }
};

TEST_F(ConfigTest, ConfigToStringListsTheDefaultsInKeyOrder) {
  EXPECT_EQ(configToString(), kDefaultText);
  EXPECT_EQ(getLogDirectory(), "/tmp/tarvo/");
}

TEST_F(ConfigTest, ConfigToMapHasFifteenBitExactEntriesAndReportsTheGains) {
  ::testing::internal::CaptureStderr();
  const std::map<std::string, float> map = configToMap();
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), kGainsStderr);

  // The floats nearest 3, 2.5, 1.5, 2 and 5 degrees and 2 pi (2 degrees is 0x1.1df46ap-5f, not
  // the float of the truncated decimal 0.03490658).
  const std::map<std::string, float> expected = {{"HEAD_THRESHOLD", 0x1.aceeap-5f},
                                                 {"FACE_HEAD_THRESHOLD", 0x1.657184p-5f},
                                                 {"REDBALL_HEAD_THRESHOLD", 0x1.aceeap-6f},
                                                 {"LANDMARK_HEAD_THRESHOLD", 0x1.1df46ap-5f},
                                                 {"PEOPLE_HEAD_THRESHOLD", 0x1.657184p-4f},
                                                 {"SOUND_HEAD_THRESHOLD", 0x1.657184p-4f},
                                                 {"COMPASS_HEAD_THRESHOLD", 0x1.657184p-4f},
                                                 {"ARMS_THRESHOLD", 0x1.657184p-5f},
                                                 {"WHOLEBODY_THRESHOLD", 0x1.657184p-4f},
                                                 {"HEAD_WZ_LIMIT", 0x1.921fb6p+2f},
                                                 {"LOG_HEAD_COMMAND", 0.0f},
                                                 {"LOG_ARM_COMMAND", 0.0f},
                                                 {"LOG_MOVE_COMMAND", 0.0f},
                                                 {"LOG_INPUT_DATA", 0.0f},
                                                 {"MOVE_LOW_PRIORITY", 0.0f}};
  EXPECT_EQ(map, expected);  // float equality is exact
}

TEST_F(ConfigTest, TypedGettersReadTheDefaultsAndIntsAsFloats) {
  EXPECT_EQ(getConfigFloatValue(HEAD_WZ_LIMIT), 0x1.921fb6p+2f);
  EXPECT_FALSE(getConfigBoolValue(LOG_INPUT_DATA));
  EXPECT_EQ(getConfigFloatVectorValue(MOVE_X_GAINS), (std::vector<float>{1.1f, 0.0f, 0.0f}));
  EXPECT_EQ(getConfigFloatVectorValue(MOVE_Y_GAINS), (std::vector<float>{0.9f, 0.0f, 0.0f}));
  EXPECT_EQ(getConfigFloatVectorValue(MOVE_THETA_GAINS), (std::vector<float>{0.5f, 0.0f, 0.0f}));
  // Ints are read as floats.
  setConfigValue(HEAD_THRESHOLD, 2);
  EXPECT_EQ(getConfigFloatValue(HEAD_THRESHOLD), 2.0f);
  setConfigValue(MOVE_X_GAINS, KRValue{1, 2.5f, -3});
  EXPECT_EQ(getConfigFloatVectorValue(MOVE_X_GAINS), (std::vector<float>{1.0f, 2.5f, -3.0f}));
}

TEST_F(ConfigTest, NameLookupIsExactAndCaseSensitive) {
  for (int i = 0; i < UNKNOWN_CONFIG_KEY; ++i) {
    const auto key = static_cast<ConfigKey>(i);
    EXPECT_EQ(getConfigKeyFromStr(getStrFromConfigKey(key)), key);
  }
  EXPECT_EQ(getStrFromConfigKey(UNKNOWN_CONFIG_KEY), "");
  for (const char* name : {"head_threshold", "Head_Threshold", "HEAD_THRESHOLD ", "HEAD", ""})
    EXPECT_EQ(getConfigKeyFromStr(name), UNKNOWN_CONFIG_KEY) << '"' << name << '"';
}

TEST_F(ConfigTest, UnknownKeyErrorsNameTheGetter) {
  EXPECT_EQ(errorOf([] { getConfigFloatValue(UNKNOWN_CONFIG_KEY); }),
            "KRTracker.getConfigFloatValue: unknown config key.");
  // The vector getter deliberately reports under the float getter's name.
  EXPECT_EQ(errorOf([] { getConfigFloatVectorValue(UNKNOWN_CONFIG_KEY); }),
            "KRTracker.getConfigFloatValue: unknown config key.");
  EXPECT_EQ(errorOf([] { getConfigBoolValue(UNKNOWN_CONFIG_KEY); }),
            "KRTracker.getConfigBoolValue: unknown config key.");
  EXPECT_THROW(setConfigValue(UNKNOWN_CONFIG_KEY, 1.0f), std::runtime_error);
  EXPECT_EQ(getConfig()->fValueMap.count(UNKNOWN_CONFIG_KEY), 0u);
}

TEST_F(ConfigTest, AnIntStoredUnderABoolKeyIsKeptButRefusedByTheBoolGetter) {
  setConfigValue(LOG_HEAD_COMMAND, 1);
  setConfigValue(MOVE_LOW_PRIORITY, true);
  EXPECT_EQ(errorOf([] { getConfigBoolValue(LOG_HEAD_COMMAND); }),
            "KRTracker.getConfigBoolValue: config value is not a bool.");
  EXPECT_TRUE(getConfigBoolValue(MOVE_LOW_PRIORITY));
  EXPECT_FALSE(getConfigBoolValue(LOG_ARM_COMMAND));

  ::testing::internal::CaptureStderr();
  const auto map = configToMap();
  ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(map.at("LOG_HEAD_COMMAND"), 1.0f);
  EXPECT_EQ(map.at("MOVE_LOW_PRIORITY"), 1.0f);
}

TEST_F(ConfigTest, WrongKindsMakeTheExtractionThrowAndConfigToMapSkipThem) {
  setConfigValue(HEAD_THRESHOLD, "high");
  setConfigValue(ARMS_THRESHOLD, KRValue{0.1f});
  const std::string what = errorOf([] { getConfigFloatValue(HEAD_THRESHOLD); });
  EXPECT_NE(what.find("KRTracker.getConfigFloatValue"), std::string::npos) << what;
  EXPECT_NE(what.find("KRValue"), std::string::npos) << what;
  EXPECT_THROW(getConfigFloatValue(ARMS_THRESHOLD), std::runtime_error);
  EXPECT_THROW(getConfigFloatVectorValue(HEAD_WZ_LIMIT), std::runtime_error);
  EXPECT_THROW(getConfigFloatValue(LOG_INPUT_DATA), std::runtime_error);

  ::testing::internal::CaptureStderr();
  const auto map = configToMap();
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            std::string("KRTracker.configToMap: unsupported value for HEAD_THRESHOLD config\n"
                        "KRTracker.configToMap: unsupported value for ARMS_THRESHOLD config\n") +
                kGainsStderr);
  EXPECT_EQ(map.size(), 13u);
}

TEST_F(ConfigTest, ResetConfigRestoresEveryDefault) {
  setConfigValue(HEAD_THRESHOLD, 0.5f);
  setConfigValue(LOG_INPUT_DATA, true);
  setConfigValue(MOVE_Y_GAINS, KRValue{0.1f, 0.2f, 0.3f});
  setConfigValue(HEAD_WZ_LIMIT, "x");
  setLogDirectory("/somewhere/else/");
  ASSERT_NE(configToString(), kDefaultText);

  resetConfig();
  EXPECT_EQ(configToString(), kDefaultText);
  EXPECT_EQ(getLogDirectory(), "/tmp/tarvo/");
  EXPECT_EQ(getConfigFloatValue(HEAD_THRESHOLD), 0x1.aceeap-5f);
}

// The getters answer from a lock-free word per key: every way of writing the table must
// leave that word in step with the stored value.
TEST_F(ConfigTest, GettersFollowEveryKindOfWrite) {
  struct Step {
    const char* what;
    std::function<void()> write;
    const char* floatAnswer;  // the float getter's answer as text, or "throws"
    const char* boolAnswer;   // the bool getter's answer as text, or "throws"
  };
  const auto answers = [] {
    std::string f = "throws";
    std::string b = "throws";
    try {
      f = std::to_string(getConfigFloatValue(LOG_ARM_COMMAND));
    } catch (const std::runtime_error&) {
    }
    try {
      b = getConfigBoolValue(LOG_ARM_COMMAND) ? "true" : "false";
    } catch (const std::runtime_error&) {
    }
    return std::make_pair(f, b);
  };
  KRGenericTrackerConfig withFloat;
  withFloat.fValueMap[LOG_ARM_COMMAND] = 0.75f;
  const Step steps[] = {
      {"default bool", [] {}, "throws", "false"},
      {"bool", [] { setConfigValue(LOG_ARM_COMMAND, true); }, "throws", "true"},
      {"float", [] { setConfigValue(LOG_ARM_COMMAND, 1.5f); }, "1.500000", "throws"},
      {"int", [] { setConfigValue(LOG_ARM_COMMAND, 3); }, "3.000000", "throws"},
      {"string", [] { setConfigValue(LOG_ARM_COMMAND, "on"); }, "throws", "throws"},
      {"bool again", [] { setConfigValue(LOG_ARM_COMMAND, false); }, "throws", "false"},
      {"float again", [] { setConfigValue(LOG_ARM_COMMAND, -0.5f); }, "-0.500000", "throws"},
      {"reset", [] { resetConfig(); }, "throws", "false"},
      {"assignment", [&] { *getConfig() = withFloat; }, "0.750000", "throws"},
      {"copy of the table", [&] { *getConfig() = KRGenericTrackerConfig(withFloat); }, "0.750000",
       "throws"},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.what);
    step.write();
    const auto got = answers();
    EXPECT_EQ(got.first, step.floatAnswer);
    EXPECT_EQ(got.second, step.boolAnswer);
  }
  // A key outside the table takes the locked path and is refused, not read out of bounds.
  EXPECT_THROW(getConfigFloatValue(static_cast<ConfigKey>(40)), std::runtime_error);
  EXPECT_THROW(getConfigBoolValue(static_cast<ConfigKey>(-1)), std::runtime_error);
}

}  // namespace
