#include "sync/transport/backoff_progress.hpp"

#include <map>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

#include "sync/base/error.hpp"
#include "sync/base/files/descriptor.hpp"
#include "sync/base/threads/mutex.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/base/values/json.hpp"
#include "sync/transport/backoff.hpp"
#include "sync/transport/progress.hpp"

namespace brackenfen::sync {
namespace {

constexpr const char* KEPT_KEYS[] = {"era_number", "version", "total_bytes", "total_bytes_known", "unknown_size_files", "files"};

/// Members of the file as they are written, by key.
using MemberTexts = std::map<std::string, std::string, std::less<>>;

/// What the last wait left in one directory. One entry is enough: a process seldom syncs two that are cut off.
class LastWait {
 public:
  /// The kept members, where the file still is the one that was written then.
  [[nodiscard]] std::shared_ptr<const MemberTexts> kept(const std::string& path, const std::optional<FileStat>& now) const {
    MutexLock lock(mutex_);
    const bool same = now && path == path_ && now->inode == stat_.inode && now->ctime_ns == stat_.ctime_ns &&
                      now->mtime_ns == stat_.mtime_ns && now->size_bytes == stat_.size_bytes;
    return same ? kept_ : nullptr;
  }
  void remember(std::string path, const FileStat& stat, std::shared_ptr<const MemberTexts> kept) {
    MutexLock lock(mutex_);
    std::swap(path_, path);
    stat_ = stat;
    std::swap(kept_, kept);  // the old one goes after the lock
  }
  void forget(const std::string& path) {
    std::shared_ptr<const MemberTexts> old;
    MutexLock lock(mutex_);
    if (path == path_) std::swap(kept_, old);
  }

 private:
  mutable Mutex mutex_;
  std::string path_ GUARDED_BY(mutex_);
  FileStat stat_ GUARDED_BY(mutex_);
  std::shared_ptr<const MemberTexts> kept_ GUARDED_BY(mutex_);
};

/// That of the process. Leaked: a wait may outlive main().
LastWait& last_wait() {
  static LastWait& leaked = *new LastWait;
  return leaked;
}
[[maybe_unused]] static const auto& made_at_load = last_wait();  // see at_fork_child

std::string text_of(const Value& value) { return write_json(value, JsonForm::SortedKeys); }

/// What a pass wrote before the wait began; nothing where nothing of use lies there.
MemberTexts kept_on_disk(const std::string& path) {
  MemberTexts kept;
  try {
    const Value content = parse_json(read_file(path));
    const Document* const previous = content.if_document();
    for (const char* key : KEPT_KEYS) {
      if (const Value* const value = previous != nullptr ? previous->find(key) : nullptr) kept.emplace(key, text_of(*value));
    }
  } catch (const Error&) {
    return {};
  }
  return kept;
}

const Value& or_else(const Value& value, const Value& fallback) { return value.truthy() ? value : fallback; }

Document wait_shown_to_operators(const Document& event) {
  const Value& surface = event.get("surface");
  const std::string surface_text = surface.is_null() ? std::string() : to_text(surface);
  // Background waits never show their cause.
  const std::string reason = surface_text == "background_worker" ? "transient" : to_text(or_else(event.get("reason"), "transient"));
  return {
      {"surface", surface_text},
      {"attempt", to_integer(or_else(event.get("attempt"), 0))},
      {"wait_seconds", to_real(or_else(event.get("wait_seconds"), 0.0))},
      {"reason", reason},
  };
}

/// The kept members and those of this wait, in the order of their keys.
std::string file_text(const MemberTexts& kept, const MemberTexts& current) {
  std::map<std::string_view, std::string_view> members(current.begin(), current.end());
  members.insert(kept.begin(), kept.end());
  std::string text = "{";
  for (const auto& [key, value] : members) {
    if (text.size() > 1) text += ", ";
    text.append("\"").append(key).append("\": ").append(value);
  }
  return text += "}";
}

}  // namespace

void _write_sync_backoff_progress_json(const Seams& seams, const Document& event) {
  const std::string data_dir = _current_sync_backoff_context(seams).data_dir;
  if (data_dir.empty()) return;
  const std::string path = _sync_progress_path(data_dir);
  const auto stat_or_none = [&]() -> std::optional<FileStat> {
    try {
      return seams.files->stat(path);
    } catch (const Error&) {
      return std::nullopt;
    }
  };
  std::shared_ptr<const MemberTexts> kept = last_wait().kept(path, stat_or_none());
  if (!kept) kept = std::make_shared<const MemberTexts>(kept_on_disk(path));
  const std::string text = file_text(*kept, {{"phase", text_of("backoff")},
                                             {"updated_at", text_of(seams.clock->wall_seconds())},
                                             {"backoff", text_of(wait_shown_to_operators(event))}});
  _atomic_write(*seams.files, *seams.clock, sync_progress_place(data_dir), text);
  const std::optional<FileStat> written = stat_or_none();
  if (written && written->size_bytes == static_cast<std::int64_t>(text.size())) last_wait().remember(path, *written, std::move(kept));
}

void forget_backoff_progress(const std::string& path) { last_wait().forget(path); }

}  // namespace brackenfen::sync
