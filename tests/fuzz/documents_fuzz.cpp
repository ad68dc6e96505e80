// Any bytes either parse or are refused with the promised errors, and what was parsed survives every form. As a
// manifest it is sanitised once and for all, and its record reads as the document that was written.
#include "sync/base/values/json.hpp"
#include "sync/documents/manifest.hpp"
#include "sync/documents/manifest_filters.hpp"
#include "tests/fuzz/fuzz.hpp"

namespace fuzz = brackenfen::sync::fuzz;
using namespace brackenfen::sync;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto parsed = fuzz::unless_refused([&] { return parse_json(fuzz::text_of(data, size)); }, error_class::JSONDecodeError,
                                           error_class::UnicodeDecodeError);
  if (!parsed) return 0;
  const std::string canonical = write_json(*parsed, JsonForm::Canonical);
  for (const JsonForm form : {JsonForm::InsertionOrder, JsonForm::SortedKeys, JsonForm::Canonical}) {
    const std::string written = write_json(*parsed, form);
    const Value again = parse_json(written);
    fuzz::require(write_json(again, form) == written, "writing what was read back gives the same bytes");
    fuzz::require(write_json(again, JsonForm::Canonical) == canonical, "every form holds the same value");
  }

  const auto neighbours = Neighbours::builtin().bind();
  const auto sanitised =
      fuzz::unless_refused([&] { return _sanitize_manifest_data_for_sync(*neighbours, *parsed); }, error_class::Exception);
  if (!sanitised) return 0;
  const std::string written = write_json(*sanitised, JsonForm::InsertionOrder);
  fuzz::require(write_json(_sanitize_manifest_data_for_sync(*neighbours, *sanitised), JsonForm::InsertionOrder) == written,
                "sanitising a second time changes nothing");
  const Manifest manifest(*neighbours, *parsed);
  fuzz::require(write_json(manifest.data(), JsonForm::InsertionOrder) == written, "the record holds the sanitised document");
  const Value files = manifest.files();
  if (!files.is_document()) return 0;
  for (const auto& [path, entry] : *files.if_document())
    fuzz::require(manifest.file(path).same_as(entry), "every entry is found by its path");
  return 0;
}
