// No text from a manifest becomes a path or an address outside what it may name.
#include "sync/documents/manifest_paths.hpp"

#include <unistd.h>

#include <cstdlib>
#include <string>

#include "sync/base/files/paths.hpp"
#include "sync/base/text/text.hpp"
#include "sync/neighbours/transport_security.hpp"
#include "tests/fuzz/fuzz.hpp"

namespace fuzz = brackenfen::sync::fuzz;
using namespace brackenfen::sync;

namespace {

/// A directory with links that lead out of it and back into it; one per process, in TMPDIR.
const std::string& data_dir() {
  static const std::string& path = *[] {
    const char* const parent = std::getenv("TMPDIR");
    auto* made = new std::string(real_path(parent == nullptr ? "/tmp" : parent) + "/manifest_paths_fuzz.XXXXXX");  // mkdtemp fills the X in
    fuzz::require(mkdtemp(made->data()) != nullptr, "a temporary directory can be made");
    fuzz::require(symlink("/etc", (*made + "/out").c_str()) == 0 && symlink(".", (*made + "/in").c_str()) == 0, "links can be made");
    return made;
  }();
  return path;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Value given(fuzz::text_of(data, size));
  const auto path = fuzz::unless_refused([&] { return _safe_manifest_relative_path(given); }, error_class::ManifestError);
  if (!path) return 0;

  fuzz::require(!path->empty() && path->front() != '/' && path->find('\\') == std::string::npos && path->find('\0') == std::string::npos,
                "the path is relative and plain");
  for (const std::string_view segment : split(*path, "/")) {
    fuzz::require(!segment.empty() && segment != "." && segment != "..", "no segment climbs or stays");
  }
  if (strip(*path) == *path) fuzz::require(_safe_manifest_relative_path(Value(*path)) == *path, "a stripped result is its own result");

  const auto local =
      fuzz::unless_refused([&] { return _manifest_local_path(data_dir(), given); }, error_class::ManifestError, error_class::OSError);
  if (local) fuzz::require((*local + "/").starts_with(data_dir() + "/"), "the local path does not leave the data directory");

  const auto url = fuzz::unless_refused([&] { return _manifest_file_url(TransportSecurity::builtin(), "https://server.example", given); },
                                        error_class::ManifestError, error_class::ValueError);
  if (url) fuzz::require(*url == "https://server.example/data/files/" + *path, "the address is the base and the path");
  return 0;
}
