// What may stand in a header: of a request before it is sent, of a response before its body is believed.
//
// Inside the library header values are UTF-8 text; on the wire they are Latin-1, as HTTP has them.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "sync/transport/http_client.hpp"

namespace brackenfen::sync {

/// Latin-1 bytes of UTF-8 text; absent where the text has characters beyond Latin-1 or is not UTF-8.
[[nodiscard]] std::optional<std::string> latin1_from_text(std::string_view text);
[[nodiscard]] std::string text_from_latin1(std::string_view bytes);

/// The value's bytes for the wire, or absent where it holds what HTTP forbids: control characters, and
/// characters beyond Latin-1.
[[nodiscard]] std::optional<std::string> header_value_bytes(std::string_view value);
/// Throws ValueError, naming the header but not its value, for a header that must not be sent.
void require_sendable_headers(const Headers& headers);

/// The value of the first header of that name, in any case of letters; absent where there is none.
[[nodiscard]] std::optional<std::string_view> header_value(const Headers& headers, std::string_view name);
/// Throws URLError where a response's length cannot be told for sure: lengths that differ, that are no
/// number, or that come beside a chunked body; and for a body that is encoded in any way but chunks.
void require_unambiguous_length(const Headers& headers);

}  // namespace brackenfen::sync
