// A document of the data directory, read and parsed at one time and taken over at another.
#pragma once

#include <exception>
#include <string>
#include <string_view>

#include "sync/base/values/value.hpp"

namespace brackenfen::sync {

class ParsedFile {
 public:
  /// Any thread; throws nothing. Texts that are keys of `known` are shared with it.
  [[nodiscard]] static ParsedFile read(const std::string& path, const Document& known = {}) noexcept;

  [[nodiscard]] bool exists() const noexcept { return exists_; }
  /// What it holds; throws what reading or parsing threw.
  [[nodiscard]] const Value& value() const {
    if (failure_) std::rethrow_exception(failure_);
    return value_;
  }
  /// Its member `key`; empty where there is none, or no document.
  [[nodiscard]] Document member(std::string_view key) const noexcept;

 private:
  bool exists_ = false;
  Value value_;
  std::exception_ptr failure_;
};

}  // namespace brackenfen::sync
