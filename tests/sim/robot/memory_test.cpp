#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include <kr/error.h>
#include <krsim/robot/memory.h>

namespace {

using KR::KRValue, KR::Sim::SimClock, KR::Sim::SimMemory;

struct MemoryTest : ::testing::Test {
  std::shared_ptr<SimClock> clock = std::make_shared<SimClock>();
  std::shared_ptr<SimMemory> memory = std::make_shared<SimMemory>(clock);
};

TEST_F(MemoryTest, EventsReachTheirSubscribersInOrderAndAreStoredAsData) {
  std::vector<std::string> seen;
  memory->subscribe("A", [&](const std::string& n, const KRValue& v) {
    seen.push_back("first " + n + " " + v.toString());
  });
  memory->subscribe("B", [&](const std::string& n, const KRValue&) { seen.push_back("B " + n); });
  const int second = memory->subscribe(
      "A", [&](const std::string& n, const KRValue&) { seen.push_back("second " + n); });

  memory->raiseEvent("A", KRValue(3));
  memory->unsubscribe(second);
  memory->raiseEvent("A", KRValue(4));

  EXPECT_EQ(seen, (std::vector<std::string>{"first A 3", "second A", "first A 4"}));
  EXPECT_EQ(memory->getData("A"), KRValue(4));
  EXPECT_EQ(memory->subscriberCount("A"), 1u);
}

TEST_F(MemoryTest, ACallbackMayRaiseAnotherEvent) {
  memory->subscribe("Ping", [&](const std::string&, const KRValue& v) {
    memory->raiseEvent("Pong", KRValue(v.asInt() + 1));
  });
  int pong = 0;
  memory->subscribe("Pong", [&](const std::string&, const KRValue& v) { pong = v.asInt(); });
  memory->raiseEvent("Ping", KRValue(1));
  EXPECT_EQ(pong, 2);
}

TEST_F(MemoryTest, HistoryRecordsSimulatedTimesAndDropsUnwantedValues) {
  memory->setKeepValues("Obs", false);
  memory->raiseEvent("Obs", KRValue{1.0f, 2.0f});
  clock->advance(std::chrono::milliseconds(250));
  memory->raiseEvent("KRTracker/TargetLost", KRValue(true));

  const auto history = memory->eventHistory();
  ASSERT_EQ(history.size(), 2u);
  EXPECT_EQ(history[0].time, clock->start());
  EXPECT_FALSE(history[0].value.isValid());
  EXPECT_EQ(history[1].time - history[0].time, std::chrono::milliseconds(250));
  EXPECT_EQ(history[1].value, KRValue(true));
  EXPECT_EQ(memory->eventCount("Obs"), 1u);
  // The value still reaches memory data, only the history forgets it.
  EXPECT_EQ(memory->getData("Obs"), (KRValue{1.0f, 2.0f}));

  auto proxyHistory = memory->invoke("getEventHistory", {KRValue("KRTracker/TargetLost")});
  ASSERT_EQ(proxyHistory.size(), 1u);
  EXPECT_FLOAT_EQ(proxyHistory[0][0].asFloat(), 0.25f);
  EXPECT_EQ(proxyHistory[0][1], KRValue("KRTracker/TargetLost"));
}

TEST_F(MemoryTest, RemoteMethodsStoreAndReadDataAndRejectMissingKeys) {
  auto broker = KR::KRBroker::create("t");
  broker->addModule(memory);
  auto proxy = broker->getProxy("KRMemory", 0);
  proxy->call<void>("insertData", std::string("key"), KRValue{1, "a"});
  EXPECT_EQ(proxy->call<KRValue>("getData", std::string("key")), (KRValue{1, "a"}));
  EXPECT_THROW(proxy->call<KRValue>("getData", std::string("absent")), KR::KRError);
  EXPECT_FALSE(memory->hasData("absent"));
  broker->shutdown();
}

TEST_F(MemoryTest, ConcurrentRaisersAndSubscribersLoseNoEvent) {
  std::atomic<int> received{0};
  memory->subscribe("E", [&](const std::string&, const KRValue&) { ++received; });
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int k = 0; k < 500; ++k) {
        memory->raiseEvent("E", KRValue(k));
        const int id = memory->subscribe("Other", [](const std::string&, const KRValue&) {});
        memory->unsubscribe(id);
      }
    });
  }
  for (auto& t : threads)
    t.join();
  EXPECT_EQ(received.load(), 2000);
  EXPECT_EQ(memory->eventCount("E"), 2000u);
}

// The history keeps the latest events only, however many are raised; every event is still
// counted, and a reader that follows the history by position loses only what was dropped.
TEST_F(MemoryTest, TheHistoryIsBoundedAndPositionsSurviveWhatIsDropped) {
  constexpr std::size_t kCapacity = KR::Sim::SimMemory::kHistoryCapacity;
  const std::size_t raised = 2 * kCapacity + 10;
  for (std::size_t i = 0; i < raised; ++i)
    memory->raiseEvent(i % 2 == 0 ? "Even" : "Odd", KRValue(static_cast<int>(i)));
  const auto history = memory->eventHistory();
  ASSERT_EQ(history.size(), kCapacity);
  EXPECT_EQ(history.front().value, KRValue(static_cast<int>(raised - kCapacity)));  // oldest kept
  EXPECT_EQ(history.back().value, KRValue(static_cast<int>(raised - 1)));
  EXPECT_EQ(memory->eventTotal(), raised);
  EXPECT_EQ(memory->eventCount("Even") + memory->eventCount("Odd"), raised);
  EXPECT_EQ(memory->eventCount("Even"), kCapacity + 5);
  // Positions count from the first event ever raised.
  const auto latest = memory->eventHistorySince(raised - 3);
  ASSERT_EQ(latest.size(), 3u);
  EXPECT_EQ(latest.front().value, KRValue(static_cast<int>(raised - 3)));
  EXPECT_EQ(memory->eventHistorySince(0).size(), kCapacity);  // from the oldest kept
  EXPECT_TRUE(memory->eventHistorySince(raised).empty());
  // Emptied, the history goes on counting positions.
  memory->clearEventHistory();
  memory->raiseEvent("Odd", KRValue(-1));
  ASSERT_EQ(memory->eventHistorySince(raised).size(), 1u);
  EXPECT_EQ(memory->eventHistory().size(), 1u);
  EXPECT_EQ(memory->eventTotal(), raised + 1);
}

}  // namespace
