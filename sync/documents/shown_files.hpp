// A set of files as the operation that is about to fetch or read them shows it.
#pragma once

#include <cstdint>

#include "sync/base/values/value.hpp"

namespace brackenfen::sync {

/// The size that a manifest's entry states; 0 where it states none that a file can have.
[[nodiscard]] std::int64_t shown_size(const Document& entry);

/// Sizes of many files, as far as they can be counted.
[[nodiscard]] std::int64_t sum_of_sizes(std::int64_t left, std::int64_t right) noexcept;

class AnnouncedFiles {
 public:
  /// Null for a file without an entry.
  void add(const Document* entry);
  /// To the operation that the running thread is part of.
  void announce() const;

 private:
  std::int64_t files_ = 0;
  std::int64_t bytes_ = 0;
};

/// All of them are to come.
void announce_files(const Document& entries);

}  // namespace brackenfen::sync
