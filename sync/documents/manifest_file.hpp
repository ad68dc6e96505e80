// manifest.json, the commit record of a data directory.
#pragma once

#include <string_view>

#include "sync/base/values/value.hpp"
#include "sync/transport/files.hpp"

namespace brackenfen::sync {

inline constexpr std::string_view MANIFEST_FILENAME = "manifest.json";

/// Writes the document atomically, keys in insertion order. Throws os_error; the earlier file stays then.
void _write_manifest_json(Files& files, Clock& clock, std::string_view data_dir, const Document& manifest_data);

/// Whether it is there: no folder, and not empty. A manager that runs knows its own manifest, and would not miss it.
[[nodiscard]] bool has_manifest_json(Files& files, std::string_view data_dir);

}  // namespace brackenfen::sync
