#include "sync/engine/hash_cache.hpp"

#include <cerrno>
#include <new>

#include "sync/base/error.hpp"
#include "sync/base/threads/failure.hpp"
#include "sync/base/values/member_cursor.hpp"

namespace brackenfen::sync {
namespace {

/// A lack of memory that leaves none to tell of it is nobody's failure either.
void warn(const char* format, const std::exception& failure) {
  try {
    log_failure(format, failure);
  } catch (const std::bad_alloc&) {
  }
}

/// A file that is missing is as good as an empty one.
void warn_of_unreadable(const std::exception& failure) {
  const auto* error = dynamic_cast<const Error*>(&failure);
  if (error == nullptr || !error->is(error_class::FileNotFoundError)) warn("Ignoring unreadable sync hash cache: %s", failure);
}

}  // namespace

FileStat _cache_stat_key(Files& files, const std::string& local_path) {
  const std::optional<FileStat> stat = files.stat(local_path);
  if (!stat) throw os_error(ENOENT, local_path);
  return *stat;
}

HashCache::HashCache(Files& files, Clock& clock, std::string path) : files_(files), clock_(clock), path_(std::move(path)) {}

std::optional<std::string> HashCache::_cached_local_sha(std::string_view file_path, const std::string& local_path,
                                                        std::string_view expected_sha) const {
  if (expected_sha.empty()) return std::nullopt;
  const std::optional<FileStat> stat = stat_or_absent(files_, local_path);
  if (!stat || !holds(file_path, *stat, expected_sha)) return std::nullopt;
  return std::string(expected_sha);
}

bool HashCache::holds(std::string_view file_path, const FileStat& stat, std::string_view expected_sha) const {
  MutexLock lock(mutex_);
  return holds(*entries_, file_path, stat, expected_sha);
}

bool HashCache::knows(std::string_view file_path) const {
  MutexLock lock(mutex_);
  return entries_->find(file_path) != nullptr;
}

HashCache::View HashCache::view() const {
  MutexLock lock(mutex_);
  viewed_ = true;
  return View(entries_);
}

HashCache::Entries& HashCache::own_entries() {
  if (viewed_) entries_ = std::make_shared<Entries>(*entries_);
  viewed_ = false;
  return *entries_;
}

void HashCache::_remember_local_sha(std::string_view file_path, const std::string& local_path, std::string_view actual_sha) {
  if (actual_sha.empty()) return;
  if (const std::optional<FileStat> stat = stat_or_absent(files_, local_path)) store(file_path, actual_sha, *stat);
}

void HashCache::remember_if_unchanged(std::string_view file_path, const std::string& local_path, std::string_view actual_sha,
                                      const std::optional<FileStat>& before) {
  if (before && stat_or_absent(files_, local_path) == before) store(file_path, actual_sha, *before);
}

void HashCache::store(std::string_view file_path, std::string_view actual_sha, const FileStat& stat) try {
  const Document as_document{{"ctime_ns", stat.ctime_ns},
                             {"inode", stat.inode},
                             {"mtime_ns", stat.mtime_ns},
                             {"sha256", actual_sha},
                             {"size_bytes", stat.size_bytes}};
  Entry entry = entry_from_document(as_document);
  MutexLock lock(mutex_);
  if (const Entry* stored = entries_->find(file_path)) {
    const auto* unusual = std::get_if<Document>(stored);
    if (unusual != nullptr ? *unusual == as_document : *stored == entry) return;
  }
  own_entries().put(Text(file_path), std::move(entry));
  dirty_ = true;
} catch (const std::bad_alloc&) {
}

void HashCache::_persist_hash_cache() {
  {
    MutexLock lock(mutex_);
    if (!dirty_) return;
    dirty_ = false;  // before the entries are taken: one that comes later is then for the next time
  }
  try {
    _atomic_write(files_, clock_, path(), file_text(copy_items()));
  } catch (const std::exception& failure) {
    set_dirty(true);
    warn("Failed to persist sync hash cache: %s", failure);
  }
}

Document HashCache::entries() const { return document_from(copy_items()); }

void HashCache::set_entries(const Document& entries) {
  auto fresh = std::make_shared<Entries>();
  fresh->reserve(entries.size());
  for (const auto& [path, entry] : entries) {
    if (const Document* document = entry.if_document()) fresh->put(path, entry_from_document(*document));
  }
  MutexLock lock(mutex_);
  entries_.swap(fresh);
  viewed_ = false;
}

bool HashCache::dirty() const {
  MutexLock lock(mutex_);
  return dirty_;
}

void HashCache::set_dirty(bool dirty) {
  MutexLock lock(mutex_);
  dirty_ = dirty;
}

void HashCache::Stored::share_paths(const Document& files) {
  if (!entries_) return;
  MemberCursor listed(&files);
  for (Item& item : entries_->items()) {
    if (const Member* member = listed.find_member(item.first)) item.first = member->key;
  }
}

HashCache::Stored HashCache::read(const std::string& path) noexcept {
  Stored stored;
  try {
    stored.entries_ = std::make_shared<Entries>(read_entries(path));
  } catch (const std::exception&) {
    stored.failure_ = std::current_exception();
  }
  return stored;
}

void HashCache::load() try { load(read(path())); } catch (const std::bad_alloc& failure) {
  warn_of_unreadable(failure);
}

void HashCache::load(Stored stored) {
  if (stored.entries_) {
    MutexLock lock(mutex_);
    entries_.swap(stored.entries_);
    viewed_ = false;
    return;
  }
  try {
    std::rethrow_exception(stored.failure_);
  } catch (const std::exception& failure) {
    warn_of_unreadable(failure);
  }
}

Document HashCache::_load_hash_cache(const std::string& path) {
  try {
    return document_from(read_entries(path).items());
  } catch (const std::exception& failure) {
    warn_of_unreadable(failure);
    return {};
  }
}

HashCache::Items HashCache::copy_items() const {
  MutexLock lock(mutex_);
  return entries_->items();
}

}  // namespace brackenfen::sync
