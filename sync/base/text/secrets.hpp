// Tokens never show: neither as they are nor in the forms that a server, or what lies before it, gives them back in.
#pragma once

#include <string>
#include <string_view>

#include "sync/base/values/value.hpp"

namespace brackenfen::sync {

/// From now on the functions below know `token`, whichever of its characters are percent-encoded or behind a backslash, and its
/// base64 forms, also as a part of something longer. Only in memory, and only the latest few: hosts renew theirs. A text of less than six
/// bytes is no secret. Any thread, as below.
void remember_secret(std::string_view token);

/// The text with asterisks in the place of every secret, one for each byte: positions in it stay what they were.
[[nodiscard]] std::string mask_secrets(std::string text);
/// The same for every text in a value, names of members too.
[[nodiscard]] Value mask_secrets(const Value& value);

}  // namespace brackenfen::sync
