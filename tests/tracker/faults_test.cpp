// Every public operation of the tracker, and every function offered to the sub-modules, run
// once cleanly and then once per remote call it makes with that call failing (a standard
// exception, a KRError, a wrong result, an empty result, a late result). The operation must not
// crash, must not throw unless the failing call is one whose failure it passes on, must make
// no remote call that the clean run did not make, and must leave the tracker in the state the
// failure tables give.

#include <algorithm>
#include <cctype>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <kr/error.h>
#include <kr/target/targets.h>
#include <krtracker/tools/tools.h>
#include <krtracker/types/types/trackinfos.h>

#include "support/fault_injection.h"
#include "tracker/tracker_fixture.h"

namespace {

using namespace krtest;
namespace tools = KR::Tracker::tools;

// ---- the rig: the shared harness with its fakes behind faulty modules -----------------------

// The torso in any frame: turned 0.2 rad about z, 5 cm forward and 30 cm up.
const std::vector<float> kTorsoTransform = {
    0.980067f, -0.198669f, 0.0f, 0.05f, 0.198669f, 0.980067f, 0.0f, 0.0f, 0.0f, 0.0f, 1.0f, 0.3f};

struct Rig : krtest::TrackerHarness {
  explicit Rig(const std::string& robot) : TrackerHarness(robot, {}, true) {
    FakeModule& tm = module("_KRTargetManager");
    tm.answer("getRegisteredTargets", std::vector<std::string>{"Face", "Ball", "Cup"});
    tm.answer("getSupportedTargets", std::vector<std::string>{"Face", "RedBall", "LandMarks"});
    tm.answer("getActiveTargetPosition", std::vector<float>{1.0f, 0.2f, 0.3f});
    tm.answer("getExtractorPeriod", 500);
    FakeModule& smoother = module("_Smoother");
    smoother.answer("getTimeOut", 3000);
    smoother.answer("_getMoveHysteresis", std::vector<float>{0.1f, 0.1f, 0.02f});
    smoother.answer("getPosition", std::vector<float>{0.5f, 0.1f, 0.0f, 0.0f, 0.0f, 0.2f});
    module("_RoundSearcher").answer("getFractionMaxSpeed", 0.5f);
    FakeModule& motion = module("KRMotion");
    motion.answer("getTransform", kTorsoTransform);
    motion.answer("_getSensorTransformAtTime", kTorsoTransform);
    motion.answer("getRobotPosition", std::vector<float>{0.2f, -0.1f, 0.3f});
    motion.answer("getPosition", std::vector<float>{0.1f, 0.0f, 0.4f, 0.0f, 0.0f, 0.2f});
    motion.answer("robotIsWakeUp", true);
    motion.answer("areResourcesAvailable", false);
  }

  TrackerProbe& t() { return *tracker; }
  std::shared_ptr<KR::KRProxy> motion() { return broker->getProxy("KRMotion"); }
};

// ---- what is compared: the tracker's own state, empty when there is no tracker --------------

using State = std::map<std::string, KRValue>;

// Read through operations that make no remote call, so that reading counts no call.
State snapshot(Rig& rig) {
  if (!rig.tracker)
    return {};
  TrackerProbe& t = rig.t();
  return {{"active", KRValue(t.isActive())},
          {"target", KRValue(t.getActiveTarget())},
          {"mode", KRValue(t.getMode())},
          {"effector", KRValue(t.getEffector())},
          {"relativePosition", t.getRelativePosition()},
          {"coordinates", t.getTargetCoordinates()},
          {"moveConfig", t.getMoveConfig()},
          {"velocity", KRValue(t.getMaximumVelocity())},
          {"acceleration", KRValue(t.getMaximumAcceleration())},
          {"distance", KRValue(t.getMaximumDistanceDetection())},
          {"searchEnabled", KRValue(t.isSearchEnabled())},
          {"searcherRunning", KRValue(t.fSearcherRunning)},
          {"notLandMarks", KRValue(t.fNotLandMarks)},
          {"availableModes", KRValue(t.getAvailableModes())},
          {"config", KRValue(t.getTrackerConfigStr())}};
}

// ---- one run of one operation ---------------------------------------------------------------

struct Run {
  std::size_t k = 0;  // 0 for the clean run
  Fault fault = Fault::RuntimeError;
  Calls calls;
  std::string target;  // "Module.method" of the failing call
  bool delivered = false;
  State before, after;
  KRValue result;
  bool threw = false;
  std::string what;
  std::vector<ko::log::Record> records;
  std::set<std::string> typed;  // methods that answered a valid result
};

using StateFn = std::function<State(const Run& clean, const Run& faulted)>;
using CheckFn = std::function<void(const Run& clean, const Run& faulted)>;

struct Scenario {
  std::string name;
  std::function<void(Rig&)> setup;
  /// The operation; its result as a KRValue (invalid for none).
  std::function<KRValue(Rig&)> op;
  std::string robot = "kibo.xml";
  /// Calls whose failure the operation passes on to its caller.
  std::set<std::string> mayThrowOn;
  /// The result the operation gives when a call fails (besides the clean result).
  std::optional<KRValue> failureResult;
  /// Any result is acceptable when an empty list answers one of these calls: the platform's
  /// value types read a short list as zeros.
  std::set<std::string> emptyReadsAsZeros;
  /// The state after a failure; the clean run's state when absent.
  StateFn expectedState;
  /// Further checks of a failing run.
  CheckFn check;

