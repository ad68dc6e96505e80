// What clients would stumble on in a published tree. Judged by the clients' own rules, which the core holds; a client tells
// the same, but later, and on many machines.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sync/base/values/value.hpp"
#include "tools/distribution/named_files.hpp"
#include "tools/distribution/tree.hpp"

namespace brackenfen::sync::distribution {

/// Why no client accepts `base_url`; absent where clients do, and for an empty one.
[[nodiscard]] std::optional<std::string> base_url_objection(std::string_view base_url);

/// A line for each kind of fault, naming a few files. Looks at each file that `manifest` lists in `folder` without reading
/// it, and reads the documents among them. Throws os_error where the folder cannot be looked at.
[[nodiscard]] std::vector<std::string> examine(const Document& manifest, const std::string& folder);

/// The files that a client which holds `before` keeps through its next pass although `files`, of the same era, states other
/// bytes. That pass says so too; the one after it fetches them.
[[nodiscard]] NamedFiles kept_by_clients(const Document& before, const Document& files);

}  // namespace brackenfen::sync::distribution
