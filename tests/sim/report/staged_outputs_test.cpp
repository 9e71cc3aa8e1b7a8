// Outputs written whole or not at all: nothing changes on disk before commit(), a run that
// never commits leaves the previous files and no temporary file behind, and a commit replaces
// every file the run owns, removing those it did not write.

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <thread>

#include <gtest/gtest.h>

#include <krsim/report/staged_outputs.h>

#include "sim/helpers.h"

namespace {

using KR::Sim::StagedOutputs;
using krtest::readFile;

std::string freshFolder(const std::string& name) {
  const std::string dir = ::testing::TempDir() + "/krsim_staged_" + name;
  ::mkdir(dir.c_str(), 0755);
  if (DIR* d = ::opendir(dir.c_str())) {
    while (const dirent* e = ::readdir(d)) {
      const std::string n = e->d_name;
      if (n != "." && n != "..")
        ::unlink((dir + "/" + n).c_str());
    }
    ::closedir(d);
  }
  return dir;
}

/// The names in a folder, sorted.
std::vector<std::string> namesIn(const std::string& dir) {
  std::vector<std::string> names = krtest::filesIn(dir);
  std::sort(names.begin(), names.end());
  return names;
}

TEST(StagedOutputsTest, NothingChangesUntilTheCommitThenEverythingAtOnce) {
  const std::string dir = freshFolder("commit");
  std::ofstream(dir + "/run.csv") << "old csv";
  std::ofstream(dir + "/run.png") << "old png";
  std::ofstream(dir + "/run.json") << "old json";
  {
    StagedOutputs outputs({dir + "/run.csv", dir + "/run.png", dir + "/run.json"});
    const std::string csv = outputs.stage(dir + "/run.csv");
    EXPECT_EQ(csv.rfind(dir + "/.run.csv.", 0), 0u) << csv;  // beside it, hidden
    std::ofstream(csv) << "new csv";
    outputs.writeText(dir + "/run.json", "new json");
    EXPECT_EQ(readFile(dir + "/run.csv"), "old csv");
    EXPECT_EQ(readFile(dir + "/run.json"), "old json");
    outputs.commit();
  }
  EXPECT_EQ(readFile(dir + "/run.csv"), "new csv");
  EXPECT_EQ(readFile(dir + "/run.json"), "new json");
  // The older run's plot does not stay beside this run's files.
  EXPECT_EQ(namesIn(dir), (std::vector<std::string>{"run.csv", "run.json"}));
  // A new file gets the mode any new file gets, not the 0600 of a temporary one.
  struct stat st {};
  ASSERT_EQ(::stat((dir + "/run.json").c_str(), &st), 0);
  const mode_t mask = ::umask(022);
  ::umask(mask);
  EXPECT_EQ(st.st_mode & 0777, 0666 & ~mask);
}

TEST(StagedOutputsTest, ARunThatIsNotCommittedLeavesThePreviousFilesAndNoTemporaryOne) {
  const std::string dir = freshFolder("abandon");
  std::ofstream(dir + "/run.csv") << "good csv";
  try {
    StagedOutputs outputs({dir + "/run.csv", dir + "/run.png"});
    std::ofstream(outputs.stage(dir + "/run.csv")) << "header only";
    outputs.writeText(dir + "/new.json", "{}");
    throw std::runtime_error("the run failed");
  } catch (const std::runtime_error&) {
  }
  EXPECT_EQ(readFile(dir + "/run.csv"), "good csv");
  EXPECT_EQ(namesIn(dir), std::vector<std::string>{"run.csv"});
}

TEST(StagedOutputsTest, RunsOnTwoThreadsStageTheirOwnFiles) {
  const std::string dir = freshFolder("threads");
  StagedOutputs outputs;
  auto write = [&](int first) {
    for (int i = first; i < 200; i += 2)
      outputs.writeText(dir + "/run-seed" + std::to_string(i) + ".csv", std::to_string(i));
  };
  std::thread other(write, 1);
  write(0);
  other.join();
  outputs.commit();
  const auto names = namesIn(dir);
  ASSERT_EQ(names.size(), 200u);
  EXPECT_EQ(readFile(dir + "/run-seed137.csv"), "137");
  EXPECT_EQ(
      std::count_if(names.begin(), names.end(), [](const std::string& n) { return n[0] == '.'; }),
      0);
}

TEST(StagedOutputsTest, AFolderThatCannotBeWrittenIsNamed) {
  StagedOutputs outputs;
  try {
    outputs.stage("/proc/krsim/run.csv");
    ADD_FAILURE() << "staged";
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(std::string(e.what()).rfind("cannot write /proc/krsim/run.csv: ", 0), 0u) << e.what();
  }
}

}  // namespace
