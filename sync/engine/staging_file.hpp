// The staging file of a download: "{local path}.tmp", always a prefix of the file being fetched, with the
// running digest of exactly those bytes.
//
// A worker that its caller left behind may still have the file open when a later download begins on it, in this process
// or another. An advisory lock on the open file tells: who finds it taken goes on in a copy under the same name. So no
// two downloads ever write to one file, and a worker whose name leads to another file, or nowhere, touches nothing more.
// In a child of fork() every operation on the file throws StateError: it belongs to the download of the parent.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "sync/base/files/descriptor.hpp"
#include "sync/base/files/sha256.hpp"
#include "sync/base/threads/clock.hpp"
#include "sync/base/threads/fork.hpp"
#include "sync/transport/activity.hpp"
#include "sync/transport/files.hpp"
#include "sync/transport/http.hpp"

namespace brackenfen::sync {

/// Takes the bodies of responses straight from the network: memory stays bounded whatever the size of the
/// file. One thread.
class StagingFile : public ResponseSink {
 public:
  StagingFile(Place place, Clock& clock) : place_(std::move(place)), clock_(clock) {}

  /// Where the next attempt looks for the file.
  void set_place(Place place) { place_ = std::move(place); }
  /// For each attempt: digests what the file holds. One that was open before stays, as long as it has its name. Else the
  /// file is opened, or made empty, if this download `may_begin`. What else stands in its place gives way. Throws
  /// os_error, FileNotFoundError for a file that has gone to another download.
  void open(bool may_begin = true);
  /// Empties file and digest; a file that has lost its name stays as it is.
  void clear();
  /// Closes the file and renames it to `target`. Throws os_error, FileNotFoundError as with open. Returns its stat as
  /// stat_of_landed gives it; absent too where it holds something else than was written here.
  std::optional<FileStat> land(Files& files, const Place& target);

  [[nodiscard]] std::int64_t size_bytes() const noexcept { return bytes_.held; }
  /// The same, and what came, for other threads.
  [[nodiscard]] const DownloadBytes& bytes() const noexcept { return bytes_; }
  /// Ends the digest; the file must not be written any more.
  [[nodiscard]] std::string hex_digest() { return digest_.hex_digest(); }

  /// What the next response may bring: a 206 goes behind the bytes already here, a 200 takes their place.
  /// Each has its bound in bytes; absent means that such a body is passed over.
  void expect(std::optional<std::uint64_t> partial_limit, std::optional<std::uint64_t> whole_limit);
  /// Bytes of that response that were kept.
  [[nodiscard]] std::uint64_t received_bytes() const noexcept { return received_bytes_; }
  /// After a response: writes what is still held back. Nothing else may be asked of the file before. This, keep_whole and
  /// roll_back throw FileNotFoundError as open does.
  void flush();
  /// After a 200: cuts off what an older, longer content left behind it.
  void keep_whole();

  [[nodiscard]] std::uint64_t begin(int status) override;
  /// Goes back to where expect() was called, after a response that failed midway.
  void roll_back() override;
  void accept(std::string_view bytes) override;

 private:
  /// Opens the file and locks it; where another download has it open, a new one under its name with the bytes of that.
  /// Returns how many bytes it holds.
  [[nodiscard]] std::int64_t take_file();
  /// Takes the name from a file that another download has open, so that the next to open it makes a new one.
  void take_name(const FileId& other) const;
  [[nodiscard]] std::int64_t copy_from(const Descriptor& other);
  /// Throws StateError in a child of fork(), which shares the open file, its position and its lock with the parent.
  void require_own_process() const;
  /// The same, and FileNotFoundError where the name leads elsewhere.
  void require_name() const;
  /// Returns the file's stat from before, absent where it holds something else than was written here.
  [[nodiscard]] std::optional<FileStat> move_to(Files& files, const Place& target) const;
  /// As if nothing had been read or written yet; the file stays as it is.
  void forget_content();
  /// Digests the file from its beginning, as far as it goes or up to `size_bytes`.
  void digest_prefix(std::int64_t size_bytes);
  void truncate(std::int64_t size_bytes);

  Place place_;
  Clock& clock_;
  const std::uint64_t fork_generation_ = fork_generation();
  Descriptor file_;
  FileId id_;  ///< of file_, where that is open
  Sha256 digest_;
  DownloadBytes bytes_;

  // The response being read.
  std::string block_;  ///< accepted, but neither written nor digested yet
  std::int64_t held_back_since_ns_ = 0;
  std::optional<std::uint64_t> partial_limit_;
  std::optional<std::uint64_t> whole_limit_;
  std::int64_t start_bytes_ = 0;
  std::optional<Sha256> start_digest_;  ///< of start_bytes_, where there are some
  std::uint64_t received_bytes_ = 0;
  bool overwrites_ = false;  ///< a 200 is going over bytes that were here before
};

}  // namespace brackenfen::sync
