// Many files in a few words: all by number, the first ones by name.
#pragma once

#include <fmt/core.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace brackenfen::sync::distribution {

class NamedFiles {
 public:
  void add(std::string_view name, std::int64_t bytes = 0) {
    bytes_ += bytes;
    if (++count_ > MOST_NAMED) return;
    if (!names_.empty()) names_ += ", ";
    names_ += name;
  }
  [[nodiscard]] bool empty() const noexcept { return count_ == 0; }
  [[nodiscard]] std::size_t count() const noexcept { return count_; }
  [[nodiscard]] std::int64_t bytes() const noexcept { return bytes_; }
  /// "a, b" or "a, b, c, d, e and 7 more".
  [[nodiscard]] std::string text() const {
    return count_ <= MOST_NAMED ? names_ : fmt::format("{} and {} more", names_, count_ - MOST_NAMED);
  }

 private:
  static constexpr std::size_t MOST_NAMED = 5;
  std::size_t count_ = 0;
  std::int64_t bytes_ = 0;
  std::string names_;
};

}  // namespace brackenfen::sync::distribution
