// The digests of local files, remembered against a fingerprint of their stat, so that an unchanged file is
// trusted without being read.
#pragma once

#include <array>
#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "sync/base/threads/mutex.hpp"
#include "sync/base/threads/snapshot.hpp"
#include "sync/base/values/position_index.hpp"
#include "sync/base/values/value.hpp"
#include "sync/transport/files.hpp"

namespace brackenfen::sync {

inline constexpr const char* SYNC_HASH_CACHE_FILENAME = ".sync_hash_cache.json";
inline constexpr int SYNC_HASH_CACHE_VERSION = 1;

/// Size, both times and inode of a file.
[[nodiscard]] FileStat _cache_stat_key(Files& files, const std::string& local_path);

/// Starts empty; load() takes over what the file holds.
///
/// Any thread. No failure of the cache ever fails a sync, a lack of memory included: a bad file reads as empty, a failed
/// write is logged and tried again with the next persist, and what cannot be remembered is not.
class HashCache {
 public:
  HashCache(Files& files, Clock& clock, std::string path);

  /// `expected_sha` where the cache knows that the file has it, else absent.
  [[nodiscard]] std::optional<std::string> _cached_local_sha(std::string_view file_path, const std::string& local_path,
                                                             std::string_view expected_sha) const;
  /// The same for a caller that has the file's stat in hand.
  [[nodiscard]] bool holds(std::string_view file_path, const FileStat& stat, std::string_view expected_sha) const;
  /// Whether a digest of the path was ever remembered, as of every file of a manifest that was landed or looked at here.
  [[nodiscard]] bool knows(std::string_view file_path) const;
  class View;
  /// What is remembered now, for a look at many files. To be taken once for all of them: the next digest that is remembered
  /// after it costs a copy of the entries.
  [[nodiscard]] View view() const;
  /// Takes the caller's word for the digest.
  void _remember_local_sha(std::string_view file_path, const std::string& local_path, std::string_view actual_sha);
  /// The digest of a file's bytes, with its stat from before they were read, or from when they had landed. A file that is
  /// another by now, or has changed since, is not remembered: whoever changed it may have done so before the last of it
  /// was read. Nor is one without a stat.
  void remember_if_unchanged(std::string_view file_path, const std::string& local_path, std::string_view actual_sha,
                             const std::optional<FileStat>& before);
  /// Writes the file if the map holds something that it does not.
  void _persist_hash_cache();

  /// The entries by relative path, as they stand in the file.
  [[nodiscard]] Document entries() const;
  void set_entries(const Document& entries);
  [[nodiscard]] bool dirty() const;
  void set_dirty(bool dirty);
  [[nodiscard]] std::string path() const { return path_.get(); }
  void set_path(std::string path) { path_.set(std::move(path)); }

  /// The entries of the file at `path`; empty where it is missing or unusable, or takes more memory than there is.
  [[nodiscard]] static Document _load_hash_cache(const std::string& path);
  /// What a file holds, or why it is unusable. Of no cache yet: it may be read on a thread of its own.
  class Stored;
  [[nodiscard]] static Stored read(const std::string& path) noexcept;
  /// Takes over what its file held; that it was unusable is a warning.
  void load(Stored stored);
  void load();

 private:
  /// SHA-256 as it is written in lower case, in half the room.
  class Digest {
   public:
    /// Absent for any other text.
    [[nodiscard]] static std::optional<Digest> from(std::string_view hex) noexcept;
    [[nodiscard]] std::string hex() const;
    [[nodiscard]] bool is(std::string_view hex) const noexcept;
    bool operator==(const Digest&) const = default;

   private:
    std::array<unsigned char, 32> bytes_{};
  };
  struct Fingerprint {
    Digest sha256;
    std::int64_t size_bytes;
    std::int64_t mtime_ns;
    std::int64_t ctime_ns;
    std::int64_t inode;

    bool operator==(const Fingerprint&) const = default;
  };
  /// Whatever else a file or a host puts in the place of a fingerprint is kept, and written back, as it stands.
  using Entry = std::variant<Fingerprint, Document>;
  using Item = std::pair<Text, Entry>;
  using Items = std::vector<Item>;

  /// The entries by relative path, in the order in which they came.
  class Entries {
   public:
    void reserve(std::size_t count);
    /// Null where there is none.
    [[nodiscard]] const Entry* find(std::string_view path) const noexcept;
    void put(Text path, Entry entry);
    [[nodiscard]] Items& items() noexcept { return items_; }  ///< whose paths stay equal
    [[nodiscard]] const Items& items() const noexcept { return items_; }

   private:
    [[nodiscard]] PositionIndex::Place locate(std::string_view path, std::uint32_t hash) const noexcept;

    Items items_;
    PositionIndex index_;
  };

  static bool holds(const Entries& entries, std::string_view file_path, const FileStat& stat, std::string_view expected_sha);
  /// The entries, of which no view knows.
  [[nodiscard]] Entries& own_entries() REQUIRES(mutex_);

  class Reading;
  static Entries read_entries(const std::string& path);
  /// Absent where the members are no plain fingerprint.
  static std::optional<Fingerprint> fingerprint_of(std::span<const Member> members);
  static Entry entry_from_document(const Document& document);
  static Document document_from(const Entry& entry);
  static Document document_from(const Items& entries);
  static std::string file_text(const Items& entries);
  /// What is sorted in the place of the entries themselves, since it is cheap to move. Views the list.
  struct Line {
    std::string_view path;
    const Item* item;
  };
  static std::vector<Line> sorted_by_path(const Items& entries);
  [[nodiscard]] Items copy_items() const EXCLUDES(mutex_);
  void store(std::string_view file_path, std::string_view actual_sha, const FileStat& stat) EXCLUDES(mutex_);

  Files& files_;
  Clock& clock_;
  Guarded<std::string> path_;

  mutable Mutex mutex_;
  std::shared_ptr<Entries> entries_ GUARDED_BY(mutex_) = std::make_shared<Entries>();
  mutable bool viewed_ GUARDED_BY(mutex_) = false;  ///< since entries_ was made: it stays as it is from then on
  bool dirty_ GUARDED_BY(mutex_) = false;
};

class HashCache::Stored {
 public:
  /// Holds the paths that are keys of `files` in the texts of these.
  void share_paths(const Document& files);

 private:
  friend class HashCache;
  std::shared_ptr<Entries> entries_;
  std::exception_ptr failure_;
};

/// The entries of one moment. Any thread; no lock.
class HashCache::View {
 public:
  [[nodiscard]] bool holds(std::string_view file_path, const FileStat& stat, std::string_view expected_sha) const {
    return HashCache::holds(*entries_, file_path, stat, expected_sha);
  }

 private:
  friend class HashCache;
  explicit View(std::shared_ptr<const Entries> entries) : entries_(std::move(entries)) {}

  std::shared_ptr<const Entries> entries_;
};

}  // namespace brackenfen::sync
