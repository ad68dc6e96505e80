#include "sync/engine/hash_cache.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <iterator>
#include <new>

#include <fmt/compile.h>
#include <fmt/format.h>

#include "sync/base/error.hpp"
#include "sync/base/files/file_text.hpp"
#include "sync/base/threads/failure.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/base/values/json.hpp"
#include "sync/base/values/member_cursor.hpp"
#include "sync/base/values/text_set.hpp"

namespace brackenfen::sync {
namespace {

constexpr std::string_view DIGITS = "0123456789abcdef";
constexpr std::uint8_t INVALID = 0x80;

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

bool HashCache::holds(const Entries& entries, std::string_view file_path, const FileStat& stat, std::string_view expected_sha) {
  if (expected_sha.empty()) return false;
  const Entry* found = entries.find(file_path);
  if (found == nullptr) return false;
  const auto* known = std::get_if<Fingerprint>(found);
  if (known == nullptr) return unusual_entry_holds(std::get<Document>(*found), stat, expected_sha);
  return known->size_bytes == stat.size_bytes && known->mtime_ns == stat.mtime_ns && known->ctime_ns == stat.ctime_ns &&
         known->inode == stat.inode && known->sha256.is(expected_sha);
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

void HashCache::Entries::reserve(std::size_t count) {
  items_.reserve(count);
  if (count > index_.capacity()) index_ = index_.grown_to(count);
}

PositionIndex::Place HashCache::Entries::locate(std::string_view path, std::uint32_t hash) const noexcept {
  return index_.locate(hash, [&](std::size_t position) { return items_[position].first.view() == path; });
}

const HashCache::Entry* HashCache::Entries::find(std::string_view path) const noexcept {
  const PositionIndex::Place place = locate(path, PositionIndex::hash_of(path));
  return place.found ? &items_[index_.position(place.slot)].second : nullptr;
}

void HashCache::Entries::put(Text path, Entry entry) {
  const std::uint32_t hash = PositionIndex::hash_of(path);
  PositionIndex::Place place = locate(path, hash);
  if (place.found) {
    items_[index_.position(place.slot)].second = std::move(entry);
    return;
  }
  if (items_.size() == index_.capacity()) {
    index_ = index_.grown_to(2 * items_.size() + 1);
    place = locate(path, hash);
  }
  items_.emplace_back(std::move(path), std::move(entry));
  index_.put(place.slot, hash, items_.size() - 1);
}

/// Fills entries while their file is read.
class HashCache::Reading final : public JsonMembers {
 public:
  explicit Reading(std::size_t expected_entries) { entries_.reserve(expected_entries); }

  /// Costs what came before, since a file may begin as often as it likes.
  void begin() override {
    if (entries_.items().empty()) return;
    entries_ = Entries();
    dropped_ = TextSet();
  }
  void take(Text key, std::span<Member> members) override {
    if (!dropped_.empty()) dropped_.erase(key);
    if (const std::optional<Fingerprint> fingerprint = fingerprint_of(members)) return entries_.put(std::move(key), *fingerprint);
    entries_.put(std::move(key), entry_from_document(Document(members)));
  }
  void take_other(const Text& key) override {
    if (entries_.find(key) != nullptr) dropped_.insert(key);
  }

  [[nodiscard]] Entries finish() {
    if (dropped_.empty()) return std::move(entries_);
    Entries kept;
    for (Item& item : entries_.items()) {
      if (!contains(dropped_, item.first)) kept.put(std::move(item.first), std::move(item.second));
    }
    return kept;
  }

 private:
  Entries entries_;
  TextSet dropped_;  ///< of the entries' keys, those that came again with something else
};

HashCache::Entries HashCache::read_entries(const std::string& path) {
  constexpr std::size_t TYPICAL_ENTRY_BYTES = 250;
  const FileText text(path);
  Reading reading(text.view().size() / TYPICAL_ENTRY_BYTES);
  const Value parsed = parse_json(text.view(), "files", reading);
  const Document* cache = parsed.if_document();
  const bool usable = cache != nullptr && cache->get("version") == Value(SYNC_HASH_CACHE_VERSION) && cache->get("files").is_document();
  return usable ? reading.finish() : Entries();
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
  warn("Ignoring unreadable sync hash cache: %s", failure);
}

void HashCache::load(Stored stored) try {
  if (stored.entries_) {
    MutexLock lock(mutex_);
    entries_.swap(stored.entries_);
    viewed_ = false;
    return;
  }
  try {
    std::rethrow_exception(stored.failure_);
  } catch (const std::exception& failure) {
    if (!error_of(failure).is(error_class::FileNotFoundError)) warn("Ignoring unreadable sync hash cache: %s", failure);
  }
} catch (const std::bad_alloc& failure) {
  warn("Ignoring unreadable sync hash cache: %s", failure);
}

Document HashCache::_load_hash_cache(const std::string& path) {
  try {
    return document_from(read_entries(path).items());
  } catch (const std::exception& failure) {
    if (!error_of(failure).is(error_class::FileNotFoundError)) warn("Ignoring unreadable sync hash cache: %s", failure);
    return {};
  }
}

std::optional<HashCache::Digest> HashCache::Digest::from(std::string_view hex) noexcept {
  Digest digest;
  if (hex.size() != 2 * digest.bytes_.size()) return std::nullopt;
  static constexpr auto VALUES = [] {
    std::array<std::uint8_t, 256> values{};
    values.fill(INVALID);
    for (unsigned char digit = 0; digit < 16; ++digit) values[static_cast<unsigned char>(DIGITS[digit])] = digit;
    return values;
  }();
  unsigned seen = 0;
  const auto value_at = [&](std::size_t at) {
    const unsigned value = VALUES[static_cast<unsigned char>(hex[at])];
    seen |= value;
    return value;
  };
  for (std::size_t at = 0; at < digest.bytes_.size(); ++at) {
    digest.bytes_[at] = static_cast<unsigned char>(value_at(2 * at) << 4 | (value_at(2 * at + 1) & 0xF));
  }
  return seen < INVALID ? std::optional(digest) : std::nullopt;
}

bool HashCache::Digest::is(std::string_view hex) const noexcept {
  if (hex.size() != 2 * bytes_.size()) return false;
  int differing = 0;
  for (std::size_t at = 0; at < bytes_.size(); ++at)
    differing |= (DIGITS[bytes_[at] >> 4] ^ hex[2 * at]) | (DIGITS[bytes_[at] & 0xF] ^ hex[2 * at + 1]);
  return differing == 0;
}

std::string HashCache::Digest::hex() const {
  std::string hex;
  for (const unsigned char byte : bytes_) fmt::format_to(std::back_inserter(hex), FMT_COMPILE("{:02x}"), byte);
  return hex;
}

std::optional<HashCache::Fingerprint> HashCache::fingerprint_of(std::span<const Member> members) {
  std::optional<std::int64_t> size_bytes, mtime_ns, ctime_ns, inode;
  std::optional<Digest> digest;
  for (const auto& [key, value] : members) {
    const std::string_view name = key.view();
    if (name == "ctime_ns") {
      ctime_ns = value.if_integer();
    } else if (name == "inode") {
      inode = value.if_integer();
    } else if (name == "mtime_ns") {
      mtime_ns = value.if_integer();
    } else if (name == "sha256") {
      if (const std::optional<std::string_view> hex = value.if_text()) digest = Digest::from(*hex);
    } else if (name == "size_bytes") {
      size_bytes = value.if_integer();
    }
  }
  // Five members with five names: none of them is another, and none stands twice.
  if (members.size() != 5 || !size_bytes || !mtime_ns || !ctime_ns || !inode || !digest) return std::nullopt;
  return Fingerprint{*digest, *size_bytes, *mtime_ns, *ctime_ns, *inode};
}

HashCache::Entry HashCache::entry_from_document(const Document& document) {
  if (const std::optional<Fingerprint> fingerprint = fingerprint_of({document.begin(), document.end()})) return *fingerprint;
  return document;
}

Document HashCache::document_from(const Entry& entry) {
  if (const auto* document = std::get_if<Document>(&entry)) return *document;
  static const auto& keys = *new std::array<Text, 5>{"ctime_ns", "inode", "mtime_ns", "sha256", "size_bytes"};
  const auto& known = std::get<Fingerprint>(entry);
  return {{keys[0], known.ctime_ns},
          {keys[1], known.inode},
          {keys[2], known.mtime_ns},
          {keys[3], known.sha256.hex()},
          {keys[4], known.size_bytes}};
}

Document HashCache::document_from(const Items& entries) {
  std::vector<Member> members;
  members.reserve(entries.size());
  for (const Line& line : sorted_by_path(entries)) members.push_back({line.item->first, document_from(line.item->second)});
  return Document(std::move(members));
}

std::string HashCache::file_text(const Items& entries) {
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
                     FMT_COMPILE(R"({{"ctime_ns": {}, "inode": {}, "mtime_ns": {}, "sha256": "{}", "size_bytes": {}}})"), known->ctime_ns,
                     known->inode, known->mtime_ns, known->sha256.hex(), known->size_bytes);
    } else {
      text += write_json(std::get<Document>(entry), JsonForm::SortedKeys);
    }
  }
  fmt::format_to(std::back_inserter(text), R"(}}, "version": {}}})", SYNC_HASH_CACHE_VERSION);
  return text;
}

std::vector<HashCache::Line> HashCache::sorted_by_path(const Items& entries) {
  std::vector<Line> lines;
  lines.reserve(entries.size());
  for (const auto& item : entries) lines.push_back({item.first, &item});
  std::ranges::sort(lines, {}, &Line::path);
  return lines;
}

HashCache::Items HashCache::copy_items() const {
  MutexLock lock(mutex_);
  return entries_->items();
}

}  // namespace brackenfen::sync
