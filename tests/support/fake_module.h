#pragma once
// Test doubles on the real broker: a module that answers any method with a scripted result,
// can be told to throw, and a recorder of every call the broker sees.

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <kr/broker/broker.h>
#include <kr/model/robot.h>
#include <kr/value/krvalue.h>

namespace krtest {

/// Answers every method name. Unscripted methods return an invalid KRValue (fine for void
/// calls; a typed call then fails its result conversion, as a real mismatch would).
class FakeModule : public KR::KRModule {
 public:
  explicit FakeModule(const std::string& name) : KR::KRModule(name) {}

  /// The method returns `result` from now on.
  void answer(const std::string& method, KR::KRValue result);
  /// The method computes its answer from its arguments.
  void answerWith(const std::string& method,
                  std::function<KR::KRValue(const std::vector<KR::KRValue>&)> fn);
  /// The method throws std::runtime_error(message) from now on.
  void throwOn(const std::string& method, const std::string& message = "boom");
  /// The method throws KR::KRError(getName(), method, message) from now on.
  void throwKRErrorOn(const std::string& method, const std::string& message = "boom");
  /// Forgets every script of one method (or of all with an empty name).
  void reset(const std::string& method = "");

  KR::KRValue invoke(const std::string& method, const std::vector<KR::KRValue>& args) override;

 private:
  std::mutex fMutex;
  std::map<std::string, std::function<KR::KRValue(const std::vector<KR::KRValue>&)>> fScripts;
};

/// Records every call through a broker, as "Module.method(arg, arg)" lines using KRValue's
/// text form (strings quoted), and a "post " prefix for posted calls:
///   _Smoother.startEvent("RedBallEvent")
///   post KRMotion.moveTo(0, 0, 1.5)
class CallRecorder {
 public:
  explicit CallRecorder(std::shared_ptr<KR::KRBroker> broker);
  ~CallRecorder();

  std::vector<std::string> calls() const;
  std::vector<KR::KRCallRecord> records() const;
  void clear();

 private:
  std::shared_ptr<KR::KRBroker> fBroker;
  mutable std::mutex fMutex;
  std::vector<KR::KRCallRecord> fRecords;
};

/// Formats one record as CallRecorder does.
std::string formatCall(const KR::KRCallRecord& r);

/// Text of a file of the robots/ directory.
std::string readRobotFile(const std::string& fileName);
/// `text` with the first `from` replaced by `to`; a failure when `from` is not in it.
std::string replaced(std::string text, const std::string& from, const std::string& to);
/// A robot of robots/, or that description with one piece of text replaced.
std::unique_ptr<KR::Model::Robot> loadRobot(const std::string& file, const std::string& from = "",
                                            const std::string& to = "");
/// Every field of two robots equal: masses and heights within `relative` of their size, the
/// sensor transforms within `transform`, everything else exactly.
void expectSameRobot(const KR::Model::Robot& a, const KR::Model::Robot& b, float relative,
                     float transform);

}  // namespace krtest
