// Readers of the configuration getters against writers that change the kind of the stored
// values and the log directory; run under ThreadSanitizer in CI. The getters read without a lock,
// so a torn or stale word would show here as a value that was never stored, or as a race report.

#include <krtracker/config/krgenerictrackerconfig.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

using namespace KR::Tracker;
using KR::KRValue;

namespace {

TEST(ConfigConcurrency, LockFreeGettersSeeOnlyStoredValuesWhileKindsChange) {
  resetConfig();
  const float defaultThreshold = getConfigFloatValue(HEAD_THRESHOLD);
  constexpr int kReaders = 2;
  constexpr int kMinimumReads = 2000;
  std::atomic<int> started{0}, reads{0}, unexpected{0};
  std::atomic<bool> stop{false};
  const auto waitForAll = [&] {
    ++started;
    while (started.load() < kReaders + 1)
      std::this_thread::yield();
  };

  std::vector<std::thread> threads;
  threads.emplace_back([&] {
    waitForAll();
    // Each round stores every kind once; now and then the whole table is replaced.
    for (int i = 0; i < 500 || reads.load() < kMinimumReads; ++i) {
      if (i % 16 == 0)
        resetConfig();
      setConfigValue(HEAD_THRESHOLD, 0.25f);
      setConfigValue(LOG_HEAD_COMMAND, true);
      setConfigValue(HEAD_THRESHOLD, 2);
      setConfigValue(LOG_HEAD_COMMAND, 1);
      setConfigValue(HEAD_THRESHOLD, "x");
      setConfigValue(LOG_HEAD_COMMAND, false);
      setLogDirectory("/tmp/krtracker-concurrency/");
    }
    stop = true;
  });
  for (int r = 0; r < kReaders; ++r) {
    threads.emplace_back([&] {
      waitForAll();
      while (!stop) {
        try {
          const float value = getConfigFloatValue(HEAD_THRESHOLD);
          if (value != 0.25f && value != 2.0f && value != defaultThreshold)
            ++unexpected;
        } catch (const std::runtime_error&) {
          // the string is refused
        }
        try {
          (void)getConfigBoolValue(LOG_HEAD_COMMAND);
        } catch (const std::runtime_error&) {
          // the int is refused
        }
        // The locked readers of the same table.
        const std::string dir = getLogDirectory();
        if (dir != "/tmp/tarvo/" && dir != "/tmp/krtracker-concurrency/")
          ++unexpected;
        if (configToString().empty() || getConfigKeyFromStr("ARMS_THRESHOLD") != ARMS_THRESHOLD)
          ++unexpected;
        ++reads;
      }
    });
  }
  for (auto& t : threads)
    t.join();
  EXPECT_EQ(unexpected.load(), 0);
  EXPECT_GE(reads.load(), kMinimumReads);

  // Once the writers are done, the last write is what every getter answers.
  EXPECT_THROW(getConfigFloatValue(HEAD_THRESHOLD), std::runtime_error);
  EXPECT_FALSE(getConfigBoolValue(LOG_HEAD_COMMAND));
  resetConfig();
}

}  // namespace
