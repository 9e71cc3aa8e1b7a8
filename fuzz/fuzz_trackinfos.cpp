// TrackInfos from any KRValue: a malformed value is refused with a KRError and nothing else;
// an accepted one converts, prints and reads back to itself.

#include <cstdint>
#include <limits>
#include <optional>

#include <kr/error.h>
#include <kr/math/math.h>
#include <krtracker/types/types/trackinfos.h>

#include "fuzz_support.h"
#include "krvalue_gen.h"

using KR::KRValue;
using KR::Tracker::types::TrackInfos;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  krfuzz::FuzzInput in(data, size);
  const KRValue value = krfuzz::makeValue(in);

  std::optional<TrackInfos> infos;
  try {
    infos.emplace(value);
  } catch (const KR::KRError&) {
    return 0;
  }

  // Only a genuine bool true in the header marks the record valid.
  const KRValue& flag = value[0][6];
  FUZZ_CHECK(infos->isValid() == (flag.isBool() && flag.asBool()), value.toString());

  const KRValue form = infos->toKRValue();
  FUZZ_CHECK(form.size() == 2 && form[0].size() == 7 && form[1].size() == 6, form.toString());
  // The value form reads back to the same record while its whole seconds fit an int.
  const std::int64_t seconds = infos->getTimestamp() / 1000000000;
  if (seconds >= std::numeric_limits<int>::min() && seconds <= std::numeric_limits<int>::max()) {
    const TrackInfos again(form);
    FUZZ_CHECK(again.toKRValue().toString() == form.toString(),
               form.toString() + " read back as " + again.toKRValue().toString());
    FUZZ_CHECK(again.getTimestamp() == infos->getTimestamp(), form.toString());
  }

  // The rest takes any numbers without failing.
  const float time = in.f32();
  (void)infos->toKRValue(time);
  (void)infos->toString(";", in.byte() % 2 == 0);
  std::vector<float> t(12);
  for (float& f : t) {
    f = in.f32();
  }
  const KR::Math::Transform transform(t);
  (void)infos->getTorsoToObject6D(transform);
  (void)infos->getRobotToObject6D(transform);
  (void)infos->getTorsoToObjectMove(transform);
  (void)infos->getRobotToObjectMove(transform);
  (void)infos->getRobotToObjectWB(transform);
  return 0;
}
