// The Range header of a request: one range of bytes, or none that we honour.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace brackenfen::sync::distribution {

/// The bytes [first, first + length) of a file.
struct ByteRange {
  std::int64_t first = 0;
  std::int64_t length = 0;
  bool operator==(const ByteRange&) const = default;
};

enum class RangeVerdict { Whole, Partial, Unsatisfiable };

struct RangeAnswer {
  RangeVerdict verdict = RangeVerdict::Whole;
  ByteRange range;  ///< the whole file for Whole, nothing for Unsatisfiable
  bool operator==(const RangeAnswer&) const = default;
};

/// `header` is the value of Range, absent where the request has none. A header that is malformed or asks for
/// several ranges is ignored, as HTTP allows.
[[nodiscard]] RangeAnswer answer_range(std::optional<std::string_view> header, std::int64_t size_bytes);

}  // namespace brackenfen::sync::distribution
