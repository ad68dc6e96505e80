// The local files that a check of many is about, collected first and then looked at on all cores.
#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

#include "sync/base/threads/interrupt.hpp"
#include "sync/base/values/value.hpp"

namespace brackenfen::sync {

/// The host is asked for an interrupt once per so many files of a walk.
inline constexpr std::size_t FILES_PER_INTERRUPT_CHECK = 1024;

struct ExpectedFile {
  std::string_view file_path;
  const Document* file_info;
};

/// Views of paths and entries, which must outlive it.
class ExpectedFiles {
 public:
  void add(std::string_view file_path, const Document* file_info) {
    if (files_.size() % FILES_PER_INTERRUPT_CHECK == 0) check_interrupt();
    files_.push_back({file_path, file_info});
  }
  [[nodiscard]] std::size_t size() const noexcept { return files_.size(); }
  [[nodiscard]] const ExpectedFile& operator[](std::size_t index) const { return files_[index]; }

 private:
  std::vector<ExpectedFile> files_;
};

}  // namespace brackenfen::sync
