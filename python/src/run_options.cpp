// The settings of a run from Python's keywords, checked by the library's own RunConfig, its
// messages naming the keywords rather than the command line's options.

#include <cctype>
#include <utility>

#include <kr/error.h>

#include "geometry.h"
#include "simulation.h"

namespace KR {
namespace Py {

namespace {

/// The command line's options and the keywords that stand for them.
const std::pair<const char*, const char*> kKeywords[] = {
    {"--camera-rate", "camera_rate"},
    {"--latency", "latency"},
    {"--dropout", "dropout"},
    {"--duration", "duration"},
    {"--noise", "noise"},
    {"--mode", "mode"},
    {"--effector", "effector"},
    {"--physics", "physics"},
    {"--robot", "robot"},
    {"--seed", "seed"},
    {"--scenario", "scenario"},
};

}  // namespace

std::string withKeywordNames(std::string message) {
  for (const auto& [option, keyword] : kKeywords) {
    const std::string from = option;
    for (auto at = message.find(from); at != std::string::npos; at = message.find(from, at)) {
      // Only the whole option: "--mode" but not a longer name that starts with it.
      const auto end = at + from.size();
      if (end < message.size() &&
          (std::isalnum(static_cast<unsigned char>(message[end])) || message[end] == '-')) {
        at = end;
        continue;
      }
      message.replace(at, from.size(), keyword);
      at += std::string(keyword).size();
    }
  }
  return message;
}

Sim::RunConfig runConfigOf(const RunOptions& options) {
  Sim::RunConfig config;
  if (!options.scenario.is_none()) {
    if (!py::isinstance<py::str>(options.scenario))
      throw py::type_error("scenario expects a scenario's name or the path of a scenario file");
    config.scenario = options.scenario.cast<std::string>();
  }
  if (py::isinstance<Robot>(options.robot))
    config.robot = options.robot.cast<const Robot&>().description->path;
  else if (py::isinstance<py::str>(options.robot))
    config.robot = options.robot.cast<std::string>();
  else if (!options.robot.is_none())
    throw py::type_error("robot expects a krtracker.Robot, a name (kibo, rover, lumen) or a path");
  if (options.seed < 0 || options.seed > 0xffffffffLL)
    throw py::value_error("seed expects an integer from 0 to 4294967295");
  config.seed = static_cast<std::uint32_t>(options.seed);
  config.physics = options.physics;
  config.camera.latencyS = options.latency;
  config.camera.cameraRateHz = options.cameraRate;
  config.camera.dropout = options.dropout;
  config.compensation = options.compensation;
  config.duration = options.duration;
  config.mode = options.mode.value_or("");
  config.effector = options.effector.value_or("");
  config.noise = static_cast<float>(options.noise);
  config.quiet = true;
  try {
    config.validate();
  } catch (const KRError& e) {
    throw py::value_error(withKeywordNames(e.message()));
  }
  return config;
}

}  // namespace Py
}  // namespace KR
