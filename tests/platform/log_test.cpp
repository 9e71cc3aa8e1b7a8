#include <gtest/gtest.h>

#include <ko/log.h>
#include <ko/os.h>

using ko::log::Level;
using ko::log::Record;

TEST(Log, LevelsFilterPerCategory) {
  ko::log::ScopedCapture capture;  // raises every category to debug
  ko::log::setLevel("Test.A", Level::warning);
  ko::log::error("Test.A", "op", "e");
  ko::log::warning("Test.A", "op", "w");
  ko::log::info("Test.A", "op", "i");
  ko::log::verbose("Test.B", "op2", "v");
  ko::log::write(Level::silent, "Test.B", "op2", "never");

  EXPECT_EQ(capture.records(), (std::vector<Record>{{"Test.A", Level::error, "op", "e"},
                                                    {"Test.A", Level::warning, "op", "w"},
                                                    {"Test.B", Level::verbose, "op2", "v"}}));
  EXPECT_TRUE(ko::log::isEnabled("Test.A", Level::warning));
  EXPECT_FALSE(ko::log::isEnabled("Test.A", Level::info));
}

TEST(Log, ScopedCaptureRestoresSinkAndLevels) {
  ko::log::registerCategory("Test.C", Level::info);
  {
    ko::log::ScopedCapture outer;
    {
      ko::log::ScopedCapture inner;
      EXPECT_EQ(ko::log::getLevel("Test.C"), Level::debug);
      ko::log::debug("Test.C", "x", "inner");
      EXPECT_EQ(inner.records().size(), 1u);
    }
    ko::log::warning("Test.C", "x", "outer");
    ASSERT_EQ(outer.records().size(), 1u);
    EXPECT_EQ(outer.records()[0].text, "outer");
  }
  EXPECT_EQ(ko::log::getLevel("Test.C"), Level::info);
}

TEST(Log, ThrowingSinkDoesNotReachTheCaller) {
  struct Throwing : ko::log::Sink {
    void write(const Record&) override { throw std::runtime_error("sink down"); }
  };
  auto previous = ko::log::setSink(std::make_shared<Throwing>());
  EXPECT_NO_THROW(ko::log::error("Test.D", "op", "text"));
  ko::log::setSink(previous);
}

TEST(Os, HomeFollowsTheEnvironment) {
  const char* saved = std::getenv("HOME");
  const std::string before = saved ? saved : "";
  setenv("HOME", "/some/home", 1);
  EXPECT_EQ(ko::os::home(), "/some/home");
  unsetenv("HOME");
  EXPECT_FALSE(ko::os::home().empty());  // falls back to the password database
  if (saved)
    setenv("HOME", before.c_str(), 1);
}
