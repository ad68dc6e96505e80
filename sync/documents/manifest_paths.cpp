#include "sync/documents/manifest_paths.hpp"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>

#include "sync/base/error.hpp"
#include "sync/base/files/path_below.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/text/text.hpp"
#include "sync/base/text/url.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/neighbours/transport_security.hpp"

namespace brackenfen::sync {
namespace {

constexpr std::string_view DATA_FILES_PATH = "/data/files";

ManifestError refusal(std::string_view problem, const Value& file_path) {
  return ManifestError("Manifest file path " + std::string(problem) + ": " + to_quoted(file_path));
}

void refuse_fault(std::optional<RelativePathFault> fault, const Value& file_path) {
  if (!fault) return;
  switch (*fault) {
    case RelativePathFault::Blank:
      throw ManifestError("Manifest file path must be a non-empty relative path");
    case RelativePathFault::NulByte:
      throw refusal("contains NUL byte", file_path);
    case RelativePathFault::Absolute:
      throw refusal("must be relative", file_path);
    case RelativePathFault::Unsafe:
      throw refusal("contains unsafe segments", file_path);
  }
}

bool is_plain_character(char c) noexcept { return c >= ' ' && c <= '~' && c != '\\'; }

/// The same of every character of at least eight, eight at a time: it is asked of each path of a manifest.
bool has_plain_words(std::string_view path) noexcept {
  constexpr std::uint64_t ONES = 0x0101010101010101U;
  constexpr std::uint64_t HIGH_BITS = 0x8080808080808080U;
  std::uint64_t unusual = 0;
  for (std::size_t at = 0; at < path.size(); at += 8) {
    std::uint64_t word = 0;
    std::memcpy(&word, path.data() + std::min(at, path.size() - 8), sizeof word);
    const std::uint64_t backslash = word ^ (ONES * '\\');
    const std::uint64_t rubout = word ^ (ONES * 0x7FU);
    unusual |= word | ((word - ONES * ' ') & ~word) | ((backslash - ONES) & ~backslash) | ((rubout - ONES) & ~rubout);
  }
  return (unusual & HIGH_BITS) == 0;
}

std::optional<UrlParts> split_url_or_absent(std::string_view url) {
  try {
    return split_url(url);
  } catch (const ValueError&) {
    return std::nullopt;
  }
}

}  // namespace

bool is_plain_relative_path(std::string_view path) noexcept {
  if (path.empty() || path.front() == ' ' || path.back() == ' ') return false;
  const bool all_plain = path.size() < 8 ? std::ranges::all_of(path, is_plain_character) : has_plain_words(path);
  if (!all_plain) return false;
  for (std::size_t begin = 0; begin <= path.size();) {
    const std::size_t end = std::min(path.find('/', begin), path.size());
    const std::string_view segment = path.substr(begin, end - begin);
    if (segment.empty() || segment == "." || segment == "..") return false;
    begin = end + 1;
  }
  return true;
}

std::string _safe_manifest_relative_path(const Value& file_path) {
  const std::optional<std::string_view> text = file_path.if_text();
  if (text && is_plain_relative_path(*text)) return std::string(*text);
  refuse_fault(text ? fault_of_relative_path(*text) : RelativePathFault::Blank, file_path);

  const std::string path = replace_char(strip(*text), '\\', '/');
  std::string normalised;
  for (const std::string_view segment : split(path, "/")) {
    if (segment.empty() || segment == ".") continue;
    if (!normalised.empty()) normalised += '/';
    normalised += segment;
  }
  return normalised;
}

std::string _manifest_local_path(std::string_view data_dir, const Value& file_path) {
  const std::string relative_path = _safe_manifest_relative_path(file_path);
  const std::string base = real_path(expand_user(data_dir));
  std::string target = real_path(join_path(base, relative_path));
  if (!path_below(base, target)) throw refusal("escapes data directory", file_path);
  return target;
}

std::string _manifest_file_url(const TransportSecurity& transport_security, std::string_view server_url, const Value& file_path,
                               const Value& base_url) {
  const std::string relative_path = _safe_manifest_relative_path(file_path);
  const std::string_view explicit_base = stripped_text(base_url);
  const std::string base =
      explicit_base.empty() ? std::string(rstrip_char(server_url, '/')) + std::string(DATA_FILES_PATH) : std::string(explicit_base);

  const std::optional<UrlParts> parts = split_url_or_absent(base);
  if (!parts || parts->scheme.empty() || parts->network_location.empty()) {
    throw ManifestError("Manifest base_url must be an absolute data-file URL");
  }
  try {
    transport_security.validate_bearer_transport_url(base);
  } catch (const Error& error) {
    if (error.is(error_class::ValueError)) throw ManifestError(error.text());
    throw;
  }
  return std::string(rstrip_char(base, '/')) + "/" + relative_path;
}

Value first_base_url(const Document& file_info, const Value& manifest_base_url) {
  for (const char* key : {"_manifest_base_url", "base_url"}) {
    if (const Value& base_url = file_info.get(key); base_url.truthy()) return base_url;
  }
  return manifest_base_url;
}

bool _manifest_base_url_uses_public_download(std::string_view server_url, const Value& base_url) {
  const std::string_view explicit_base = stripped_text(base_url);
  if (explicit_base.empty()) return false;
  // An address that cannot be read never gets credentials.
  const std::optional<UrlParts> base = split_url_or_absent(explicit_base);
  const std::optional<UrlParts> server = split_url_or_absent(server_url);
  if (!base || !server) return true;
  return base->network_location != server->network_location || rstrip_char(base->path, '/') != DATA_FILES_PATH;
}

bool is_public_download(std::string_view server_url, const Value& base_url, std::string_view url) {
  return _manifest_base_url_uses_public_download(server_url, base_url) || !same_origin(server_url, url);
}

}  // namespace brackenfen::sync
