// JSON in and out. The bytes written are those of Python's json module for the same value.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "sync/base/values/value.hpp"

namespace brackenfen::sync {

/// Objects and lists may lie this deep in each other; one level more is refused, on reading and on writing.
inline constexpr int JSON_MAX_DEPTH = 1000;

/// The three forms in which documents lie on disk or travel in events.
enum class JsonForm {
  InsertionOrder,  ///< keys as they stand, separators ", " and ": "
  SortedKeys,      ///< keys sorted by code point, separators ", " and ": "
  Canonical,       ///< keys sorted, separators "," and ":"
};

/// Parses UTF-8 JSON with the dialect of Python's json module: NaN and infinities, integers of any size,
/// duplicate keys (the last value wins, at the first position). A byte order mark and a lone surrogate
/// escape are refused.
/// Throws UnicodeDecodeError where the bytes are not UTF-8 and JSONDecodeError for anything else, with
/// Python's wording: "Expecting value: line 1 column 1 (char 0)".
[[nodiscard]] Value parse_json(std::string_view bytes);
/// The same; a text that is a key of `known` is the very text of it. It costs least where they come in its order.
[[nodiscard]] Value parse_json(std::string_view bytes, const Document& known);

/// Takes the members of one object as they are read, so that no document of them is built.
class JsonMembers {
 public:
  virtual ~JsonMembers() = default;
  /// The object opens. One that came before, under the same key, counts no more.
  virtual void begin() = 0;
  /// An object, whose members may be moved out of; a key that it repeats stands there each time, and the last value wins. So
  /// it is with the keys of the objects, which come again.
  virtual void take(Text key, std::span<Member> members) = 0;
  /// Any other value, which takes the place of what came under the key before.
  virtual void take_other(const Text& key) = 0;
};
/// The same for a document in which the object at `key` is left empty: its members go to `members`. They count for nothing
/// where this throws.
[[nodiscard]] Value parse_json(std::string_view bytes, std::string_view key, JsonMembers& members);

/// Non-ASCII characters are escaped, so the result is ASCII. Throws ValueError beyond JSON_MAX_DEPTH.
[[nodiscard]] std::string write_json(const Value& value, JsonForm form);

}  // namespace brackenfen::sync
