#include <krsim/run/run_config.h>

#include <algorithm>
#include <sstream>

#include <boost/algorithm/string/join.hpp>

#include <kr/error.h>

namespace KR {
namespace Sim {

namespace {

[[noreturn]] void refuse(const std::string& text) {
  throw KRError("krsim", "RunConfig", text);
}

std::string text(double value) {
  std::ostringstream os;
  os << value;
  return os.str();
}

}  // namespace

const std::vector<std::string>& runModes() {
  static const std::vector<std::string> kModes = {"Head", "WholeBody", "Move", "Navigate"};
  return kModes;
}

const std::vector<std::string>& runEffectors() {
  static const std::vector<std::string> kEffectors = {"Arms", "LArm", "RArm", "None"};
  return kEffectors;
}

const std::vector<std::string>& runComparisons() {
  static const std::vector<std::string> kComparisons = {"compensation"};
  return kComparisons;
}

void expectOneOf(const std::string& option, const std::string& value,
                 const std::vector<std::string>& accepted) {
  if (std::find(accepted.begin(), accepted.end(), value) == accepted.end()) {
    refuse(option + " expects one of " + boost::algorithm::join(accepted, ", ") + ", not '" +
           value + "'");
  }
}

void RunConfig::validate() const {
  if (!(noise >= 0.0f))
    refuse("--noise expects a non-negative number of metres");
  if (duration && !(*duration > 0.0))
    refuse("--duration expects a positive number of seconds");
  if (duration && *duration > kMaxDurationS) {
    refuse("--duration " + text(*duration) + " is beyond the longest run, " +
           std::to_string(static_cast<long>(kMaxDurationS)) + " s");
  }
  if (!mode.empty())
    expectOneOf("--mode", mode, runModes());
  if (!effector.empty())
    expectOneOf("--effector", effector, runEffectors());
  if (!compare.empty())
    expectOneOf("--compare", compare, runComparisons());
  if (!(camera.cameraRateHz > 0.0 && camera.cameraRateHz <= kMaxCameraRateHz))
    refuse("--camera-rate expects a frame rate above 0 and up to 1000 Hz");
  if (!(camera.latencyS >= 0.0 && camera.latencyS <= kMaxLatencyS))
    refuse("--latency expects from 0 to 10 seconds");
  if (!(camera.dropout >= 0.0 && camera.dropout <= 1.0))
    refuse("--dropout expects a probability from 0 to 1");
  const std::string mp4 = ".mp4";
  if (!video.empty() && (video.size() <= mp4.size() ||
                         video.compare(video.size() - mp4.size(), mp4.size(), mp4) != 0)) {
    refuse("--video " + video + ": the video is an MP4 file, a name ending in .mp4");
  }
  if ((!video.empty() || view) && (seeds || !compare.empty()))
    refuse(std::string(view ? "--view" : "--video") +
           " shows a single run, not --seeds or --compare");
  if (seeds && (seeds->last < seeds->first || seeds->last - seeds->first >= kMaxSeeds)) {
    refuse("--seeds expects a range A-B of integers with A <= B and at most 10000 seeds, not '" +
           std::to_string(seeds->first) + "-" + std::to_string(seeds->last) + "'");
  }
}

}  // namespace Sim
}  // namespace KR
