// No text from a manifest or a server becomes a path, an address or a redirect outside what it may name.
#include <unistd.h>

#include "sync/base/files/paths.hpp"
#include "sync/base/text/text.hpp"
#include "sync/base/text/url.hpp"
#include "sync/documents/local_files.hpp"
#include "sync/documents/manifest_paths.hpp"
#include "sync/transport/header_rules.hpp"
#include "sync/transport/redirects.hpp"
#include "tests/fuzz/fuzz.hpp"

namespace {

constexpr const char* SERVER = "https://server.example";
const TransportSecurity& SECURITY = TransportSecurity::builtin();

/// With files, folders, and links that lead out of it, back into it, to nothing and in a circle.
const std::string& data_dir() {
  static const bool is_made = [] {
    directory().write("a/b/c.arrow", "c");
    bool made = true;
    for (const auto& [target, name] : {std::pair("/etc", "out"), {".", "in"}, {"nothing", "lost"}, {"circle", "circle"}, {"a/b", "b"}})
      made = made && symlink(target, (directory() / name).c_str()) == 0;
    return made;
  }();
  require(is_made, "links can be made");
  return directory().path();
}

void check_path(std::string_view text) {
  const Value given(text);
  const auto path = unless_refused([&] { return _safe_manifest_relative_path(given); }, error_class::ManifestError);
  require(path.has_value() != fault_of_relative_path(text).has_value(), "a path is refused for its fault alone");
  require(!is_plain_relative_path(text) || path == text, "a plain path is its own result");
  if (!path) return;
  require(path->find_first_of(std::string_view("\\\0", 2)) == std::string::npos, "the path is plain");
  for (const std::string_view segment : split(*path, "/"))
    require(!segment.empty() && segment != "." && segment != "..", "no segment climbs or stays, nor is the path absolute");
  require(strip(*path) != *path || _safe_manifest_relative_path(Value(*path)) == *path, "a stripped result is its own result");
  require(_manifest_file_url(SECURITY, SERVER, given) == SERVER + ("/data/files/" + *path), "the address is the base and the path");

  LocalFiles files(data_dir());
  const auto local = unless_refused([&] { return _manifest_local_path(data_dir(), given); }, error_class::ManifestError);
  const auto seen = unless_refused([&] { return files.stat(text); }, error_class::ManifestError);
  require(local.has_value() == seen.has_value(), "both looks refuse the same");
  require(!local || (*local + "/").starts_with(data_dir() + "/"), "the local path does not leave the data directory");
  require(!local || stat_or_absent(Files::real(), *local) == *seen, "both looks see the same");
  if (local && *seen) require(real_path(absolute_path(*local)) == *local && expand_user(*local) == *local, "a local path is its own");
  const auto find = [&] { return files.place(text, LocalFiles::Parents::Leave); };
  const auto place = unless_refused(find, error_class::ManifestError, error_class::OSError);
  require(!place || (local && !OwnFiles(data_dir()).contains(*path)), "what may be written is inside, and no file of ours");
}

void check_url(const std::string& url) {
  const auto may_go = unless_refused([&] { SECURITY.validate_bearer_transport_url(url); }, error_class::ValueError);
  if (const auto parts = unless_refused([&] { return split_url(url); }, error_class::ValueError)) {
    const auto port = unless_refused([&] { return parts->port(); }, error_class::ValueError);
    require(!port || (port->value_or(1) >= 0 && port->value_or(1) <= 65535 && same_origin(url, url)), "a port is in range");
    const bool is_safe = parts->scheme == "https" || (parts->scheme == "http" && names_this_machine(parts->host()));
    require(!may_go || (is_safe && !parts->has_user_information()), "a token goes encrypted or not far");
  }
  const auto file = unless_refused([&] { return _manifest_file_url(SECURITY, SERVER, "a/b", url); }, error_class::ManifestError);
  require(!file || is_public_download(SERVER, url, *file) || same_origin(SERVER, *file), "a token goes to the server alone");
  const bool is_server = same_origin(SERVER, url);
  const auto route = unless_refused([&] { return RequestRoute({url, {}}); }, error_class::ValueError);
  if (!route) return;
  require(!is_server || same_origin(SERVER, route->url()), "who connects goes to the origin that was meant");
  if (may_go) SECURITY.validate_bearer_transport_url(route->url());
}

void check_redirects(Input input) {
  const HttpRequest request{std::string(input.line()), {{"Authorization", "Bearer token"}}};
  auto route = unless_refused([&] { return RequestRoute(request); }, error_class::ValueError);
  const std::string first = route ? route->url() : "";
  for (int followed = 1; route && !input.empty(); ++followed) {
    const bool was_encrypted = route->is_encrypted();
    if (!unless_refused([&] { route->follow(input.line(), SECURITY); }, error_class::RedirectRefusedError)) return;
    require(followed <= MAX_REDIRECTS && route->is_encrypted() >= was_encrypted, "redirects end, and never leave encryption");
    require(!header_value(route->headers(), "Authorization") || same_origin(first, route->url()), "the token stays with its origin");
    SECURITY.validate_bearer_transport_url(route->url());
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Input input(data, size);
  check_path(input.rest());
  check_url(std::string(input.rest()));
  check_redirects(input);
  return 0;
}
