// Any bytes either parse or are refused with the promised errors, and what was parsed survives every form. As a
// manifest it is sanitised once and for all, and its record reads as the document that was written.
#include "sync/base/values/convert.hpp"
#include "sync/base/values/json.hpp"
#include "sync/documents/feature_paths.hpp"
#include "sync/documents/manifest.hpp"
#include "sync/documents/manifest_file.hpp"
#include "sync/documents/manifest_filters.hpp"
#include "sync/documents/parsed_file.hpp"
#include "sync/transport/files.hpp"
#include "tests/fuzz/fuzz.hpp"

namespace {

/// Members of "files" as they are read, with null for what is no document.
struct FileMembers final : JsonMembers {
  void begin() override { members.clear(); }
  void take(Text key, std::span<Member> entry) override { members.push_back({std::move(key), Document(entry)}); }
  void take_other(const Text& key) override { members.push_back({key, nullptr}); }
  std::vector<Member> members;
};

std::string text_of(const Value& value) { return write_json(value, JsonForm::InsertionOrder); }

void check_forms(std::string_view text, const Value& parsed) {
  const std::string canonical = write_json(parsed, JsonForm::Canonical);
  for (const JsonForm form : {JsonForm::InsertionOrder, JsonForm::SortedKeys, JsonForm::Canonical}) {
    const Value again = parse_json(write_json(parsed, form));
    require(write_json(again, form) == write_json(parsed, form), "writing what was read back gives the same bytes");
    require(write_json(again, JsonForm::Canonical) == canonical, "every form holds the same value");
  }
  if (!parsed.is_document()) return;
  require(text_of(parse_json(text, *parsed.if_document())) == text_of(parsed), "known keys change nothing");
  FileMembers read;
  const Value rest = parse_json(text, "files", read);
  const Document* files = parsed.if_document()->get("files").if_document();
  if (files == nullptr) return;
  std::vector<Member> expected(files->begin(), files->end());
  for (Member& file : expected) file.value = file.value.is_document() ? file.value : Value();
  require(text_of(Document(read.members)) == text_of(Document(expected)), "members one by one are those of the whole");
  require(text_of(rest) == text_of(parsed.if_document()->with("files", Document())), "the rest stays as it is");
}

void check_entry(const Document& files, const Text& path, const Value& entry) {
  const EraConfig& eras = neighbours().era_config();
  const bool is_unsupported = _is_unsupported_runtime_module_file(neighbours(), path, entry);
  require(!is_unsupported && !to_quoted(entry).empty(), "nothing unsupported is left, and each reads for people");
  static_cast<void>(_manifest_file_is_sync_excluded(neighbours(), entry));
  static_cast<void>(_rotation_file_is_platform_excluded(neighbours(), entry));
  static_cast<void>(_is_retired_unsupported_runtime_module_path(path));
  static_cast<void>(artifact_row_path(entry));
  const Document stated = without_stamps(entry.is_document() ? *entry.if_document() : Document());
  require(!stated.contains("_manifest_base_url") && (!is_vault_module(stated) || stated.contains("kind")), "a server's stamps have no say");
  const auto size = [&] { return manifest_integer(stated.get("size_bytes"), "size_bytes"); };
  static_cast<void>(unless_refused(size, error_class::ManifestError, error_class::ValueError, error_class::TypeError));
  const auto group = _agent_signal_group_key(eras, path, path.view().substr(0, path.view().find('/') + 1));
  require(!group || path.view().starts_with(*group + "/"), "a group is the beginning of its path");
  const std::string_view name = path.view().substr(path.view().rfind('/') + 1);
  const Value stem(name.substr(0, name.rfind('.')));
  for (const Value& universe : {Value(), Value("us")}) {
    const auto found = _manifest_feature_relative_path(eras, files, stem, "SIGNAL", universe);
    const auto all = _manifest_feature_prefetch_relative_paths(eras, files, stem, "SIGNAL", universe);
    require(all.empty() ? !found : all.front() == found && files.contains(*found), "a feature comes before its companions");
  }
  for (const std::string& companion : _manifest_feature_companion_relative_paths(files, path))
    require(companion.starts_with("features/") && companion != path.view(), "a companion is another feature");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text = Input(data, size).rest();
  const auto parsed = unless_refused([&] { return parse_json(text); }, error_class::JSONDecodeError, error_class::UnicodeDecodeError);
  if (!parsed) return 0;
  check_forms(text, *parsed);

  const auto sanitise = [&] { return _sanitize_manifest_data_for_sync(neighbours(), *parsed); };
  const auto sanitised = unless_refused(sanitise, error_class::AttributeError);
  if (!sanitised) return 0;
  const Value files = sanitised->get("files");
  require(_sanitize_manifest_data_for_sync(neighbours(), *sanitised).same_as(*sanitised), "sanitising a second time changes nothing");
  require(!_manifest_has_agent_bundle_declarations(files) && !_manifest_has_retired_found_pnl_long_files(files), "nothing dropped is left");
  Manifest manifest(neighbours(), *parsed);
  _write_manifest_json(Files::real(), Clock::real(), directory().path(), manifest.data());
  const ParsedFile stored = ParsedFile::read(directory() / "manifest.json");
  require(text_of(stored.value()) == text_of(*sanitised), "record and file hold the sanitised document");
  if (!files.is_document()) return 0;
  const Document& entries = *files.if_document();
  for (const auto& [path, entry] : entries) {
    require(manifest.file(path).same_as(entry), "every entry is found by its path");
    if (entries.size() <= 16) check_entry(entries, path, entry);
  }
  manifest.set_file("a/b", Document{{"size_bytes", 1}});
  require(manifest.data().get("files").same_as(manifest.files()) && manifest.entry("a/b").size() == 1, "an entry is set in both");
  return 0;
}
