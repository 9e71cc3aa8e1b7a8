#pragma once
// ko::log: the platform's categorised log. Every record carries a category
// ("KRTracker.GenericTracker", ...), a level, a location (the operation that wrote it) and a
// text. Each category has its own level; records above it are dropped before any formatting
// cost is paid by the caller that checks isEnabled(). The default sink writes through spdlog;
// tests install a CaptureSink and assert exact records. Logging never throws to the caller.

#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

namespace ko {
namespace log {

enum class Level : int { silent = 0, error = 1, warning = 2, info = 3, verbose = 4, debug = 5 };

/// "error", "warning", "info", "verbose", "debug" ("silent" for silent).
const char* levelName(Level level) noexcept;

struct Record {
  std::string category;
  Level level = Level::info;
  std::string location;
  std::string text;

  bool operator==(const Record& o) const {
    return category == o.category && level == o.level && location == o.location && text == o.text;
  }
};
std::ostream& operator<<(std::ostream& os, const Record& r);

/// Where records go. write() is called under the log's lock, one record at a time.
class Sink {
 public:
  virtual ~Sink() = default;
  virtual void write(const Record& record) = 0;
};

/// Keeps every record in memory; for tests.
class CaptureSink : public Sink {
 public:
  void write(const Record& record) override;
  std::vector<Record> records() const;
  /// The records of one category, in order.
  std::vector<Record> records(const std::string& category) const;
  void clear();

 private:
  mutable std::mutex fMutex;
  std::vector<Record> fRecords;
};

/// Registers a category with its level (the default level applies to unregistered ones).
void registerCategory(const std::string& category, Level level = Level::info);
void setLevel(const std::string& category, Level level);
Level getLevel(const std::string& category);
/// Level of categories that were never given one; info unless changed.
void setDefaultLevel(Level level);
bool isEnabled(const std::string& category, Level level);

/// Replaces the sink; nullptr restores the default spdlog sink. Returns the previous sink.
std::shared_ptr<Sink> setSink(std::shared_ptr<Sink> sink);

void write(Level level, const std::string& category, const std::string& location,
           const std::string& text);
inline void error(const std::string& c, const std::string& l, const std::string& t) {
  write(Level::error, c, l, t);
}
inline void warning(const std::string& c, const std::string& l, const std::string& t) {
  write(Level::warning, c, l, t);
}
inline void info(const std::string& c, const std::string& l, const std::string& t) {
  write(Level::info, c, l, t);
}
inline void verbose(const std::string& c, const std::string& l, const std::string& t) {
  write(Level::verbose, c, l, t);
}
inline void debug(const std::string& c, const std::string& l, const std::string& t) {
  write(Level::debug, c, l, t);
}

/// Installs a CaptureSink and raises every category to debug for its lifetime; restores the
/// previous sink and levels when destroyed.
class ScopedCapture {
 public:
  ScopedCapture();
  ~ScopedCapture();
  ScopedCapture(const ScopedCapture&) = delete;
  ScopedCapture& operator=(const ScopedCapture&) = delete;

  std::vector<Record> records() const { return fSink->records(); }
  std::vector<Record> records(const std::string& category) const {
    return fSink->records(category);
  }
  void clear() { fSink->clear(); }

 private:
  std::shared_ptr<CaptureSink> fSink;
  std::shared_ptr<Sink> fPrevious;
  Level fPreviousDefault;
  std::vector<std::pair<std::string, Level>> fPreviousLevels;
};

}  // namespace log
}  // namespace ko
