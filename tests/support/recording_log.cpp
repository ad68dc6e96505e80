#include "tests/support/recording_log.hpp"

namespace brackenfen::sync {

void RecordingLog::write(const LogRecord& record) {
  const std::lock_guard lock(mutex_);
  entries_.push_back({record.level, format_message(record), record.event != nullptr ? *record.event : Document()});
}

std::vector<RecordingLog::Entry> RecordingLog::entries() const {
  const std::lock_guard lock(mutex_);
  return entries_;
}

std::vector<std::string> RecordingLog::messages(LogLevel level) const {
  std::vector<std::string> found;
  for (const Entry& entry : entries()) {
    if (entry.level == level) found.push_back(entry.message);
  }
  return found;
}

std::vector<Document> RecordingLog::events(std::string_view event_type) const {
  std::vector<Document> found;
  for (const Entry& entry : entries()) {
    if (entry.event.get("event_type") == Value(event_type)) found.push_back(entry.event);
  }
  return found;
}

}  // namespace brackenfen::sync
