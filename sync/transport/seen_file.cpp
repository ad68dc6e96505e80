#include "sync/transport/seen_file.hpp"

#include "sync/base/error.hpp"
#include "sync/transport/files.hpp"

namespace brackenfen::sync {

std::optional<std::string> sha256_if_there(const std::string& filepath) {
  try {
    return _sha256_file(filepath);
  } catch (const Error& error) {
    if (!error.is(error_class::FileNotFoundError)) throw;
    return std::nullopt;
  }
}

}  // namespace brackenfen::sync
