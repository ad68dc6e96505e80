#include "tools/distribution/check.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <optional>
#include <string_view>

#include "sync/base/error.hpp"
#include "sync/base/files/descriptor.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/base/values/json.hpp"
#include "sync/documents/signals_index.hpp"
#include "tools/distribution/kinds.hpp"

namespace brackenfen::sync::distribution {
namespace {

Document read_document(const SourceFile& file) {
  const std::string bytes = read_file(file.local_path);
  std::optional<Document> document;
  try {
    const Value value = parse_json(bytes);
    if (const Document* found = value.if_document()) document = *found;
  } catch (const Error& error) {
    throw RuntimeError(fmt::format("{} is not valid JSON: {}", file.local_path, error.text()));
  }
  if (!document) throw RuntimeError(fmt::format("{} must hold a JSON object", file.local_path));
  return *document;
}

void require_era(const SourceFile& file, const Document& document, std::int64_t era) {
  const Value& found = document.get("era_number");
  if (found.if_integer() == era) return;
  throw RuntimeError(fmt::format("{} says era_number {}, but era {} is being published", file.local_path, to_quoted(found), era));
}

void check_vocabulary(const SourceFile& file, const Document& document, const std::string& universe) {
  const Document* metadata = document.get("metadata").if_document();
  if (!document.contains("features")) throw RuntimeError(fmt::format("{} has no features", file.local_path));
  if (metadata == nullptr) throw RuntimeError(fmt::format("{} has no metadata object", file.local_path));
  for (const Value& name : {document.get("named_universe"), metadata->get("named_universe")}) {
    if (name.if_text() == universe) continue;
    throw RuntimeError(fmt::format("{} names the universe {}, its path {}", file.local_path, to_quoted(name), to_quoted(universe)));
  }
}

void check_index(const SourceFile& file, const Document& document, const std::vector<SourceFile>& files) {
  const auto is_present = [&](std::string_view path) {
    return std::binary_search(files.begin(), files.end(), SourceFile{std::string(path), {}, 0},
                              [](const SourceFile& left, const SourceFile& right) { return left.relative_path < right.relative_path; });
  };
  for (const std::string_view section : SIGNALS_INDEX_SECTIONS) {
    const Value& value = document.get(section);
    if (value.is_null()) continue;
    if (!value.is_document()) throw RuntimeError(fmt::format("{}: {} must be a JSON object", file.local_path, section));
    for (const Member& member : *value.if_document()) {
      const Document* entry = member.value.if_document();
      const List* names = entry == nullptr ? nullptr : entry->get("files").if_list();
      if (names == nullptr) throw RuntimeError(fmt::format("{}: {} {} has no files", file.local_path, section, member.key.view()));
      for (const Value& name : *names) {
        if (name.is_text() && is_present(*name.if_text())) continue;
        throw RuntimeError(
            fmt::format("{}: {} {} names {}, which is not there", file.local_path, section, member.key.view(), to_quoted(name)));
      }
    }
  }
}

}  // namespace

void check_documents(const std::vector<SourceFile>& files, std::int64_t era) {
  for (const SourceFile& file : files) {
    const std::optional<std::string> universe = vocabulary_universe(file.relative_path);
    const bool is_index = file.relative_path == SIGNALS_INDEX_RELATIVE_PATH;
    if (!universe && !is_index && file.relative_path != FUNCTIONS_NAME) continue;
    const Document document = read_document(file);
    require_era(file, document, era);
    if (universe) check_vocabulary(file, document, *universe);
    if (is_index) check_index(file, document, files);
  }
}

}  // namespace brackenfen::sync::distribution
