// The file of the hash cache: reading it, and its text. No lock.
#include <algorithm>
#include <array>
#include <iterator>

#include <fmt/compile.h>
#include <fmt/format.h>

#include "sync/base/files/file_text.hpp"
#include "sync/base/values/json.hpp"
#include "sync/base/values/text_set.hpp"
#include "sync/engine/hash_cache.hpp"

namespace brackenfen::sync {

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

}  // namespace brackenfen::sync
