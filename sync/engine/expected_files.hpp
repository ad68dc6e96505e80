// The local files that a check of many is about, collected first and then looked at on all cores.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "sync/base/threads/interrupt.hpp"
#include "sync/base/values/value.hpp"
#include "sync/engine/hash_cache.hpp"

namespace brackenfen::sync {

/// The host is asked for an interrupt once per so many files of a walk.
inline constexpr std::size_t FILES_PER_INTERRUPT_CHECK = 1024;

struct ExpectedFile {
  std::string_view file_path;
  const Document* file_info;  ///< null where nothing is expected of the file
};

/// Views of paths and entries, which must outlive it.
class ExpectedFiles {
 public:
  void reserve(std::size_t count) { files_.reserve(count); }
  void add(std::string_view file_path, const Document* file_info) {
    if (files_.size() % FILES_PER_INTERRUPT_CHECK == 0) check_interrupt();
    files_.push_back({file_path, file_info});
  }
  [[nodiscard]] std::size_t size() const noexcept { return files_.size(); }
  [[nodiscard]] const ExpectedFile& operator[](std::size_t index) const { return files_[index]; }

 private:
  std::vector<ExpectedFile> files_;
};

/// What can be told of a file without reading it.
enum class Glance : char { Matches, Differs, MustBeRead };

/// Whether the entry's size lets the file pass: it is the same, or the entry states none that counts. No file has a size
/// that is infinite or nan.
[[nodiscard]] bool size_fits(const Document& file_info, std::int64_t size_bytes);

/// `digests` is a HashCache or a view of one; null where no remembered digest counts.
template <typename Digests>
[[nodiscard]] Glance glance_at(std::string_view file_path, const FileStat& stat, const Document& file_info, const Digests* digests) {
  if (!stat.is_regular || !size_fits(file_info, stat.size_bytes)) return Glance::Differs;
  const Value& stated = file_info.get("sha256");
  if (!stated.truthy()) return Glance::Matches;
  const auto expected_sha = stated.if_text();
  if (!expected_sha) return Glance::Differs;
  return digests && digests->holds(file_path, stat, *expected_sha) ? Glance::Matches : Glance::MustBeRead;
}

/// For each of the files, whether it is here and matches at a glance. On all cores; a path that is refused does not match.
[[nodiscard]] std::vector<char> match_at_a_glance(const std::string& data_dir, const ExpectedFiles& files, const HashCache::View& digests);

}  // namespace brackenfen::sync
