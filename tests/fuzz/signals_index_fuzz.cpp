// An index is applied whole or not at all; scrubbed of lost artifacts it names none of them, and its entry is that of the
// file that lies there. Input: a manifest, and the index on the lines after it.
#include "sync/base/files/sha256.hpp"
#include "sync/base/values/json.hpp"
#include "sync/documents/signals_index.hpp"
#include "tests/fuzz/fuzz.hpp"

namespace {

bool names_any(const Document& document, const std::set<std::string>& missing) {
  return std::ranges::any_of(SIGNALS_INDEX_SECTIONS, [&](std::string_view section) {
    const std::set<std::string> named = _membership_referenced_files(document.get(section));
    return std::ranges::any_of(named, [&](const std::string& path) { return missing.contains(path); });
  });
}

void check_scrub(const Document& manifest, const std::set<std::string>& missing) {
  const auto scrub = [&](const Document& document) {
    return _scrub_missing_found_pnl_paths_from_signals_index(Files::real(), Clock::real(), directory().path(), document, missing);
  };
  const Document without = _drop_missing_found_pnl_paths(manifest, missing);
  require(!names_any(without, missing), "the manifest names nothing lost");
  require(_drop_missing_found_pnl_paths(without, missing).same_as(without), "nothing is left to drop");
  const auto scrubbed = unless_refused([&] { return scrub(manifest); }, error_class::ManifestError, error_class::UnicodeDecodeError);
  if (!scrubbed || !scrubbed->second) return;
  const auto& [document, update] = *scrubbed;
  const std::string bytes = read_file(update->local_path);
  const Document& entry = *document.get("files").if_document()->get(update->relative_path).if_document();
  require(entry.get("sha256") == Value(_sha256(bytes)) && entry.get("size_bytes") == Value(bytes.size()), "the entry is the file's");
  require(!names_any(*parse_json(bytes).if_document(), missing) && !scrub(document).second, "nothing is left to scrub");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const auto parsed = unless_refused([&] { return parse_json(input.line()); }, error_class::ValueError);
  if (!parsed || !parsed->is_document()) return 0;
  const std::string_view body = input.rest();
  Manifest manifest(neighbours(), *parsed);
  const auto apply = [&] { _validate_signals_index_bytes(body, manifest); };
  const auto applied = unless_refused(apply, error_class::ManifestError, error_class::EraError);
  const auto [signals, strategies, useful] = manifest.sections();
  require(applied || (signals.empty() && strategies.empty() && useful.empty()), "no section is set where it throws");
  static_cast<void>(unless_refused([&] { _validate_membership_referenced_found_pnl_kinds(manifest); }, error_class::ManifestError));

  directory().write(SIGNALS_INDEX_RELATIVE_PATH, body);
  const Document document = manifest.data();
  Manifest loaded(neighbours(), document);
  const auto load = [&] { return _load_manifest_signals_index(directory().path(), loaded); };
  const auto found = unless_refused(load, error_class::SyncError, error_class::UnicodeDecodeError);
  require(found != true || (applied && loaded.sections().useful_signals.size() == useful.size()), "a file is applied as its bytes are");
  const auto path = unless_refused([&] { return _manifest_signals_index_path(manifest); }, error_class::ManifestError);
  require(!path || !*path || _manifest_data_signals_index_path(document) == *path, "both look-ups lead to one index");

  std::set<std::string> missing;
  for (const Document& section : {signals, strategies, useful}) missing.merge(_membership_referenced_files(section));
  for (const std::string& file : missing) {
    const Document entries{{file, manifest.file(file)}};
    const bool is_lost = _missing_found_pnl_download_path(PermanentDownloadError("lost", file, 404), entries).has_value();
    require(is_lost == _is_manifest_found_pnl_file(file, manifest.file(file)), "a lost artifact is one by path and kind");
    require(pnl_kind_for_path(file).has_value() == _found_pnl_section_for_path(file).has_value(), "an artifact has kind and section");
  }
  check_scrub(document, _normalize_found_pnl_paths({missing.begin(), missing.end()}));
  return 0;
}
