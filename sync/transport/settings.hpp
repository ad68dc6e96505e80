// The tunables, read from the environment at every call: a change takes effect with the next request. A bad
// value logs a warning that names the variable, and the default holds.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "sync/base/environment.hpp"

namespace brackenfen::sync {

inline constexpr double SYNC_HTTP_TIMEOUT_SECONDS = 30.0;
inline constexpr double SYNC_MANIFEST_VERSION_HTTP_TIMEOUT_SECONDS = 5.0;
inline constexpr std::int64_t SYNC_HTTP_CHUNK_BYTES = 8388608;
inline constexpr std::int64_t SYNC_HTTP_RESPONSE_READ_BYTES = 65536;
inline constexpr std::int64_t SYNC_MAX_CONCURRENCY = 8;
inline constexpr std::int64_t SYNC_MAX_UNCHANGED_CHECKSUM_REPAIRS = 3;
/// Read by nothing: a batch has no timeout unless one is asked for.
inline constexpr double SYNC_PARALLEL_TIMEOUT_SECONDS = 300.0;

/// Seconds, above 0 (or nan, which compares as neither).
[[nodiscard]] double _sync_http_timeout_seconds(Environment& environment);
[[nodiscard]] double _sync_manifest_version_http_timeout_seconds(Environment& environment);
/// Bytes, above 0. An integer beyond 64 bits reads as the largest that fits.
[[nodiscard]] std::int64_t _sync_http_chunk_bytes(Environment& environment);
[[nodiscard]] std::int64_t _sync_http_response_read_bytes(Environment& environment);
/// Whether requests may keep their connections: by 1, true, yes or on.
[[nodiscard]] bool reuses_http_connections(Environment& environment);
/// At least 0.
[[nodiscard]] std::int64_t _sync_max_unchanged_checksum_repairs(Environment& environment);
/// At least 1.
[[nodiscard]] std::int64_t _sync_max_concurrency(Environment& environment);
/// Seconds for a whole batch, or absent for no limit. Both arguments are accepted and ignored.
[[nodiscard]] std::optional<double> _sync_parallel_timeout_seconds(Environment& environment, std::int64_t file_count,
                                                                   std::int64_t max_workers);
/// "300.0s", or "unbounded".
[[nodiscard]] std::string _sync_parallel_timeout_description(std::optional<double> timeout_seconds);

}  // namespace brackenfen::sync
