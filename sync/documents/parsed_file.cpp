#include "sync/documents/parsed_file.hpp"

#include "sync/base/files/file_text.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/values/json.hpp"

namespace brackenfen::sync {

ParsedFile ParsedFile::read(const std::string& path, const Document& known) noexcept {
  ParsedFile file;
  file.exists_ = path_exists(path);
  if (!file.exists_) return file;
  try {
    file.value_ = parse_json(FileText(path).view(), known);
  } catch (const std::exception&) {
    file.failure_ = std::current_exception();
  }
  return file;
}

Document ParsedFile::member(std::string_view key) const noexcept {
  const Document* document = value_.if_document();
  const Document* member = document == nullptr ? nullptr : document->get(key).if_document();
  return member == nullptr ? Document() : *member;
}

}  // namespace brackenfen::sync
