#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>

#include <ko/log.h>
#include <kr/broker/broker.h>

#include "support/error_of.h"
#include "support/fake_module.h"

using KR::KRBroker, KR::KRError, KR::KRModule, KR::KRValue;

namespace {

struct BrokerTest : ::testing::Test {
  void SetUp() override {
    module = std::make_shared<KRModule>("Calc");
    broker->addModule(module);
    proxy = broker->getProxy("Calc", 0);
  }
  void TearDown() override { broker->shutdown(); }

  std::shared_ptr<KRBroker> broker = KRBroker::create();
  std::shared_ptr<KRModule> module;
  std::shared_ptr<KR::KRProxy> proxy;
};

}  // namespace

TEST_F(BrokerTest, TypedBindingFromZeroToFiveArguments) {
  std::string last;
  module->bind("none", [&] { last = "none"; });
  module->bind("zero", [] { return 42; });
  module->bind("one", [](float a) { return a * 2.0f; });
  module->bind("two", [](const std::string& a, int b) { return a + std::to_string(b); });
  module->bind("three", [](bool a, int b, float c) { return a ? b + c : -1.0f; });
  module->bind("four", [](const std::vector<float>& a, const std::vector<std::string>& b, int c,
                          const KRValue& d) {
    return KRValue{int(a.size()), b.at(0), c, d};
  });
  module->bind("five", [&](const std::vector<std::string>& n, const std::vector<float>& a,
                           const std::vector<float>& s, bool x, bool y) {
    last = n.at(0) + std::to_string(a.size() + s.size()) + (x ? "x" : "") + (y ? "y" : "");
  });

  proxy->call<void>("none");
  EXPECT_EQ(last, "none");
  EXPECT_EQ(proxy->call<int>("zero"), 42);
  EXPECT_EQ(proxy->call<float>("one", 1.5f), 3.0f);
  EXPECT_EQ(proxy->call<float>("one", 2), 4.0f);  // an int argument converts to float
  EXPECT_EQ(proxy->call<std::string>("two", std::string("n"), 7), "n7");
  EXPECT_EQ(proxy->call<float>("three", true, 2, 0.5f), 2.5f);
  EXPECT_EQ(proxy->call<KRValue>("four", std::vector<float>{1, 2}, std::vector<std::string>{"a"}, 3,
                                 KRValue{true}),
            (KRValue{2, "a", 3, KRValue{true}}));
  proxy->call<void>("five", std::vector<std::string>{"J"}, std::vector<float>{1, 2},
                    std::vector<float>{0.5f}, true, false);
  EXPECT_EQ(last, "J3x");
  EXPECT_EQ(module->getMethodList(),
            (std::vector<std::string>{"five", "four", "none", "one", "three", "two", "zero"}));
}

TEST_F(BrokerTest, FailuresReachTheCallerAsStandardExceptions) {
  module->bind("fails", []() -> int { throw std::runtime_error("the module's own text"); });
  module->bind("typed", [](int a) { return a; });

  struct Case {
    const char* what;
    std::function<void()> call;
    std::string expected;  // a piece of the text
  };
  const Case cases[] = {
      {"unknown module", [&] { broker->getProxy("Nope", 0); }, "no module named \"Nope\""},
      {"unknown method", [&] { proxy->call<void>("nope"); }, "unknown method \"nope\""},
      {"module exception", [&] { proxy->call<int>("fails"); }, "the module's own text"},
      {"argument count", [&] { proxy->call<int>("typed"); }, "expects 1 argument(s), got 0"},
      {"argument kind", [&] { proxy->call<int>("typed", std::string("x")); }, "must be int"},
      {"result kind", [&] { proxy->call<std::string>("typed", 1); }, "result must be string"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string error = krtest::errorOf(c.call);
    EXPECT_NE(error.find(c.expected), std::string::npos) << error;
  }
  EXPECT_THROW(broker->addModule(std::make_shared<KRModule>("Calc")), KRError);
}

// A call checked before it is made: the same verdict as the call itself, and nothing runs.
TEST_F(BrokerTest, ArgumentsAreCheckedWithoutRunningTheMethod) {
  int runs = 0;
  module->bind("typed", [&](int a, const std::vector<float>& b, const KRValue&) {
    ++runs;
    return a + static_cast<int>(b.size());
  });
  module->bindRaw("raw", [&](const std::vector<KRValue>&) { return KRValue(++runs); });
  module->bindRaw(
      "checked", [&](const std::vector<KRValue>&) { return KRValue(++runs); },
      [](const std::vector<KRValue>& args) {
        if (args.size() > 1)
          throw KRError("Calc", "checked", "at most one argument");
      });
  const KRValue list{1.0f, 2};
  struct Case {
    const char* method;
    std::vector<KRValue> args;
    std::string expected;  // a piece of the text, empty when accepted
  };
  const Case cases[] = {
      {"typed", {KRValue(1), list, KRValue("any")}, ""},
      {"typed", {KRValue(1), list}, "expects 3 argument(s), got 2"},
      {"typed", {KRValue("1"), list, KRValue()}, "argument 1 must be int, got string"},
      {"typed", {KRValue(1), KRValue{1.0f, "x"}, KRValue()}, "argument 2 must be a float"},
      {"nope", {}, "unknown method \"nope\" of module Calc"},
      {"raw", {KRValue(1), KRValue(2)}, ""},
      {"checked", {KRValue(1)}, ""},
      {"checked", {KRValue(1), KRValue(2)}, "at most one argument"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.method) + " with " + std::to_string(c.args.size()));
    const std::string error = krtest::errorOf([&] { module->checkArguments(c.method, c.args); });
    if (c.expected.empty()) {
      EXPECT_EQ(error, "");
    } else {
      EXPECT_NE(error.find(c.expected), std::string::npos) << error;
      // A typed method's call refuses it too, before the method runs.
      if (std::string(c.method) != "checked") {
        EXPECT_NE(krtest::errorOf([&] { proxy->callValues(c.method, c.args); }), "");
      }
    }
  }
  EXPECT_EQ(runs, 0);
}

