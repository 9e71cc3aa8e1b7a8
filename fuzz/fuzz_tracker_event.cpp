// convertTrackerEventToTrackInfo on any event, against an in-process "KRMotion" whose answers
// the input also chooses (good, failing, or any value at all). It never throws; on false the
// record it was given is untouched; on true the record is valid with a clipped threshold.

#include <cstdint>
#include <stdexcept>

#include <kr/error.h>
#include <kr/math/math.h>
#include <krtracker/tools/tools.h>
#include <krtracker/types/types/trackinfos.h>

#include "fuzz_support.h"
#include "krvalue_gen.h"

using KR::KRValue;
using KR::Tracker::types::TrackInfos;

namespace {

enum class MotionMode { Good, Throws, ThrowsKRError, Answers };

struct Motion {
  MotionMode mode = MotionMode::Good;
  KRValue answer;
};

Motion gMotion;

KRValue answer(const std::string& method, const std::vector<KRValue>&) {
  switch (gMotion.mode) {
    case MotionMode::Good:
      if (method == "getRobotPosition") {
        return KRValue(std::vector<float>{0.5f, -0.2f, 0.3f});
      }
      return KRValue(std::vector<float>{0.1f, 0.0f, 0.4f, 0.0f, 0.1f, 0.2f});
    case MotionMode::Throws:
      throw std::runtime_error("motion is down");
    case MotionMode::ThrowsKRError:
      throw KR::KRError("KRMotion", method, "motion is down");
    case MotionMode::Answers:
      break;
  }
  return gMotion.answer;
}

std::shared_ptr<KR::KRProxy> motionProxy() {
  static const std::shared_ptr<KR::KRProxy> proxy = std::make_shared<KR::KRProxy>(
      std::weak_ptr<KR::KRBroker>(), std::make_shared<krfuzz::ScriptedModule>("KRMotion", answer));
  return proxy;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  krfuzz::quietLogs();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  krfuzz::FuzzInput in(data, size);
  gMotion.mode = static_cast<MotionMode>(in.byte() % 4);
  gMotion.answer = gMotion.mode == MotionMode::Answers ? krfuzz::makeValue(in) : KRValue();
  const KRValue event = krfuzz::makeValue(in);

  const TrackInfos sentinel(KR::Math::Position6D(9, 8, 7, 0.1f, 0.2f, 0.3f), 11, 12, 1, 13.0f,
                            0.5f);
  TrackInfos out = sentinel;
  bool ok = false;
  try {
    ok = KR::Tracker::tools::convertTrackerEventToTrackInfo(event, "fuzz", "FuzzEvent",
                                                            motionProxy(), out);
  } catch (const std::exception& e) {
    FUZZ_CHECK(false, std::string("threw: ") + e.what() + " for " + event.toString());
  } catch (...) {
    FUZZ_CHECK(false, "threw a non-standard exception for " + event.toString());
  }

  if (!ok) {
    FUZZ_CHECK(out.toKRValue().toString() == sentinel.toKRValue().toString(),
               "false but the record changed, for " + event.toString());
    return 0;
  }
  const KRValue record = out.toKRValue();
  FUZZ_CHECK(out.isValid(), event.toString());
  FUZZ_CHECK(record[0][2] == KRValue(-1), "source id " + record.toString());
  // The layout decides where the effector is: after the timestamp.
  const bool world = event[0].size() == 6 && event[1].size() == 2;
  const std::size_t effectorIndex = world ? 2 : 3;
  FUZZ_CHECK(out.getTrackEffector() == event[effectorIndex].asInt(), event.toString());
  const float threshold = out.getHeadThreshold();
  FUZZ_CHECK(!(threshold < 0.0f) && !(threshold > KR::Math::kPi),
             "threshold " + std::to_string(threshold) + " for " + event.toString());
  return 0;
}
