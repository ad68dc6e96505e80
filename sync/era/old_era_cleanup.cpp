#include "sync/era/old_era_cleanup.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>
#include <vector>

#include "sync/base/error.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/text/text.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/documents/manifest_file.hpp"
#include "sync/documents/shuffle_seed.hpp"
#include "sync/era/directory_tree.hpp"

namespace brackenfen::sync {
namespace {

constexpr const char* CLEANUP_THREAD_NAME = "brackenfen-sync-cleanup";
constexpr std::string_view DATA_FILES[] = {MANIFEST_FILENAME, SHUFFLE_SEED_FILENAME};

/// Whether each character alone reads as a number: digits of any script do, signs, blanks and underscores do not.
bool is_all_digits(std::string_view text) {
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t size = code_point_at(text, at).size;
    if (!to_integer_or_absent(Value(text.substr(at, size)))) return false;
    at += size;
  }
  return !text.empty();
}

std::int64_t remove_measured_tree(const std::string& path) {
  const std::int64_t bytes = tree_size_bytes(path);
  remove_tree(path);
  return bytes;
}

}  // namespace

std::optional<Value> _parse_era_directory_id(std::string_view name) {
  for (const std::string_view prefix : {"era_", "era"}) {
    if (!name.starts_with(prefix)) continue;
    const std::string_view suffix = name.substr(prefix.size());
    return is_all_digits(suffix) ? to_integer_or_absent(Value(suffix)) : std::nullopt;
  }
  return std::nullopt;
}

std::int64_t remove_era_directories(const std::string& data_dir, const std::optional<Value>& kept_era) {
  std::int64_t bytes_freed = 0;
  for (const std::string& name : child_directories(data_dir)) {
    const std::optional<Value> era = _parse_era_directory_id(name);
    if (era && !(kept_era && *era == *kept_era)) bytes_freed += remove_measured_tree(join_path(data_dir, name));
  }
  return bytes_freed;
}

std::int64_t remove_all_data(const std::string& data_dir) {
  std::int64_t bytes_freed = 0;
  for (const std::string_view name : DATA_FILES) {
    const std::string path = join_path(data_dir, name);
    struct stat found {};
    if (::lstat(path.c_str(), &found) != 0) continue;
    if (::unlink(path.c_str()) != 0) throw os_error(errno, path);
    bytes_freed += found.st_size;
  }
  for (const std::string& name : child_directories(data_dir)) {
    if (!name.starts_with('.')) bytes_freed += remove_measured_tree(join_path(data_dir, name));
  }
  return bytes_freed;
}

void OldEraCleanup::schedule(std::function<void()> clean) {
  auto thread = std::make_shared<BackgroundThread>();
  const MutexLock lock(_cleanup_lock);  // across the start, so that two requests never start two threads
  if (thread_ && thread_->is_alive()) return;
  thread->start(CLEANUP_THREAD_NAME, std::move(clean));
  thread_ = std::move(thread);
}

std::shared_ptr<BackgroundThread> OldEraCleanup::_cleanup_thread() const {
  const MutexLock lock(_cleanup_lock);
  return thread_;
}

}  // namespace brackenfen::sync
