// The whole of a large file, for as long as it takes to parse it.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace brackenfen::sync {

/// Lies in memory of its own, huge pages where the system has them: it is neither zeroed twice nor faulted in page by page,
/// and goes back to the system at once. The allocator would keep it, since it keeps more the larger the blocks are that it
/// gets back.
class FileText {
 public:
  /// Throws as read_file() does, and bad_alloc.
  explicit FileText(const std::string& path);
  FileText(const FileText&) = delete;
  FileText& operator=(const FileText&) = delete;
  ~FileText();

  [[nodiscard]] std::string_view view() const noexcept { return {start_, size_}; }

 private:
  FileText() noexcept = default;
  void grow();

  char* start_ = nullptr;
  std::size_t room_ = 0;  ///< bytes that are mapped
  std::size_t size_ = 0;
};

}  // namespace brackenfen::sync
