#include <krtracker/config/krgenerictrackerconfig.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

namespace fs = std::filesystem;
using namespace KR::Tracker;

std::string readFile(const fs::path& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

void writeFile(const fs::path& path, const std::string& text) {
  std::ofstream(path) << text;
}

// Each test logs into its own fresh directory, given to the table with its trailing slash.
class LogFilesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "krtracker-logs-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    fDir = pattern;
    setLogDirectory(fDir.string() + "/");
  }
  void TearDown() override {
    resetConfig();
    fs::remove_all(fDir);
  }
  fs::path fDir;
};

TEST_F(LogFilesTest, FirstCallTruncatesAndWritesTheHeaderAndLaterCallsAppend) {
  writeFile(fDir / "angles.log", "left over from an earlier run\n");
  bool firstCall = true;
  tools::logAnglesToFile({1.0f, 2.0f}, {"A", "B"}, "angles.log", 0.5f, firstCall);
  EXPECT_FALSE(firstCall);
  EXPECT_EQ(readFile(fDir / "angles.log"), "#Time A B#\n0.5 1 2\n");

  // Default float formatting: six significant digits, no forced sign or point.
  tools::logAnglesToFile({-0.2f, 3.14159274f}, {"A", "B"}, "angles.log", 1234567.0f, firstCall);
  EXPECT_EQ(readFile(fDir / "angles.log"), "#Time A B#\n0.5 1 2\n1.23457e+06 -0.2 3.14159\n");
}

TEST_F(LogFilesTest, EmptyOrMismatchedListsWriteNothing) {
  const struct {
    std::vector<float> angles;
    std::vector<std::string> names;
  } cases[] = {
      {{1.0f, 2.0f}, {"A"}}, {{1.0f}, {"A", "B"}}, {{}, {"A"}}, {{1.0f}, {}}, {{}, {}},
  };
  for (const auto& c : cases) {
    bool firstCall = true;
    tools::logAnglesToFile(c.angles, c.names, "none.log", 1.0f, firstCall);
    EXPECT_TRUE(firstCall);
    EXPECT_FALSE(fs::exists(fDir / "none.log"));
  }
}

TEST_F(LogFilesTest, AMissingDirectoryCostsOneStderrLine) {
  const std::string dir = (fDir / "missing").string() + "/";
  setLogDirectory(dir);
  bool firstCall = true;
  ::testing::internal::CaptureStderr();
  EXPECT_NO_THROW(tools::logAnglesToFile({1.0f}, {"A"}, "x.log", 0.0f, firstCall));
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "logAnglesToFile - could not open: " + dir + "x.log\n");
  EXPECT_FALSE(firstCall);
  EXPECT_FALSE(fs::exists(fDir / "missing"));
}

TEST_F(LogFilesTest, CreateAndAppendOnAGivenPath) {
  const std::string path = (fDir / "move.log").string();
  writeFile(path, "old\n");
  createLogFile(path);
  EXPECT_TRUE(fs::exists(path));
  EXPECT_EQ(readFile(path), "");

  logToFile(path, "one", "Mover");
  logToFile(path, " two\n", "Mover");
  EXPECT_EQ(readFile(path), "one two\n");

  ::testing::internal::CaptureStderr();
  createLogFile((fDir / "no" / "file.log").string());  // silent
  logToFile((fDir / "no" / "file.log").string(), "text", "Mover");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "Mover - could not open: " + (fDir / "no" / "file.log").string() + "\n");
}

}  // namespace
