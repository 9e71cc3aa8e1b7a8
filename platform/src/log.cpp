#include <ko/log.h>

#include <ostream>
#include <unordered_map>

#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>

namespace ko {
namespace log {

namespace {

// Writes through spdlog to standard error: "[time] [level] category: location: text".
class SpdlogSink : public Sink {
 public:
  SpdlogSink()
      : fLogger(std::make_shared<spdlog::logger>(
            "ko", std::make_shared<spdlog::sinks::stderr_color_sink_mt>())) {
    fLogger->set_pattern("[%H:%M:%S.%e] [%^%l%$] %v");
    fLogger->set_level(spdlog::level::trace);
  }
  void write(const Record& r) override {
    fLogger->log(toSpdlog(r.level), "{}: {}: {}", r.category, r.location, r.text);
  }

 private:
  static spdlog::level::level_enum toSpdlog(Level level) {
    switch (level) {
      case Level::error:
        return spdlog::level::err;
      case Level::warning:
        return spdlog::level::warn;
      case Level::info:
        return spdlog::level::info;
      case Level::verbose:
        return spdlog::level::debug;
      case Level::debug:
      case Level::silent:
        return spdlog::level::trace;
    }
    return spdlog::level::info;
  }
  std::shared_ptr<spdlog::logger> fLogger;
};

struct State {
  std::mutex mutex;
  std::shared_ptr<Sink> sink = std::make_shared<SpdlogSink>();
  std::unordered_map<std::string, Level> levels;
  Level defaultLevel = Level::info;
};

// Created on first use, never destroyed: logging stays valid during static destruction.
State& state() {
  static State* s = new State();
  return *s;
}

}  // namespace

const char* levelName(Level level) noexcept {
  switch (level) {
    case Level::silent:
      return "silent";
    case Level::error:
      return "error";
    case Level::warning:
      return "warning";
    case Level::info:
      return "info";
    case Level::verbose:
      return "verbose";
    case Level::debug:
      return "debug";
  }
  return "unknown";
}

std::ostream& operator<<(std::ostream& os, const Record& r) {
  return os << "[" << levelName(r.level) << "] " << r.category << ": " << r.location << ": "
            << r.text;
}

void CaptureSink::write(const Record& record) {
  std::lock_guard<std::mutex> lock(fMutex);
  fRecords.push_back(record);
}

std::vector<Record> CaptureSink::records() const {
  std::lock_guard<std::mutex> lock(fMutex);
  return fRecords;
}

std::vector<Record> CaptureSink::records(const std::string& category) const {
  std::lock_guard<std::mutex> lock(fMutex);
  std::vector<Record> out;
  for (const Record& r : fRecords) {
    if (r.category == category)
      out.push_back(r);
  }
  return out;
}

void CaptureSink::clear() {
  std::lock_guard<std::mutex> lock(fMutex);
  fRecords.clear();
}

void registerCategory(const std::string& category, Level level) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.levels.emplace(category, level);
}

void setLevel(const std::string& category, Level level) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.levels[category] = level;
}

Level getLevel(const std::string& category) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  auto it = s.levels.find(category);
  return it == s.levels.end() ? s.defaultLevel : it->second;
}

void setDefaultLevel(Level level) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.defaultLevel = level;
}

bool isEnabled(const std::string& category, Level level) {
  return level != Level::silent && static_cast<int>(level) <= static_cast<int>(getLevel(category));
}

std::shared_ptr<Sink> setSink(std::shared_ptr<Sink> sink) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  std::shared_ptr<Sink> previous = s.sink;
  s.sink = sink ? std::move(sink) : std::make_shared<SpdlogSink>();
  return previous;
}

void write(Level level, const std::string& category, const std::string& location,
           const std::string& text) {
  if (level == Level::silent)
    return;
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  auto it = s.levels.find(category);
  const Level threshold = it == s.levels.end() ? s.defaultLevel : it->second;
  if (static_cast<int>(level) > static_cast<int>(threshold))
    return;
  try {
    s.sink->write(Record{category, level, location, text});
  } catch (...) {
    // A failing sink must not take its caller down.
  }
}

ScopedCapture::ScopedCapture() : fSink(std::make_shared<CaptureSink>()) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  fPrevious = s.sink;
  s.sink = fSink;
  fPreviousDefault = s.defaultLevel;
  s.defaultLevel = Level::debug;
  for (auto& entry : s.levels) {
    fPreviousLevels.emplace_back(entry.first, entry.second);
    entry.second = Level::debug;
  }
}

ScopedCapture::~ScopedCapture() {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.sink = fPrevious;
  s.defaultLevel = fPreviousDefault;
  for (const auto& entry : fPreviousLevels)
    s.levels[entry.first] = entry.second;
}

}  // namespace log
}  // namespace ko
