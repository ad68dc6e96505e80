// Finding, reading, applying and rewriting signals_index.json.
#include "sync/base/files/descriptor.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/files/sha256.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/base/values/json.hpp"
#include "sync/documents/local_files.hpp"
#include "sync/documents/manifest_paths.hpp"
#include "sync/documents/signals_index.hpp"

namespace brackenfen::sync {
namespace {

/// The pointer, or the name of the index where the manifest lists one without pointing at it; null for neither.
Value signals_index_pointer(const Value& signals_index, const Value& files) {
  if (!signals_index.is_null()) return signals_index;
  const Document* entries = files.if_document();
  const Document* entry = entries == nullptr ? nullptr : entries->get(SIGNALS_INDEX_RELATIVE_PATH).if_document();
  return entry != nullptr && entry->get("kind").if_text() == "signals_index" ? Value(SIGNALS_INDEX_RELATIVE_PATH) : Value();
}

Value parse_index(std::string_view text) {
  try {
    return parse_json(text);
  } catch (const Error& error) {
    if (!error.is(error_class::JSONDecodeError)) throw;
    throw ManifestError("Invalid signals_index.json JSON: " + error.text());
  }
}

const Document& require_index_document(const Value& index_data) {
  const Document* index = index_data.if_document();
  if (index == nullptr) throw ManifestError("signals_index.json must contain a JSON object");
  return *index;
}

void require_index_era(const Value& index_era, const Value& manifest_era) {
  if (index_era.is_null()) return;
  bool same_era = false;
  try {
    same_era = to_integer(index_era) == to_integer(manifest_era);
  } catch (const Error& error) {
    // Whichever of the two does not convert: the index is what is being judged.
    if (!error.is(error_class::TypeError) && !error.is(error_class::ValueError) && !error.is(error_class::OverflowError)) throw;
    throw EraError("signals_index.json has invalid era_number=" + to_quoted(index_era));
  }
  if (same_era) return;
  throw EraError("signals_index.json era_number=" + to_text(index_era) + " does not match manifest era_number=" + to_text(manifest_era));
}

/// The index as a document without the missing paths; the same one where it names none of them.
Document scrubbed(const Document& index, const std::set<std::string>& missing) {
  Document result = index;
  for (const std::string_view name : SIGNALS_INDEX_SECTIONS) {
    const Value* section = index.find(name);
    if (section == nullptr) continue;
    Value cleaned = _drop_found_pnl_paths_from_membership(*section, missing);
    if (!cleaned.same_as(*section)) result = result.with(name, std::move(cleaned));
  }
  return result;
}

}  // namespace

std::optional<std::string> _manifest_signals_index_path(const Manifest& manifest) {
  const Value files = manifest.files();
  const Value pointer = signals_index_pointer(manifest.signals_index(), files);
  if (pointer.is_null()) return std::nullopt;
  std::string path = _safe_manifest_relative_path(to_text(pointer));
  if (path != SIGNALS_INDEX_RELATIVE_PATH) throw ManifestError("manifest signals_index must reference signals_index.json");
  const Document* entries = files.if_document();
  if (entries == nullptr || !entries->get(path).is_document()) {
    throw ManifestError("manifest signals_index must be present in files as signals_index.json");
  }
  return path;
}

std::optional<std::string> _manifest_data_signals_index_path(const Value& manifest_data) {
  const Document* data = manifest_data.if_document();
  if (data == nullptr) return std::nullopt;
  const Value pointer = signals_index_pointer(data->get("signals_index"), data->get("files"));
  if (pointer.is_null()) return std::nullopt;
  return _safe_manifest_relative_path(to_text(pointer));
}

void _apply_manifest_signals_index(Manifest& manifest, const Value& index_data) {
  const Document& index = require_index_document(index_data);
  require_index_era(index.get("era_number"), manifest.era_number());
  const auto section = [&index](std::string_view name) {
    const Value* value = index.find(name);
    if (value == nullptr) return Document();
    if (!value->is_document()) throw ManifestError("signals_index.json " + std::string(name) + " must be a JSON object");
    return *value->if_document();
  };
  Manifest::Sections sections;
  sections.found_signals = section("found_signals");
  sections.found_strategies = section("found_strategies");
  sections.useful_signals = section("useful_signals");
  manifest.set_sections(std::move(sections));
}

void _validate_signals_index_bytes(std::string_view body, Manifest& manifest) {
  try {
    _apply_manifest_signals_index(manifest, parse_index(body));
  } catch (const Error& error) {
    if (!error.is(error_class::UnicodeDecodeError)) throw;
    throw ManifestError("Invalid signals_index.json UTF-8: " + error.text());
  }
}

bool _load_manifest_signals_index(const std::string& data_dir, Manifest& manifest, const std::optional<std::string>& fallback_data_dir) {
  const std::optional<std::string> relative_path = _manifest_signals_index_path(manifest);
  if (!relative_path) return false;
  std::string local_path = _manifest_local_path(data_dir, *relative_path);
  if (!path_exists(local_path) && fallback_data_dir) local_path = _manifest_local_path(*fallback_data_dir, *relative_path);
  if (!path_exists(local_path)) throw SyncError("signals_index.json missing from local sync: " + *relative_path);
  _apply_manifest_signals_index(manifest, parse_index(read_file(local_path)));
  return true;
}

std::pair<Document, std::optional<SignalsIndexUpdate>> _scrub_missing_found_pnl_paths_from_signals_index(
    Files& files, Clock& clock, const std::string& data_dir, const Document& manifest_data, const std::set<std::string>& missing_paths) {
  const std::set<std::string> missing = _normalize_found_pnl_paths({missing_paths.begin(), missing_paths.end()});
  if (missing.empty()) return {manifest_data, std::nullopt};
  const std::optional<std::string> relative_path = _manifest_data_signals_index_path(manifest_data);
  if (!relative_path) return {manifest_data, std::nullopt};
  std::string local_path = _manifest_local_path(data_dir, *relative_path);
  if (!path_exists(local_path)) return {manifest_data, std::nullopt};

  const Value parsed = parse_index(read_file(local_path));
  const Document& index = require_index_document(parsed);
  const Document cleaned = scrubbed(index, missing);
  if (cleaned.same_as(index)) return {manifest_data, std::nullopt};
  const std::string bytes = write_json(cleaned, JsonForm::SortedKeys);
  const std::optional<FileStat> landed = _atomic_write(files, clock, LocalFiles(data_dir).place(*relative_path), bytes);

  const Document* entries = manifest_data.get("files").if_document();
  const Document listed = entries == nullptr ? Document() : *entries;
  const Document* present = listed.get(*relative_path).if_document();
  std::string sha256 = _sha256(bytes);
  Document entry = (present == nullptr ? Document() : *present).with("sha256", sha256).with("size_bytes", bytes.size());
  if (!entry.contains("kind")) entry = entry.with("kind", "signals_index");
  SignalsIndexUpdate update{*relative_path, std::move(local_path), entry.get("kind"), std::move(sha256), landed};
  return {manifest_data.with("files", listed.with(*relative_path, std::move(entry))), std::move(update)};
}

}  // namespace brackenfen::sync
