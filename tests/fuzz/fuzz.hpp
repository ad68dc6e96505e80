// What the fuzz targets share. Each target states properties; whatever is neither an Error of ours nor a
// property that holds ends the process, and libFuzzer keeps the input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string_view>

#include "sync/base/error.hpp"

namespace brackenfen::sync::fuzz {

inline void require(bool holds, const char* property) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", property);
  std::abort();
}

inline std::string_view text_of(const std::uint8_t* data, std::size_t size) { return {reinterpret_cast<const char*>(data), size}; }

/// The result of `operation`, or absent where it refuses with an error of one of the given classes.
template <typename Operation, typename... Classes>
auto unless_refused(const Operation& operation, const Classes&... classes) -> std::optional<decltype(operation())> {
  try {
    return operation();
  } catch (const Error& error) {
    require((error.is(classes) || ...), "the refusal is of a promised class");
    return std::nullopt;
  }
}

}  // namespace brackenfen::sync::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