  Scenario& on(std::string robotFile) { return set(robot, std::move(robotFile)); }
  Scenario& passesOn(std::set<std::string> methods) { return set(mayThrowOn, std::move(methods)); }
  Scenario& givesOnFailure(KRValue value) { return set(failureResult, {std::move(value)}); }
  Scenario& readsEmptyAsZeros(std::set<std::string> m) { return set(emptyReadsAsZeros, m); }
  Scenario& leaves(StateFn fn) { return set(expectedState, std::move(fn)); }
  Scenario& also(CheckFn fn) { return set(check, std::move(fn)); }

 private:
  template <class T>
  Scenario& set(T& field, T value) {
    field = std::move(value);
    return *this;
  }
};

void PrintTo(const Scenario& s, std::ostream* os) {
  *os << s.name;
}

Run execute(const Scenario& s, std::size_t k, Fault fault) {
  Run run;
  run.k = k;
  run.fault = fault;
  ko::log::ScopedCapture log;
  Rig rig(s.robot);
  if (s.setup)
    s.setup(rig);
  run.before = snapshot(rig);
  log.clear();
  if (k == 0) {
    rig.plan->disarm();
  } else {
    rig.plan->arm(k, fault);
  }
  try {
    run.result = s.op(rig);
  } catch (const std::exception& e) {
    run.threw = true;
    run.what = e.what();
  } catch (...) {
    run.threw = true;
    run.what = "an exception that is not a standard exception";
  }
  rig.broker->waitForPostedCalls();
  run.calls = rig.plan->calls();
  run.target = rig.plan->target();
  run.delivered = rig.plan->delivered();
  run.after = snapshot(rig);
  run.records = log.records();
  run.typed = rig.plan->typedMethods();
  rig.plan->disarm();
  return run;
}

bool isSubsequence(const Calls& part, const Calls& whole) {
  std::size_t i = 0;
  for (const std::string& c : whole) {
    if (i < part.size() && part[i] == c)
      ++i;
  }
  return i == part.size();
}

// "Module.method(args)" without the arguments.
Calls methodsOf(const Calls& calls) {
  Calls out;
  for (const std::string& c : calls)
    out.push_back(c.substr(0, c.find('(')));
  return out;
}

Calls prefix(const Calls& calls, std::size_t n) {
  return Calls(calls.begin(), calls.begin() + std::min(n, calls.size()));
}

std::string join(const Calls& calls) {
  std::string out;
  for (const std::string& c : calls)
    out += "\n    " + c;
  return out;
}

// The tracker's invariants, whatever failed.
void checkInvariants(const State& s) {
  if (s.empty())
    return;
  const KRValue::Array& modes = s.at("availableModes").asArray();
  EXPECT_NE(std::find(modes.begin(), modes.end(), s.at("mode")), modes.end()) << s.at("mode");
  const std::set<std::string> effectors = {"Arms", "LArm", "RArm", "None"};
  EXPECT_EQ(effectors.count(s.at("effector").asString()), 1u) << s.at("effector");
}

/// Runs the sweep of one scenario.
void sweep(const Scenario& s, const std::set<std::string>& typedMethods) {
  const Run clean = execute(s, 0, Fault::RuntimeError);
  EXPECT_FALSE(clean.threw) << "clean run threw: " << clean.what;
  EXPECT_FALSE(clean.calls.empty()) << "the operation makes no remote call";
  checkInvariants(clean.after);

  for (std::size_t k = 1; k <= clean.calls.size(); ++k) {
    for (Fault fault : krtest::allFaults()) {
      SCOPED_TRACE("call " + std::to_string(k) + " (" + clean.calls[k - 1] + ") fails with " +
                   krtest::faultName(fault));
      const Run run = execute(s, k, fault);
      EXPECT_TRUE(run.delivered) << "the fault did not reach " << run.target;
      if (!run.delivered)
        continue;
      // Before the failing call, the run is the clean run.
      EXPECT_EQ(prefix(clean.calls, k), prefix(run.calls, k));

      const bool typed = typedMethods.count(run.target) != 0;
      const bool harmless = fault == Fault::Slow ||
                            (!typed && (fault == Fault::WrongType || fault == Fault::EmptyAnswer));
      if (harmless) {
        // A late answer, or a result nobody reads, changes nothing.
        EXPECT_EQ(clean.calls, run.calls);
        EXPECT_EQ(clean.after, run.after);
        EXPECT_EQ(clean.result, run.result);
        EXPECT_EQ(clean.threw, run.threw) << run.what;
        continue;
      }

      // An empty pose read as zeros is a different pose, not a failure: what follows is
      // computed from it, so only the methods called are compared, not their arguments.
      const bool readAsZeros =
          fault == Fault::EmptyAnswer && s.emptyReadsAsZeros.count(run.target) != 0;
      if (run.threw) {
        EXPECT_EQ(s.mayThrowOn.count(run.target), 1u)
            << "threw although the failure of " << run.target
            << " must not reach the caller: " << run.what;
      } else {
        EXPECT_TRUE(readAsZeros || run.result == clean.result ||
                    (s.failureResult && run.result == *s.failureResult))
            << "result " << run.result << ", clean result " << clean.result;
      }
      const Calls& cleanCalls = readAsZeros ? methodsOf(clean.calls) : clean.calls;
      const Calls& runCalls = readAsZeros ? methodsOf(run.calls) : run.calls;
      EXPECT_TRUE(isSubsequence(runCalls, cleanCalls))
          << "calls that the clean run did not make:" << join(run.calls)
          << "\n  clean:" << join(clean.calls);
      checkInvariants(run.after);
      State expected = clean.after;
      if (s.expectedState) {
        expected = s.expectedState(clean, run);
      } else if (run.target == "_RoundSearcher.startEvent") {
        expected["searcherRunning"] =
            KRValue(false);  // a searcher that did not start is not running
      }
      EXPECT_EQ(expected, run.after);
      if (s.check)
        s.check(clean, run);
    }
  }
}

// ---- set-ups --------------------------------------------------------------------------------

struct Tracking {
  std::string target = "Face";
  std::string mode = "Head";
  std::string effector = "None";
  bool search = false;
  bool event = false;
  KRValue coordinates = KRValue();
};

using Setup = std::function<void(Rig&)>;

Setup idle() {
  return [](Rig& rig) { rig.build(); };
}

Setup tracking(Tracking how) {
  return [how](Rig& rig) {
    TrackerProbe& t = rig.build();
    t.setMode(how.mode);
    t.setEffector(how.effector);
    t.toggleSearch(how.search);
    if (how.coordinates.isValid())
      t.setTargetCoordinates(how.coordinates);
    if (how.event) {
      t.trackEvent(how.target);
    } else {
      t.track(how.target);
    }
  };
}

Setup paused(Tracking how) {
  return [how](Rig& rig) {
    tracking(how)(rig);
    rig.t().pause();
  };
}

const KRValue kLandmarks{KRValue{1.0f, 2.0f, 0.5f}, KRValue{1.0f, -2.0f, 0.5f}};
const KRValue kNoStrings = KRValue(std::vector<std::string>{});
const KRValue kNoFloats = KRValue(std::vector<float>{});

// State after a failure that refuses the request: as before, except what the operation sets
// before its first remote call.
State refused(const Run& clean, const Run& run) {
  State s = run.before;
  s["notLandMarks"] = clean.after.at("notLandMarks");
  return s;
}

bool failsIn(const Run& run, std::initializer_list<const char*> methods) {
  return std::any_of(methods.begin(), methods.end(),
                     [&](const char* m) { return run.target == m; });
}

// start goes on after a failing sub-module: the smoother is started last whatever failed before.
void startGoesOn(const Run& clean, const Run& run) {
  if (failsIn(run,
              {"_KRTargetManager.isTargetManaged", "_KRTargetManager.setActiveTarget",
               "_KRTargetManager.getEventName", "_KRTargetManager.getSecondEventName",
               "_KRTargetManager.getTargetIds", "_Smoother.stopSmoother", "_Smoother.setTarget",
               "_Smoother.setTargetIds", "_Smoother.setMap", "_Smoother.startEvent"})) {
    return;
  }
  EXPECT_EQ(clean.calls.back(), run.calls.back());
  EXPECT_NE(std::find(run.calls.begin(), run.calls.end(), "_KRTargetManager.start()"),
            run.calls.end());
}

// The track request is refused when the target manager cannot confirm or activate the target.
void trackRefusedOnTargetManagerFailure(const Run& clean, const Run& run) {
  if (failsIn(run, {"_KRTargetManager.isTargetManaged", "_KRTargetManager.setActiveTarget"})) {
    EXPECT_EQ(prefix(clean.calls, run.k), run.calls);
  }
}

State trackExpected(const Run& clean, const Run& run) {
  if (failsIn(run, {"_KRTargetManager.isTargetManaged", "_KRTargetManager.setActiveTarget"}))
    return refused(clean, run);
  State s = clean.after;
  if (run.target == "_RoundSearcher.startEvent")
    s["searcherRunning"] = KRValue(false);
  return s;
}

// ---- the scenarios --------------------------------------------------------------------------

using T = TrackerProbe;

// The scenarios in the order they are registered; each adder returns the new one for the
// builders to refine.
struct Scenarios {
  Scenario& add(std::string name, Setup setup, std::function<KRValue(Rig&)> op) {
    all.emplace_back();
    all.back().name = std::move(name);
    all.back().setup = std::move(setup);
    all.back().op = std::move(op);
    return all.back();
  }
  /// An operation of the tracker without a result.
  Scenario& act(std::string name, Setup setup, std::function<void(T&)> f) {
    return add(std::move(name), std::move(setup), [f](Rig& rig) {
      f(rig.t());
      return KRValue();
    });
  }
  /// An operation of the tracker with a result.
  Scenario& get(std::string name, Setup setup, std::function<KRValue(T&)> f) {
    return add(std::move(name), std::move(setup), [f](Rig& rig) { return f(rig.t()); });
  }
  /// A getter of the tracker without arguments, from idle unless told, and its failure result.
  template <class Getter>
  Scenario& getter(std::string name, Getter g, KRValue failure, Setup setup = idle()) {
    return get(std::move(name), std::move(setup), [g](T& t) { return KRValue((t.*g)()); })
        .givesOnFailure(std::move(failure));
  }
  std::vector<Scenario> all;
};

std::vector<Scenario> trackerScenarios() {
  const char* const landmarks = KR::Tracker::Target::TargetLandMarks;
  Scenarios s;

  // Lifecycle.
  s.add("construction", nullptr,
        [](Rig& rig) {
          rig.build();
          return KRValue();
        })
      .passesOn({"KRRobotModel.getConfig"})
      .leaves([](const Run& clean, const Run& run) { return run.threw ? run.before : clean.after; })
      .also([](const Run&, const Run& run) {
        ASSERT_TRUE(run.threw);
        // One warning naming the cause, then the error leaves the constructor.
        ASSERT_EQ(1u, run.records.size());
        EXPECT_EQ(ko::log::Level::warning, run.records[0].level);
        EXPECT_EQ("KRRobotModel is not found: " + run.what, run.records[0].text);
      });
  s.add("destruction while tracking", tracking({"Face", "WholeBody", "Arms", true}), [](Rig& rig) {
    rig.tracker.reset();
    return KRValue();
  });
  // Navigate on the robot that can navigate, without arms or search.
  for (const char* mode : {"Head", "WholeBody", "Move", "Navigate"}) {
    const bool navigate = std::string(mode) == "Navigate";
    s.act(
         std::string("track from idle in ") + mode,
         [mode, navigate](Rig& rig) {
           TrackerProbe& t = rig.build();
           t.setMode(mode);
           if (!navigate) {
             t.setEffector("Arms");
             t.toggleSearch(true);
           }
         },
         [](T& t) { t.track("Face"); })
        .on(navigate ? "rover.xml" : "kibo.xml")
        .leaves(trackExpected)
        .also([](const Run& clean, const Run& run) {
          trackRefusedOnTargetManagerFailure(clean, run);
          startGoesOn(clean, run);
        });
  }
  const auto trackLandmarks = [landmarks](T& t) { t.track(landmarks); };
  s.act(
       "track landmarks from idle", [](Rig& rig) { rig.build().setTargetCoordinates(kLandmarks); },
       trackLandmarks)
      .leaves(trackExpected)
      .also(trackRefusedOnTargetManagerFailure);
  s.act("track another target while tracking", tracking({}), [](T& t) { t.track("Ball"); })
      .leaves(trackExpected)
      .also(trackRefusedOnTargetManagerFailure);
  s.act("track landmarks while tracking",
        tracking({"Face", "Head", "None", false, false, kLandmarks}), trackLandmarks)
      .leaves(trackExpected)
      .also(trackRefusedOnTargetManagerFailure);
  s.act("trackEvent from idle", idle(), [](T& t) {
     t.trackEvent("SoundEvent");
   }).also([](const Run& clean, const Run& run) {
    // Unlike track, a failing activation does not stop the request.
    if (run.target == "_KRTargetManager.setActiveEvent") {
      EXPECT_EQ(clean.calls, run.calls);
    }
  });
  s.act("trackEvent while tracking", tracking({}), [](T& t) { t.trackEvent("SoundEvent"); });
  const Setup trackingAll = tracking({"Face", "Head", "Arms", true});
  s.act("stop while tracking", trackingAll, [](T& t) {
     t.stop();
   }).also([](const Run& clean, const Run& run) {
    // A searcher that cannot be stopped counts as stopped; any other failure silently
    // ends the stop sequence: the sub-modules after it are not stopped.
    if (run.target == "_RoundSearcher.stopSearcher") {
      EXPECT_EQ(clean.calls, run.calls);
    } else {
      EXPECT_EQ(prefix(clean.calls, run.k), run.calls);
    }
    EXPECT_TRUE(run.records.empty());
  });
  s.act("exit while tracking", trackingAll, [](T& t) { t.exit(); })
      .passesOn({"_Smoother.exit", "_MotionMove.exit", "_NavigationMove.exit",
                 "_RoundSearcher.exit", "_HeadLooker.exit", "_WholeBodyLooker.exit",
                 "_ArmsLooker.exit", "_KRTargetManager.exit"})
      .also([](const Run& clean, const Run& run) {
        const std::string suffix = ".exit";
        if (run.target.size() > suffix.size() &&
            run.target.compare(run.target.size() - suffix.size(), suffix.size(), suffix) == 0) {
          // The failure reaches the caller and the remaining sub-modules get no exit.
          EXPECT_TRUE(run.threw);
          EXPECT_EQ(prefix(clean.calls, run.k), run.calls);
        }
      });
  s.act("pause while tracking", trackingAll, [](T& t) { t.pause(); })
      .leaves([](const Run& clean, const Run& run) {
        State st = clean.after;
        if (run.target == "_RoundSearcher.stopSearcher") {
          st["searcherRunning"] = run.before.at("searcherRunning");  // not stopped, still marked
        }
        return st;
      })
      .also([](const Run& clean, const Run& run) {
        // Each step is guarded on its own: a failure does not prevent the next.
        EXPECT_EQ(clean.calls, run.calls);
      });
  const auto restart = [](T& t) { t.restart(); };
  s.act("restart after pause", paused({"Face", "WholeBody", "Arms", true}), restart);
  s.act("restart after pausing an event", paused({"SoundEvent", "Move", "LArm", false, true}),
        restart);
  s.act("initialize while tracking", tracking({"Face", "WholeBody", "LArm", true}),
        [](T& t) { t.initialize(); });

  // Targets.
  s.act("registerTarget", idle(), [](T& t) { t.registerTarget("Face", KRValue{"Alice", 0.2f}); });
  s.act("unregisterTarget", idle(), [](T& t) { t.unregisterTarget("Face"); });
  s.act("unregisterTargets", idle(), [](T& t) { t.unregisterTargets({"Face", "Ball"}); });
  s.act("unregisterAllTargets while tracking", tracking({}),
        [](T& t) { t.unregisterAllTargets(); });
  s.getter("getSupportedTargets", &T::getSupportedTargets, kNoStrings);
  s.getter("getRegisteredTargets", &T::getRegisteredTargets, kNoStrings);
  s.act("setTargetCoordinates while tracking landmarks", tracking({landmarks}),
        [](T& t) { t.setTargetCoordinates(kLandmarks); });
  for (KR::Math::FRAME frame : {KR::Math::FRAME_WORLD, KR::Math::FRAME_ROBOT}) {
    s.get("getTargetPosition in frame " + std::to_string(frame), tracking({}),
          [frame](T& t) { return KRValue(t.getTargetPosition(frame)); })
        .passesOn({"KRMotion.getTransform"})
        .givesOnFailure(kNoFloats);
  }
  s.getter("getEventName", &T::getEventName, KRValue(""), tracking({}));
  s.getter("getSecondEventName", &T::getSecondEventName, KRValue(""), tracking({}));

  // Modes and move configuration.
  s.act("setMode WholeBody while tracking", tracking({}), [](T& t) { t.setMode("WholeBody"); });
  s.act("setMode Head while tracking in WholeBody", tracking({"Face", "WholeBody"}),
        [](T& t) { t.setMode("Head"); });
  s.act("setMode MoveSafely while tracking", tracking({}), [](T& t) { t.setMode("MoveSafely"); });
  s.act("setMode Navigate while tracking", tracking({}), [](T& t) {
     t.setMode("Navigate");
   }).on("rover.xml");
  s.act("setMoveConfig in Navigate", tracking({"Face", "Navigate"}), [](T& t) {
     t.setMoveConfig(KRValue{KRValue{"MaxStepX", 0.04f}});
   }).on("rover.xml");
  s.act("setRelativePosition while tracking", tracking({}), [](T& t) {
    t.setRelativePosition(KRValue{0.5f, 0.0f, 0.0f, 0.1f, 0.1f, 0.2f});
  });
  s.act("setMoveHysteresis", idle(), [](T& t) {
     t.setMoveHysteresis({0.2f, 0.2f, 0.05f});
   }).passesOn({"_Smoother._setMoveHysteresis"});
  s.getter("getMoveHysteresis", &T::getMoveHysteresis, kNoFloats)
      .passesOn({"_Smoother._getMoveHysteresis"});
  s.act("setMoveEvent", idle(), [](T& t) { t.setMoveEvent("MoveEvent"); });
  s.getter("getRobotPosition tracking landmarks", &T::getRobotPosition, kNoFloats,
           tracking({landmarks}))
      .passesOn({"_Smoother.getPosition"});

  // Effectors.
  s.act("setEffector LArm while tracking", tracking({"Face", "WholeBody"}),
        [](T& t) { t.setEffector("LArm"); });
  s.act("setEffector None while tracking", tracking({"Face", "Head", "Arms"}),
        [](T& t) { t.setEffector("None"); });
  s.act("addEffector RArm to LArm while tracking", tracking({"Face", "Head", "LArm"}),
        [](T& t) { t.addEffector("RArm"); });
  s.act("removeEffector LArm from Arms", tracking({"Face", "Head", "Arms"}),
        [](T& t) { t.removeEffector("LArm"); });
  s.act("removeEffector Arms from LArm", tracking({"Face", "Head", "LArm"}),
        [](T& t) { t.removeEffector("Arms"); });

  // Speed limits, smoother and searcher settings.
  s.act("setTimeOut", idle(), [](T& t) { t.setTimeOut(2000); });
  s.getter("getTimeOut", &T::getTimeOut, KRValue(0));
  s.act("setExtractorPeriod", idle(), [](T& t) { t.setExtractorPeriod("Face", 200); });
  s.get("getExtractorPeriod", idle(), [](T& t) {
     return KRValue(t.getExtractorPeriod("Face"));
   }).givesOnFailure(KRValue(-1));
  s.act("setMaximumDistanceDetection", idle(), [](T& t) { t.setMaximumDistanceDetection(2.5f); });
  s.act("setSearcherFractionMaxSpeed", idle(), [](T& t) { t.setSearcherFractionMaxSpeed(0.3f); });
  s.getter("getSearcherFractionMaxSpeed", &T::getSearcherFractionMaxSpeed, KRValue(0.0f));
  s.act("searcherSetUseWholeBodyLookAt", idle(),
        [](T& t) { t.searcherSetUseWholeBodyLookAt(true); });
  s.act("toggleSearch on while tracking", tracking({}), [](T& t) { t.toggleSearch(true); });
  s.act("toggleSearch off while searching", tracking({"Face", "Head", "None", true}),
        [](T& t) { t.toggleSearch(false); });

  // One-shot commands. The frame conversion before the command passes its failure on.
  const std::set<std::string> transform = {"KRMotion.getTransform"};
  s.act("lookAt head while tracking", trackingAll, [](T& t) {
     t.lookAt({1.0f, 0.3f, 0.2f}, KR::Math::FRAME_WORLD, 0.5f, false);
   }).passesOn(transform);
  s.act("lookAt whole body while tracking", tracking({"Face", "Head", "None", true}),
        [](T& t) {
          t.lookAt({1.0f, 0.3f, 0.2f}, KR::Math::FRAME_WORLD, 2, 0.5f, true);
        })
      .on("rover.xml")
      .passesOn({"KRMotion.getRobotPosition"})
      .readsEmptyAsZeros({"KRMotion.getRobotPosition"});
  s.act("lookAtAndMove behind, whole body", tracking({}), [](T& t) {
     t.lookAtAndMove({-1.0f, 0.5f, 0.2f}, 0.5f, true, true);
   }).passesOn(transform);
  s.act("lookAtAndMove behind, head only", tracking({}), [](T& t) {
     t.lookAtAndMove({-1.0f, -0.5f, 0.2f}, 0.5f, false, true);
   }).passesOn(transform);
  s.act("pointAt both arms while tracking", tracking({"Face", "Head", "Arms"}), [](T& t) {
     t.pointAt("Arms", {1.0f, 0.2f, 0.1f}, KR::Math::FRAME_ROBOT, 0.5f);
   }).passesOn(transform);
  s.act("pointAt behind", idle(), [](T& t) {
     t.pointAt("LArm", {-1.0f, 0.3f, 0.1f}, KR::Math::FRAME_TORSO, 0.5f);
   }).passesOn(transform);
  s.act("pointAt on a robot that must be awake", tracking({"Face", "Head", "RArm"}),
        [](T& t) {
          t.pointAt("RArm", {1.0f, -0.2f, 0.1f}, KR::Math::FRAME_WORLD, 0.5f);
        })
      .on("rover.xml")
      .passesOn(transform);
  s.act("stopLookAt", idle(), [](T& t) { t.stopLookAt(); });
  s.act("stopPointAt", idle(), [](T& t) { t.stopPointAt(); });
  return s.all;
}

// Functions that the sub-modules call with a proxy to the motion service.
std::vector<Scenario> toolScenarios() {
  Scenarios s;
  const KR::Tracker::types::TrackInfos sentinel(KR::Math::Position6D(9, 9, 9, 0, 0, 0), 1, 2, 1,
                                                3.0f, 0.5f);
  auto convert = [sentinel](KRValue event) {
    return [sentinel, event](Rig& rig) {
      KR::Tracker::types::TrackInfos out = sentinel;
      const bool ok =
          tools::convertTrackerEventToTrackInfo(event, "faults", "evt", rig.motion(), out);
      return KRValue{ok, out.toKRValue()};
    };
  };
  // False, and the record it was given untouched.
  const KRValue untouched{false, sentinel.toKRValue()};
  s.add("convertTrackerEventToTrackInfo, world layout", idle(),
        convert(KRValue{KRValue{1, 2, 0.5f, 0, 0, 0.1f}, KRValue{10, 500}, 0}))
      .givesOnFailure(untouched)
      .readsEmptyAsZeros({"KRMotion.getRobotPosition"});
  s.add("convertTrackerEventToTrackInfo, torso layout", idle(),
        convert(
            KRValue{KRValue{1, 0, 0, 0, 0, 0}, KRValue{1, 0, 0, 0, 0, 0}, KRValue{3, 7}, 1, 0.1f}))
      .givesOnFailure(untouched)
      .readsEmptyAsZeros({"KRMotion.getPosition"});
  s.add("areAllResourcesTaken", idle(), [](Rig& rig) {
     return KRValue(tools::areAllResourcesTaken(rig.motion(), {"HeadYaw", "LArm", "RArm"}));
   }).givesOnFailure(KRValue(false));
  const KR::Math::Position3D p(1.0f, 0.5f, 0.2f);
  for (KR::Math::FRAME frame :
       {KR::Math::FRAME_WORLD, KR::Math::FRAME_ROBOT, KR::Math::FRAME_TORSO}) {
    const std::string f = std::to_string(frame);
    s.add("convertToTorsoFrame from " + f, idle(), [frame, p](Rig& rig) {
       return KRValue(tools::convertToTorsoFrame(rig.motion(), p, frame).toVector());
     }).passesOn({"KRMotion.getTransform"});
    s.add("convertTorsoFrameToDesiredFrame to " + f, idle(), [frame, p](Rig& rig) {
       return KRValue(tools::convertTorsoFrameToDesiredFrame(rig.motion(), p, frame).toVector());
     }).passesOn({"KRMotion.getTransform"});
    if (frame != KR::Math::FRAME_ROBOT) {  // the robot frame needs no remote call
      s.add("convertToRobotFrame from " + f, idle(),
            [frame, p](Rig& rig) {
              return KRValue(tools::convertToRobotFrame(rig.motion(), p, frame).toVector());
            })
          .passesOn({"KRMotion.getTransform", "KRMotion.getRobotPosition"})
          .readsEmptyAsZeros({"KRMotion.getRobotPosition"});
    }
  }
  s.add("getWorldToTorsoTransform", idle(),
        [](Rig& rig) { return KRValue(tools::getWorldToTorsoTransform(rig.motion()).toVector()); })
      .passesOn({"KRMotion.getPosition"})
      .readsEmptyAsZeros({"KRMotion.getPosition"});
  s.add("getWorldToRobotTransform", idle(),
        [](Rig& rig) { return KRValue(tools::getWorldToRobotTransform(rig.motion()).toVector()); })
      .passesOn({"KRMotion.getRobotPosition"})
      .readsEmptyAsZeros({"KRMotion.getRobotPosition"});
  s.add("getSensorTransform", idle(), [](Rig& rig) {
     const KR::KRTimePoint at(std::chrono::seconds(5));
     return KRValue(tools::getSensorTransform(*rig.motion(), "CameraTop", at).toVector());
   }).givesOnFailure(KRValue(KR::Math::Transform().toVector()));
  for (bool wholeBody : {false, true}) {
    s.add(std::string("tools::lookAt") + (wholeBody ? ", whole body" : ", head"), idle(),
          [wholeBody](Rig& rig) {
            tools::lookAt(rig.motion(), rig.t().fModel, KR::Math::Position3D(1.0f, 0.2f, 0.4f),
                          KR::Math::FRAME_WORLD, KR::Model::TRACK_EFFECTOR_CAMERA_TOP, 0.5f,
                          wholeBody);
            return KRValue();
          })
        .passesOn({"KRMotion.getTransform", "KRMotion.getRobotPosition"})
        .readsEmptyAsZeros({"KRMotion.getRobotPosition"});
  }
  return s.all;
}

// Every remote method that the tracker and the tools call, by module.
const std::vector<std::pair<std::string, std::vector<std::string>>> kCatalogue = {
    {"KRRobotModel", {"getConfig"}},
    {"_Smoother",
     {"startEvent", "stopSmoother", "restart", "setTarget", "setTargetIds", "setMap",
      "setMaxDistance", "setTimeOut", "getTimeOut", "_setMoveEvent", "_setMoveHysteresis",
      "_getMoveHysteresis", "_raiseSearchEvent", "getPosition", "exit"}},
    {"_KRTargetManager",
     {"addTarget", "removeTarget", "removeTargets", "removeAllTargets", "isTargetManaged",
      "setActiveTarget", "setActiveEvent", "getSupportedTargets", "getRegisteredTargets",
      "getEventName", "getSecondEventName", "getTargetIds", "getActiveTargetPosition",
      "setExtractorPeriod", "getExtractorPeriod", "start", "stopManager", "exit"}},
    {"_RoundSearcher",
     {"initialize", "startEvent", "stopSearcher", "setFractionMaxSpeed", "getFractionMaxSpeed",
      "setUseWholeBodyLookAt", "exit"}},
    {"_HeadLooker", {"start", "setImplParam", "stopLooker", "exit"}},
    {"_WholeBodyLooker", {"start", "stopLooker", "exit"}},
    {"_ArmsLooker", {"start", "setImplParam", "stopLooker", "exit"}},
    {"_MotionMove", {"start", "stopMove", "setParam", "exit"}},
    {"_NavigationMove", {"start", "stopMove", "stopWithoutStopMove", "setParam", "exit"}},
    {"KRMotion",
     {"robotIsWakeUp", "moveTo", "_lookAtWb", "_trackerWithSpeed", "_stopLookAt", "_stopPointAt",
      "getTransform", "getRobotPosition", "_getSensorTransformAtTime", "getPosition",
      "areResourcesAvailable"}},
    {"KRMemory", {"raiseEvent"}},
};

std::vector<Scenario> allScenarios() {
  std::vector<Scenario> all = trackerScenarios();
  for (Scenario& s : toolScenarios())
    all.push_back(std::move(s));
  return all;
}

// The clean runs of every operation: which methods answer a value that their caller reads (a
// wrong or empty answer to any other is dropped unread), and which methods are called at all.
struct Survey {
  std::set<std::string> typed, called;
};

const Survey& survey() {
  static const Survey kSurvey = [] {
    Survey out;
    for (const Scenario& s : allScenarios()) {
      const Run clean = execute(s, 0, Fault::RuntimeError);
      out.typed.insert(clean.typed.begin(), clean.typed.end());
      for (const std::string& m : methodsOf(clean.calls))
        out.called.insert(m.rfind("post ", 0) == 0 ? m.substr(5) : m);
    }
    return out;
  }();
  return kSurvey;
}

class FaultSweep : public ::testing::TestWithParam<Scenario> {};

// Each operation is one test, named after it ("track from idle in Head":
// FaultSweep/Operation.Sweep/track_from_idle_in_Head).
TEST_P(FaultSweep, Sweep) {
  sweep(GetParam(), survey().typed);
}

INSTANTIATE_TEST_SUITE_P(Operation, FaultSweep, ::testing::ValuesIn(allScenarios()),
                         [](const ::testing::TestParamInfo<Scenario>& info) {
                           std::string name;
                           for (char c : info.param.name) {
                             if (std::isalnum(static_cast<unsigned char>(c))) {
                               name += c;
                             } else if (!name.empty() && name.back() != '_') {
                               name += '_';
                             }
                           }
                           return name;
                         });

// Every method of the catalogue is called by some operation, so the sweep fails each of them
// in every way; and the tracker calls nothing outside the catalogue.
TEST(FaultSweepCoverage, OperationsCallExactlyTheCatalogue) {
  std::set<std::string> catalogue;
  for (const auto& module : kCatalogue) {
    for (const std::string& method : module.second)
      catalogue.insert(module.first + "." + method);
  }
  EXPECT_EQ(catalogue, survey().called);
}

}  // namespace
