#include "sync/engine/hash_cache.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <iterator>
#include <new>

#include <fmt/compile.h>
#include <fmt/format.h>

#include "sync/base/error.hpp"
#include "sync/base/files/descriptor.hpp"
#include "sync/base/threads/failure.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/base/values/json.hpp"

namespace brackenfen::sync {
namespace {

std::optional<std::string> expected_if(bool holds, std::string_view expected_sha) {
  return holds ? std::optional<std::string>(expected_sha) : std::nullopt;
}

/// A lack of memory that leaves none to tell of it is nobody's failure either.
void warn(const char* format, const std::exception& failure) {
  try {
    log_failure(format, failure);
  } catch (const std::bad_alloc&) {
  }
}

/// Whether an entry that is no plain fingerprint still says that the file has the digest: its numbers may be
/// given as texts or reals.
bool unusual_entry_holds(const Document& entry, const FileStat& stat, std::string_view expected_sha) {
  if (entry.get("sha256") != Value(expected_sha)) return false;
  const auto says = [&entry](std::string_view key, std::int64_t actual) {
    const Value* number = entry.find(key);
    return (number == nullptr ? Value(-1) : to_integer(*number)) == Value(actual);
  };
  try {
    return says("size_bytes", stat.size_bytes) && says("mtime_ns", stat.mtime_ns) && says("ctime_ns", stat.ctime_ns) &&
           says("inode", stat.inode);
  } catch (const Error&) {
    return false;  // a number that is none is a miss, never a failure
  }
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
  return expected_if(stat && holds(file_path, *stat, expected_sha), expected_sha);
}

bool HashCache::holds(std::string_view file_path, const FileStat& stat, std::string_view expected_sha) const {
  MutexLock lock(mutex_);
  return holds(*entries_, file_path, stat, expected_sha);
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

bool HashCache::holds(const Entries& entries, std::string_view file_path, const FileStat& stat, std::string_view expected_sha) {
  if (expected_sha.empty()) return false;
  const auto found = entries.find(file_path);
  if (found == entries.end()) return false;
  const auto* known = std::get_if<Fingerprint>(&found->second);
  if (known == nullptr) return unusual_entry_holds(std::get<Document>(found->second), stat, expected_sha);
  return known->size_bytes == stat.size_bytes && known->mtime_ns == stat.mtime_ns && known->ctime_ns == stat.ctime_ns &&
         known->inode == stat.inode && known->sha256.view() == expected_sha;
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
  const Fingerprint fingerprint{actual_sha, stat.size_bytes, stat.mtime_ns, stat.ctime_ns, stat.inode};
  MutexLock lock(mutex_);
  const auto stored = entries_->find(file_path);
  if (stored != entries_->end()) {
    const auto* known = std::get_if<Fingerprint>(&stored->second);
    if (known != nullptr ? *known == fingerprint : std::get<Document>(stored->second) == document_from(fingerprint)) return;
  }
  own_entries().insert_or_assign(Text(file_path), fingerprint);
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
    _atomic_write(files_, clock_, path(), file_text(copy_entries()));
  } catch (const std::exception& failure) {
    set_dirty(true);
    warn("Failed to persist sync hash cache: %s", failure);
  }
}

Document HashCache::entries() const {
  const EntryList entries = copy_entries();
  std::vector<Member> members;
  members.reserve(entries.size());
  for (const Line& line : sorted_by_path(entries)) members.push_back({line.item->first, document_from(line.item->second)});
  return Document(std::move(members));
}

void HashCache::set_entries(const Document& entries) {
  auto fresh = std::make_shared<Entries>();
  fresh->reserve(entries.size());
  for (const auto& [path, entry] : entries) {
    if (const Document* document = entry.if_document()) fresh->emplace(path, entry_from_document(*document));
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

Document HashCache::_load_hash_cache(const std::string& path) {
  try {
    return entries_in(parse_json(read_file(path)));
  } catch (const std::exception& failure) {
    if (!error_of(failure).is(error_class::FileNotFoundError)) warn("Ignoring unreadable sync hash cache: %s", failure);
    return {};
  }
}

void HashCache::load() {
  try {
    set_entries(_load_hash_cache(path()));
  } catch (const std::bad_alloc& failure) {
    warn("Ignoring unreadable sync hash cache: %s", failure);
  }
}

Document HashCache::entries_in(const Value& parsed) {
  const Document* cache = parsed.if_document();
  if (cache == nullptr || cache->get("version") != Value(SYNC_HASH_CACHE_VERSION)) return {};
  const Document* files = cache->get("files").if_document();
  if (files == nullptr) return {};
  if (std::ranges::all_of(*files, [](const Member& file) { return file.value.is_document(); })) return *files;
  std::vector<Member> usable;
  std::ranges::copy_if(*files, std::back_inserter(usable), [](const Member& file) { return file.value.is_document(); });
  return Document(std::move(usable));
}

HashCache::Entry HashCache::entry_from_document(const Document& document) {
  const std::optional<std::int64_t> size_bytes = document.get("size_bytes").if_integer();
  const std::optional<std::int64_t> mtime_ns = document.get("mtime_ns").if_integer();
  const std::optional<std::int64_t> ctime_ns = document.get("ctime_ns").if_integer();
  const std::optional<std::int64_t> inode = document.get("inode").if_integer();
  const std::optional<std::string_view> sha256 = document.get("sha256").if_text();
  if (document.size() != 5 || !size_bytes || !mtime_ns || !ctime_ns || !inode || !sha256) return document;
  return Fingerprint{*sha256, *size_bytes, *mtime_ns, *ctime_ns, *inode};
}

Document HashCache::document_from(const Entry& entry) {
  if (const auto* document = std::get_if<Document>(&entry)) return *document;
  static const auto& keys = *new std::array<Text, 5>{"ctime_ns", "inode", "mtime_ns", "sha256", "size_bytes"};
  const auto& known = std::get<Fingerprint>(entry);
  return {
      {keys[0], known.ctime_ns}, {keys[1], known.inode}, {keys[2], known.mtime_ns}, {keys[3], known.sha256}, {keys[4], known.size_bytes}};
}

std::string HashCache::file_text(const EntryList& entries) {
  // Written piece by piece, since documents for 100,000 entries would cost more than all the rest.
  constexpr std::size_t TYPICAL_ENTRY_BYTES = 256;
  std::string text;
  text.reserve(entries.size() * TYPICAL_ENTRY_BYTES);
  text += R"({"files": {)";
  std::string_view separator;
  for (const Line& line : sorted_by_path(entries)) {
    const auto& [path, entry] = *line.item;
    text += std::exchange(separator, ", ");
    text += write_json(path, JsonForm::SortedKeys);
    text += ": ";
    if (const auto* known = std::get_if<Fingerprint>(&entry)) {
      fmt::format_to(std::back_inserter(text),
                     FMT_COMPILE(R"({{"ctime_ns": {}, "inode": {}, "mtime_ns": {}, "sha256": {}, "size_bytes": {}}})"), known->ctime_ns,
                     known->inode, known->mtime_ns, write_json(known->sha256, JsonForm::SortedKeys), known->size_bytes);
    } else {
      text += write_json(std::get<Document>(entry), JsonForm::SortedKeys);
    }
  }
  fmt::format_to(std::back_inserter(text), R"(}}, "version": {}}})", SYNC_HASH_CACHE_VERSION);
  return text;
}

std::vector<HashCache::Line> HashCache::sorted_by_path(const EntryList& entries) {
  std::vector<Line> lines;
  lines.reserve(entries.size());
  for (const auto& item : entries) lines.push_back({item.first, &item});
  std::ranges::sort(lines, {}, &Line::path);
  return lines;
}

HashCache::EntryList HashCache::copy_entries() const {
  MutexLock lock(mutex_);
  return {entries_->begin(), entries_->end()};
}

}  // namespace brackenfen::sync
