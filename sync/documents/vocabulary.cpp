#include "sync/documents/vocabulary.hpp"

#include "sync/base/convert.hpp"
#include "sync/base/error.hpp"
#include "sync/base/text.hpp"
#include "sync/documents/manifest_paths.hpp"

namespace brackenfen::sync {
namespace {

std::optional<std::string> universe_from_safe_path(NeighbourSet& neighbours, std::string_view relative_path) {
  std::optional<std::string> universe = neighbours.artifact_rotation().vocabulary_named_universe_from_path(relative_path);
  if (!universe) return std::nullopt;
  return _validate_named_universe(*universe);
}

}  // namespace

std::string _validate_named_universe(const Value& named_universe) {
  const std::string text = named_universe.is_null() ? std::string() : to_text(named_universe);
  const std::string_view name = strip(text);
  if (name.empty()) throw SyncError("named_universe is required");
  if (name == "." || name == ".." || name.find_first_of(std::string_view("/\\\0", 3)) != std::string_view::npos) {
    throw SyncError("named_universe must be a single safe path segment: " + to_quoted(named_universe));
  }
  return std::string(name);
}

std::optional<std::string> _vocabulary_named_universe_from_path(NeighbourSet& neighbours, const Value& file_path) {
  // Asked for every file of a manifest, of which nearly all need no copy.
  const std::optional<std::string_view> text = file_path.if_text();
  if (text && is_plain_relative_path(*text)) return universe_from_safe_path(neighbours, *text);
  std::string relative_path;
  try {
    relative_path = _safe_manifest_relative_path(file_path);
  } catch (const Error& error) {
    if (error.is(error_class::ManifestError)) return std::nullopt;
    throw;
  }
  return universe_from_safe_path(neighbours, relative_path);
}

}  // namespace brackenfen::sync
