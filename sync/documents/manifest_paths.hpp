// The one gate between a manifest path and a local file or a URL. Nothing else joins the two.
//
// All refusals are ManifestError.
#pragma once

#include <string>
#include <string_view>

#include "sync/base/values/value.hpp"

namespace brackenfen::sync {

class TransportSecurity;

/// "/"-separated, without backslashes, empty, "." or ".." segments, without white space at either end.
[[nodiscard]] std::string _safe_manifest_relative_path(const Value& file_path);

/// Whether `path` is already in that form, so that a walk over many paths need not copy. Also false for some
/// paths that are, such as one with a character beyond ASCII.
[[nodiscard]] bool is_plain_relative_path(std::string_view path) noexcept;

/// The absolute local path, links resolved; refuses a path that leaves `data_dir`, also through a link.
[[nodiscard]] std::string _manifest_local_path(std::string_view data_dir, const Value& file_path);

/// The URL of a data file: `base_url` (a non-blank text) or "{server_url}/data/files", "/" and the path as it
/// stands, without percent-encoding.
[[nodiscard]] std::string _manifest_file_url(const TransportSecurity& transport_security, std::string_view server_url,
                                             const Value& file_path, const Value& base_url = {});

/// The base URL for a file: the one that its plan entry is stamped with, else the entry's own, else the
/// manifest's; null where none holds anything.
[[nodiscard]] Value first_base_url(const Document& file_info, const Value& manifest_base_url);

/// Whether a data file is fetched without credentials: any explicit base but the server's own /data/files.
[[nodiscard]] bool _manifest_base_url_uses_public_download(std::string_view server_url, const Value& base_url);
/// The same of a file at `url`, which the base URL may have led to another origin all the same.
[[nodiscard]] bool is_public_download(std::string_view server_url, const Value& base_url, std::string_view url);

}  // namespace brackenfen::sync
