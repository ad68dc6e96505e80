// The shuffle seed of an era: 60 opaque bytes, and a companion file that says which era they belong to.
//
// The seed is in no manifest, so nothing states its digest. The response that brings it proves its era in a
// header; the companion keeps that proof on disk.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "sync/base/values/value.hpp"
#include "sync/transport/files.hpp"

namespace brackenfen::sync {

inline constexpr std::string_view SHUFFLE_SEED_FILENAME = "shuffle_seed.enc";
inline constexpr std::string_view SHUFFLE_SEED_META_FILENAME = "shuffle_seed.enc.meta.json";  ///< the companion
inline constexpr std::size_t SHUFFLE_SEED_SIZE_BYTES = 60;

[[nodiscard]] std::string _shuffle_seed_meta_path(const std::string& path);

/// The value of the first header of that name, in any case of letters; null where there is none or `headers`
/// is no map.
[[nodiscard]] Value _header_value(const Value& headers, std::string_view name);
/// Throws SyncError where X-Era-Id is missing, EraError where it is no number or another era's.
void _validate_response_era_header(const Value& headers, const Value& expected_era_id, std::string_view artifact);

/// Throws os_error.
void _write_shuffle_seed_metadata(Files& files, Clock& clock, const std::string& path, const Value& era_number);

/// Throws SyncError for any other size.
void _validate_shuffle_seed_bytes(std::string_view data);
/// Without an era only the size counts. Throws SyncError for a seed or companion that is missing or unusable,
/// EraError for another era, os_error for a seed that cannot be read.
void _validate_shuffle_seed_file(const std::string& path, const std::optional<Value>& expected_era_id = std::nullopt);

}  // namespace brackenfen::sync
