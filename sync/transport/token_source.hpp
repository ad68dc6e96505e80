// Where bearer tokens come from.
#pragma once

#include <memory>
#include <optional>
#include <string>

namespace brackenfen::sync {

/// Asked afresh for each request, on the thread that makes it. The token is never logged, and kept in memory alone.
class TokenSource {
 public:
  virtual ~TokenSource() = default;
  /// What it throws, an error of the host's own, ends the operation.
  [[nodiscard]] virtual std::string token() = 0;
  /// What the host gave instead, where that cannot be called: the text form of its type.
  [[nodiscard]] virtual std::optional<std::string> type_where_not_callable() const { return std::nullopt; }
};

/// A source that always answers `token`.
[[nodiscard]] std::shared_ptr<TokenSource> fixed_token(std::string token);

}  // namespace brackenfen::sync
