#include <krtracker/tools/namer/namer.h>

#include <atomic>
#include <cstdint>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <kr/error.h>

#include "support/error_of.h"

namespace {

using KR::Tracker::Namer;

const std::string kBase = "KRTracker/ObjectConverter";
const std::string kCastError =
    "bad lexical cast: source type value could not be interpreted as target";

// The text of the KRError a call raises: "KRTracker::<method>: <message>".
const auto errorOf = [](auto&& call) { return krtest::errorOf<KR::KRError>(call); };

class NamerTest : public ::testing::Test {
 protected:
  void SetUp() override { Namer::getInstance().destroy(); }
  void TearDown() override { Namer::getInstance().destroy(); }
  Namer& namer = Namer::getInstance();
};

TEST_F(NamerTest, GetIdReservesTheIdAndRefusesItTwice) {
  EXPECT_EQ(namer.getId(0), "KRTracker/ObjectConverter0");
  EXPECT_EQ(errorOf([&] { namer.getId(0); }), "KRTracker::Namer.getId: Id already taken. Id is: 0");
  // getName does not reserve.
  EXPECT_EQ(namer.getName(12), "KRTracker/ObjectConverter12");
  EXPECT_EQ(namer.getId(12), "KRTracker/ObjectConverter12");
  EXPECT_EQ(namer.getName(12), "KRTracker/ObjectConverter12");
}

TEST_F(NamerTest, NegativeAndExtremeIdsRoundTripThroughTheirNames) {
  const std::int32_t ids[] = {-5, -1, std::numeric_limits<std::int32_t>::min(),
                              std::numeric_limits<std::int32_t>::max()};
  for (std::int32_t id : ids) {
    const std::string name = namer.getId(id);
    EXPECT_EQ(name, kBase + std::to_string(id));
    namer.releaseId(name);
    EXPECT_EQ(namer.getId(id), name) << "id " << id << " was not freed";
  }
  EXPECT_EQ(namer.getName(-5), "KRTracker/ObjectConverter-5");
}

TEST_F(NamerTest, ReleasingAnIdThatIsNotTakenFails) {
  const auto notTaken = [](const std::string& id) {
    return "KRTracker::Namer.releaseId: Id to release does not exist. Id is: " + id;
  };
  EXPECT_EQ(errorOf([&] { namer.releaseId(9); }), notTaken("9"));
  EXPECT_EQ(errorOf([&] { namer.releaseId(-3); }), notTaken("-3"));
  EXPECT_EQ(errorOf([&] { namer.releaseId(kBase + "9"); }), notTaken("9"));
  namer.getId(9);
  namer.releaseId(9);
  EXPECT_EQ(errorOf([&] { namer.releaseId(9); }), notTaken("9"));
}

TEST_F(NamerTest, ReleaseByNameAcceptsASignAndLeadingZeros) {
  namer.getId(7);
  namer.releaseId(kBase + "+7");
  namer.getId(7);
  namer.releaseId(kBase + "007");
  namer.getId(0);
  namer.releaseId(kBase + "-0");
  EXPECT_EQ(namer.getId(7), kBase + "7");
  EXPECT_EQ(namer.getId(0), kBase + "0");
}

TEST_F(NamerTest, ReleaseByNameRefusesGarbageAndAWrongBaseAndKeepsTheIds) {
  namer.getId(7);
  // Empty, stray characters, overflow; the last: the number is read at the base's length,
  // not where it was found.
  for (const std::string& name :
       {kBase, kBase + "7x", kBase + "x7", kBase + " 7", kBase + "7 ", kBase + "\t7", kBase + "+",
        kBase + "-", kBase + "+-7", kBase + "2147483648", kBase + "-2147483649", kBase + "0x7",
        kBase + "7.0", kBase + "1e1", kBase + "1,000", "x" + kBase + "7"}) {
    EXPECT_EQ(
        errorOf([&] { namer.releaseId(name); }),
        "KRTracker::Namer.releaseId: String passed contains garbage: " + name + " + " + kCastError)
        << '"' << name << '"';
  }
  for (const std::string name : {"Other/Name7", "", "KRTracker/Object7",
                                 "krtracker/objectconverter7", "KRTracker/ObjectConverte7"}) {
    EXPECT_EQ(errorOf([&] { namer.releaseId(name); }),
              "KRTracker::Namer.releaseId: String passed does not contain the right base.")
        << '"' << name << '"';
  }
  EXPECT_EQ(errorOf([&] { namer.getId(7); }), "KRTracker::Namer.getId: Id already taken. Id is: 7");
}

TEST_F(NamerTest, DestroyFreesEveryId) {
  for (int id = -2; id < 5; ++id)
    namer.getId(id);
  namer.destroy();
  for (int id = -2; id < 5; ++id)
    EXPECT_EQ(namer.getId(id), kBase + std::to_string(id));
}

TEST_F(NamerTest, FixedNames) {
  const std::pair<std::string, std::string> names[] = {
      {Namer::getNameLooker(), "KRTracker/ObjectLookAt"},
      {Namer::getNameTargetIdNotFound(), "KRTracker/TargetIdNotFound"},
      {Namer::getNameMove(), "KRTracker/ObjectMoveTo"},
      {Namer::getNameLost(), "KRTracker/TargetLost"},
      {Namer::getNameTargetReached(), "KRTracker/TargetReached"},
      {Namer::getNameStopSearch(), "KRTracker/StopSearch"},
      {Namer::getNameDetected(), "KRTracker/TargetDetected"},
      {Namer::getNameHeadStopped(), "KRTracker/HeadTracking/Stopped"},
      {Namer::getNameHeadRestarted(), "KRTracker/HeadTracking/Restarted"},
      {Namer::getNameArmStopped(), "KRTracker/ArmTracking/Stopped"},
      {Namer::getNameArmRestarted(), "KRTracker/ArmTracking/Restarted"},
  };
  for (const auto& n : names)
    EXPECT_EQ(n.first, n.second);
}

// Run under ThreadSanitizer in CI.
TEST(NamerConcurrency, ThreadsTakeAndReleaseDistinctIds) {
  Namer& namer = Namer::getInstance();
  namer.destroy();
  constexpr int kThreads = 8, kRounds = 200;
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRounds; ++i) {
        const std::int32_t id = t * 1000 + i;
        try {
          const std::string name = namer.getId(id);
          if (name != kBase + std::to_string(id) || namer.getName(id) != name)
            ++failures;
          i % 2 == 0 ? namer.releaseId(name) : namer.releaseId(id);
        } catch (const KR::KRError&) {
          ++failures;
        }
      }
    });
  }
  for (auto& t : threads)
    t.join();
  EXPECT_EQ(failures.load(), 0);
  // Everything was given back.
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(errorOf([&] { namer.releaseId(t * 1000); }),
              "KRTracker::Namer.releaseId: Id to release does not exist. Id is: " +
                  std::to_string(t * 1000));
  }
}

TEST(NamerConcurrency, ExactlyOneThreadGetsAContendedId) {
  Namer& namer = Namer::getInstance();
  namer.destroy();
  for (int round = 0; round < 50; ++round) {
    std::atomic<int> winners{0}, refused{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&] {
        try {
          namer.getId(round);
          ++winners;
        } catch (const KR::KRError&) {
          ++refused;
        }
      });
    }
    for (auto& t : threads)
      t.join();
    EXPECT_EQ(winners.load(), 1);
    EXPECT_EQ(refused.load(), 3);
  }
  namer.destroy();
}

}  // namespace