TEST_F(BrokerTest, ObserverSeesEveryCallInOrder) {
  module->bind("add", [](int a, int b) { return a + b; });
  module->bind("note", [](const std::string&) {});
  krtest::CallRecorder recorder(broker);
  proxy->call<int>("add", 1, 2);
  proxy->pCall("note", std::string("later"));
  proxy->call<void>("note", std::string("now"));
  broker->waitForPostedCalls();

  EXPECT_EQ(recorder.calls(),
            (std::vector<std::string>{"Calc.add(1, 2)", "post Calc.note(\"later\")",
                                      "Calc.note(\"now\")"}));
  const auto records = recorder.records();
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(records[1].module, "Calc");
  EXPECT_EQ(records[1].method, "note");
  EXPECT_TRUE(records[1].posted);
  EXPECT_FALSE(records[2].posted);
}

TEST_F(BrokerTest, PostedCallReturnsBeforeTheMethodRuns) {
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  std::atomic<bool> ran{false};
  module->bind("slow", [&] {
    released.wait();
    ran = true;
  });
  module->bind("fails", []() -> void { throw std::runtime_error("posted failure"); });

  ko::log::ScopedCapture capture;
  proxy->pCall("slow");  // would block forever if it ran on this thread
  EXPECT_FALSE(ran.load());
  release.set_value();
  proxy->pCall("fails");
  broker->waitForPostedCalls();
  EXPECT_TRUE(ran.load());
  const auto records = capture.records("KRBroker");
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, ko::log::Level::error);
  EXPECT_EQ(records[0].text, "Calc.fails: posted failure");
}

TEST_F(BrokerTest, ProxiesKeepModulesNotTheBroker) {
  std::weak_ptr<KRBroker> weak = broker;
  auto other = KRBroker::create();
  other->addModule(std::make_shared<KRModule>("M"));
  auto p = other->getProxy("M", 0);
  std::weak_ptr<KRBroker> weakOther = other;
  other.reset();
  EXPECT_TRUE(weakOther.expired());
  EXPECT_THROW(p->call<void>("anything"), KRError);  // the module itself is still reachable
  EXPECT_FALSE(weak.expired());
}

TEST_F(BrokerTest, CallsFromManyThreads) {
  std::atomic<int> count{0};
  module->bind("inc", [&](int by) { count += by; });
  krtest::CallRecorder recorder(broker);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      auto proxy = broker->getProxy("Calc", 0);
      for (int i = 0; i < 500; ++i)
        i % 2 == 0 ? proxy->call<void>("inc", 1) : proxy->pCall("inc", 1);
    });
  }
  for (auto& t : threads)
    t.join();
  broker->waitForPostedCalls();
  EXPECT_EQ(count.load(), 2000);
  EXPECT_EQ(recorder.records().size(), 2000u);
}
