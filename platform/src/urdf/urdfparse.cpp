// urdfdom's reading of a URDF text, its errors caught instead of printed.

#include <mutex>
#include <string>

#include <console_bridge/console.h>
#include <urdf_parser/urdf_parser.h>

#include "importer.h"

namespace KR {
namespace Model {
namespace importer {

namespace {

// urdfdom reports through console_bridge, a process-wide handler: while a URDF is parsed the
// handler keeps the first error instead of printing it.
class CaptureHandler : public console_bridge::OutputHandler {
 public:
  void log(const std::string& text, console_bridge::LogLevel level, const char*, int) override {
    if (level >= console_bridge::CONSOLE_BRIDGE_LOG_ERROR && fError.empty()) {
      fError = text;
    }
  }
  std::string fError;
};

std::mutex gConsoleMutex;

}  // namespace

urdf::ModelInterfaceSharedPtr parseUrdf(const std::string& text, std::string& error) {
  std::lock_guard<std::mutex> lock(gConsoleMutex);
  CaptureHandler handler;
  console_bridge::useOutputHandler(&handler);
  urdf::ModelInterfaceSharedPtr model;
  try {
    model = urdf::parseURDF(text);
  } catch (const std::exception& e) {
    handler.fError = e.what();
    model.reset();
  }
  console_bridge::restorePreviousOutputHandler();
  if (!model) {
    error = handler.fError.empty() ? std::string("not a URDF") : handler.fError;
    // console_bridge texts may end in a newline.
    while (!error.empty() && (error.back() == '\n' || error.back() == '\r')) {
      error.pop_back();
    }
  }
  return model;
}

}  // namespace importer
}  // namespace Model
}  // namespace KR
