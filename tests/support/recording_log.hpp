// Keeps what is logged while it is alive, and begins with no event counted, so that none is held back.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "sync/base/log.hpp"
#include "sync/transport/event_counts.hpp"

namespace brackenfen::sync {

class RecordingLog final : public LogSink {
 public:
  struct Entry {
    LogLevel level;
    std::string message;
    Document event;  ///< empty where the record reports none
  };

  RecordingLog() : previous_(set_log_sink(this)) { event_counts().clear(); }
  RecordingLog(const RecordingLog&) = delete;
  RecordingLog& operator=(const RecordingLog&) = delete;
  ~RecordingLog() override { set_log_sink(previous_); }

  /// Runs before a record is kept, as code of a host does, and may throw. Set while nothing is logged.
  std::function<void(const LogRecord&)> on_write;

  bool enabled(LogLevel) override { return true; }
  void write(const LogRecord& record) override {
    if (on_write) on_write(record);
    const std::lock_guard lock(mutex_);
    entries_.push_back({record.level, format_message(record), record.event != nullptr ? *record.event : Document()});
  }

  [[nodiscard]] std::vector<Entry> entries() const {
    const std::lock_guard lock(mutex_);
    return entries_;
  }
  void clear() {
    const std::lock_guard lock(mutex_);
    entries_.clear();
  }
  /// The messages of one level, in order.
  [[nodiscard]] std::vector<std::string> messages(LogLevel level) const {
    std::vector<std::string> found;
    for (const Entry& entry : entries()) {
      if (entry.level == level) found.push_back(entry.message);
    }
    return found;
  }
  /// The events of one type, in order.
  [[nodiscard]] std::vector<Document> events(std::string_view event_type) const {
    std::vector<Document> found;
    for (const Entry& entry : entries()) {
      if (entry.event.get("event_type") == Value(event_type)) found.push_back(entry.event);
    }
    return found;
  }

 private:
  LogSink* previous_;
  mutable std::mutex mutex_;
  std::vector<Entry> entries_;
};

}  // namespace brackenfen::sync
