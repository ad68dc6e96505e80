#include "sync/documents/parsed_file.hpp"

#include "sync/base/files/descriptor.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/values/json.hpp"

namespace brackenfen::sync {

ParsedFile ParsedFile::read(const std::string& path) noexcept {
  ParsedFile file;
  file.exists_ = path_exists(path);
  if (!file.exists_) return file;
  try {
    file.value_ = parse_json(read_file(path));
  } catch (const std::exception&) {
    file.failure_ = std::current_exception();
  }
  return file;
}

}  // namespace brackenfen::sync
