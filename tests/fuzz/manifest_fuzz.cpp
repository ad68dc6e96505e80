// A manifest of any shape is sanitised once and for all, and its record reads as the document that was written.
#include "sync/documents/manifest.hpp"

#include <string>

#include "sync/base/json.hpp"
#include "sync/documents/manifest_filters.hpp"
#include "tests/fuzz/fuzz.hpp"

namespace fuzz = brackenfen::sync::fuzz;
using namespace brackenfen::sync;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto parsed = fuzz::unless_refused([&] { return parse_json(fuzz::text_of(data, size)); }, error_class::ValueError);
  if (!parsed) return 0;
  const auto neighbours = Neighbours::builtin().bind();
  const auto sanitised =
      fuzz::unless_refused([&] { return _sanitize_manifest_data_for_sync(*neighbours, *parsed); }, error_class::Exception);
  if (!sanitised) return 0;

  const std::string written = write_json(*sanitised, JsonForm::InsertionOrder);
  fuzz::require(write_json(_sanitize_manifest_data_for_sync(*neighbours, *sanitised), JsonForm::InsertionOrder) == written,
                "sanitising a second time changes nothing");

  const Manifest manifest(*neighbours, *parsed);
  fuzz::require(write_json(manifest.data(), JsonForm::InsertionOrder) == written, "the record holds the sanitised document");
  const Manifest restored(*neighbours, parse_json(written));
  fuzz::require(write_json(restored.data(), JsonForm::InsertionOrder) == written, "what was written is read back the same");
  const Value files = manifest.files();
  if (files.is_document()) {
    for (const auto& [path, entry] : *files.if_document())
      fuzz::require(manifest.file(path).same_as(entry), "every entry is found by its path");
  }
  return 0;
}
