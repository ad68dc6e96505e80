#include "sync/transport/settings.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <limits>
#include <string_view>

#include "sync/base/log.hpp"
#include "sync/base/text/text.hpp"
#include "sync/base/values/convert.hpp"

namespace brackenfen::sync {
namespace {

/// The warnings of one setting. They name its first variable, also where the bad text came from the second.
struct Warnings {
  const char* unparsable;
  const char* not_positive = nullptr;
};

/// A variable that is set but empty counts as unset here, but keeps the second variable from being read.
std::optional<std::string> setting(Environment& environment, const char* name, const char* fallback_name = nullptr) {
  std::optional<std::string> text = environment.get(name);
  if (!text && fallback_name != nullptr) text = environment.get(fallback_name);
  if (text && text->empty()) return std::nullopt;
  return text;
}

/// The integer that `text` stands for, beyond 64 bits the nearest that fits; absent where it is none.
std::optional<std::int64_t> parse_integer(std::string_view text) {
  const std::optional<Value> parsed = to_integer_or_absent(text);
  if (!parsed) return std::nullopt;
  if (const auto small = parsed->if_integer()) return small;
  const bool negative = parsed->if_big_integer().value_or("").starts_with('-');
  return negative ? std::numeric_limits<std::int64_t>::min() : std::numeric_limits<std::int64_t>::max();
}

double positive_seconds(const std::optional<std::string>& text, double fallback, const Warnings& warnings) {
  if (!text) return fallback;
  const std::optional<double> seconds = parse_real(*text);
  if (seconds && !(*seconds <= 0.0)) return *seconds;  // nan is let through
  log_warning(seconds ? warnings.not_positive : warnings.unparsable, *text, fallback);
  return fallback;
}

std::int64_t positive_integer(const std::optional<std::string>& text, std::int64_t fallback, const Warnings& warnings) {
  if (!text) return fallback;
  const std::optional<std::int64_t> number = parse_integer(*text);
  if (number && *number > 0) return *number;
  log_warning(number ? warnings.not_positive : warnings.unparsable, *text, fallback);
  return fallback;
}

std::int64_t integer_of_at_least(std::int64_t least, const std::optional<std::string>& text, std::int64_t fallback,
                                 const char* unparsable) {
  if (!text) return fallback;
  if (const std::optional<std::int64_t> number = parse_integer(*text)) return std::max(least, *number);
  log_warning(unparsable, *text, fallback);
  return fallback;
}

}  // namespace

double _sync_http_timeout_seconds(Environment& environment) {
  return positive_seconds(setting(environment, "BRACKENFEN_SYNC_HTTP_TIMEOUT_SECONDS", "BRACKENFEN_SYNC_HTTP_TIMEOUT"),
                          SYNC_HTTP_TIMEOUT_SECONDS,
                          {.unparsable = "Invalid BRACKENFEN_SYNC_HTTP_TIMEOUT_SECONDS=%r; using %.1fs",
                           .not_positive = "Non-positive BRACKENFEN_SYNC_HTTP_TIMEOUT_SECONDS=%r; using %.1fs"});
}

double _sync_manifest_version_http_timeout_seconds(Environment& environment) {
  return positive_seconds(
      setting(environment, "BRACKENFEN_SYNC_MANIFEST_VERSION_HTTP_TIMEOUT_SECONDS", "BRACKENFEN_SYNC_MANIFEST_VERSION_TIMEOUT_SECONDS"),
      SYNC_MANIFEST_VERSION_HTTP_TIMEOUT_SECONDS,
      {.unparsable = "Invalid BRACKENFEN_SYNC_MANIFEST_VERSION_HTTP_TIMEOUT_SECONDS=%r; using %.1fs",
       .not_positive = "Non-positive BRACKENFEN_SYNC_MANIFEST_VERSION_HTTP_TIMEOUT_SECONDS=%r; using %.1fs"});
}

std::int64_t _sync_http_chunk_bytes(Environment& environment) {
  return positive_integer(setting(environment, "BRACKENFEN_SYNC_HTTP_CHUNK_BYTES"), SYNC_HTTP_CHUNK_BYTES,
                          {.unparsable = "Invalid BRACKENFEN_SYNC_HTTP_CHUNK_BYTES=%r; using %d",
                           .not_positive = "Non-positive BRACKENFEN_SYNC_HTTP_CHUNK_BYTES=%r; using %d"});
}

std::int64_t _sync_http_response_read_bytes(Environment& environment) {
  return positive_integer(setting(environment, "BRACKENFEN_SYNC_HTTP_RESPONSE_READ_BYTES"), SYNC_HTTP_RESPONSE_READ_BYTES,
                          {.unparsable = "Invalid BRACKENFEN_SYNC_HTTP_RESPONSE_READ_BYTES=%r; using %d",
                           .not_positive = "Non-positive BRACKENFEN_SYNC_HTTP_RESPONSE_READ_BYTES=%r; using %d"});
}

bool reuses_http_connections(Environment& environment) {
  const std::optional<std::string> text = setting(environment, "BRACKENFEN_SYNC_HTTP_REUSE_CONNECTIONS");
  if (!text) return false;
  const std::string word = ascii_lower(strip(*text));
  const auto is_word = [&](const char* other) { return word == other; };
  if (std::ranges::any_of(std::array{"1", "true", "yes", "on"}, is_word)) return true;
  if (std::ranges::none_of(std::array{"0", "false", "no", "off"}, is_word)) {
    log_warning("Invalid BRACKENFEN_SYNC_HTTP_REUSE_CONNECTIONS=%r; using 0", *text);
  }
  return false;
}

std::int64_t _sync_max_unchanged_checksum_repairs(Environment& environment) {
  return integer_of_at_least(0, setting(environment, "BRACKENFEN_SYNC_MAX_UNCHANGED_CHECKSUM_REPAIRS"), SYNC_MAX_UNCHANGED_CHECKSUM_REPAIRS,
                             "Invalid BRACKENFEN_SYNC_MAX_UNCHANGED_CHECKSUM_REPAIRS=%r; using %d");
}

std::int64_t _sync_max_concurrency(Environment& environment) {
  return integer_of_at_least(1, setting(environment, "BRACKENFEN_SYNC_MAX_CONCURRENCY"), SYNC_MAX_CONCURRENCY,
                             "Invalid BRACKENFEN_SYNC_MAX_CONCURRENCY=%r; using %d");
}

std::optional<double> _sync_parallel_timeout_seconds(Environment& environment, std::int64_t /*file_count*/, std::int64_t /*max_workers*/) {
  const std::optional<std::string> text = setting(environment, "BRACKENFEN_SYNC_PARALLEL_TIMEOUT_SECONDS");
  if (!text) return std::nullopt;
  const std::optional<double> seconds = parse_real(*text);
  if (seconds && *seconds > 0.0) return seconds;
  log_warning(seconds ? "Non-positive BRACKENFEN_SYNC_PARALLEL_TIMEOUT_SECONDS=%r; disabling batch timeout"
                      : "Invalid BRACKENFEN_SYNC_PARALLEL_TIMEOUT_SECONDS=%r; disabling batch timeout",
              *text);
  return std::nullopt;
}

std::string _sync_parallel_timeout_description(std::optional<double> timeout_seconds) {
  return timeout_seconds ? fmt::format("{:.1f}s", *timeout_seconds) : "unbounded";
}

}  // namespace brackenfen::sync
