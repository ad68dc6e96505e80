#include "tools/distribution/examine.hpp"

#include <fmt/core.h>

#include <climits>
#include <memory>
#include <unordered_map>

#include "sync/base/error.hpp"
#include "sync/base/files/descriptor.hpp"
#include "sync/base/text/text.hpp"
#include "sync/base/text/url.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/documents/kept_files.hpp"
#include "sync/documents/local_files.hpp"
#include "sync/documents/manifest.hpp"
#include "sync/documents/manifest_paths.hpp"
#include "sync/documents/own_files.hpp"
#include "sync/documents/signals_index.hpp"
#include "sync/documents/vocabulary.hpp"
#include "sync/engine/expected_files.hpp"
#include "sync/neighbours/neighbours.hpp"
#include "tools/distribution/kinds.hpp"

namespace brackenfen::sync::distribution {
namespace {

/// Clients put ".tmp" behind the name of a file on its way in.
constexpr std::size_t LONGEST_NAME = NAME_MAX - 4;

/// The path as a file system that ignores letter case and dots at the end of a name understands it.
std::string folded(std::string_view path) {
  const std::string lower = ascii_lower(path);
  std::string result;
  for (const std::string_view segment : split(lower, "/")) {
    if (!result.empty()) result += '/';
    result += segment.substr(0, segment.find_last_not_of('.') + 1);  // npos + 1 is 0
  }
  return result;
}

class Examination {
 public:
  Examination(const Document& manifest, const std::string& folder)
      : neighbours_(Neighbours::builtin().bind()), folder_(folder), stated_(manifest), manifest_(*neighbours_, Value(manifest)) {}

  std::vector<std::string> run() {
    examine_base_url();
    examine_files();
    examine_vocabularies();
    examine_index();
    return std::move(warnings_);
  }

 private:
  void warn(std::string_view what, const NamedFiles& files) {
    if (!files.empty()) warnings_.push_back(fmt::format("{}: {}", what, files.text()));
  }

  /// Runs one of the clients' own checks. What it throws is what every client would end with.
  template <typename Check>
  void require(std::string_view of, const Check& check) {
    try {
      check();
    } catch (const Error& error) {
      warnings_.push_back(fmt::format("no client can complete this set: {}{}{}", of, of.empty() ? "" : ": ", error.text()));
    }
  }

  void examine_base_url() {
    const std::string base_url(manifest_.base_url().if_text().value_or(""));
    if (const auto objection = base_url_objection(base_url)) {
      warnings_.push_back("no client accepts the base URL: " + *objection);
      return;
    }
    const UrlParts parts = split_url(base_url);
    if (names_this_machine(parts.host())) warnings_.emplace_back("the base URL names this machine: clients elsewhere would ask themselves");
    if (!parts.query.empty()) warnings_.emplace_back("the base URL ends in a query, of which the path of each file would become a part");
  }

  void examine_files() {
    const Value files = stated_.get("files");
    if (!files.is_document()) {
      warnings_.emplace_back("no client can complete this set: the manifest has no files");
      return;
    }
    NamedFiles own, refused, too_long, lost, lost_pnl, dropped, folding;
    LocalFiles local_files(folder_);
    OwnFiles own_files(folder_);
    std::unordered_map<std::string, std::string_view> seen;  // by folded path
    for (const Member& member : *files.if_document()) {
      const std::string_view path = member.key.view();
      if (manifest_.file(path).is_null()) {
        dropped.add(path);
      } else if (path_objection(path)) {
        refused.add(to_quoted(path));
      } else if (own_files.contains(path)) {
        own.add(path);
      } else {
        const std::string name = folded(path);
        const auto [first, is_new] = seen.emplace(name, path);
        if (!is_new) folding.add(fmt::format("{} (like {})", path, first->second));
        if (is_new && own_files.contains(name)) folding.add(fmt::format("{} (like a file of the library's own)", path));
        if (path.size() - (path.rfind('/') + 1) > LONGEST_NAME) too_long.add(path);  // npos + 1 is 0
        if (!is_here(local_files, path, member.value)) (_is_manifest_found_pnl_file(path, member.value) ? lost_pnl : lost).add(path);
      }
    }
    warn("no client takes this manifest, which lists files of the library's own", own);
    warn("no client can complete this set, for no URL and no file can be made of these names", refused);
    warn(fmt::format("no client can complete this set, for these have names of more than {} characters", LONGEST_NAME), too_long);
    warn("no client can complete this set, for these files are missing or not as large as stated", lost);
    warn("clients leave out PnL artifacts that are missing or not as large as stated", lost_pnl);
    warn("no client fetches these, which are of a kind that is retired", dropped);
    warn("clients on a file system that ignores letter case cannot hold these", folding);
  }

  static bool is_here(LocalFiles& local_files, std::string_view path, const Value& entry) {
    try {
      const std::optional<FileStat> stat = local_files.stat(path);
      return stat && stat->is_regular && entry.is_document() && size_fits(*entry.if_document(), stat->size_bytes);
    } catch (const Error& error) {
      if (!error.is(error_class::ManifestError)) throw;
      return false;  // a link leads out of the folder
    }
  }

  void examine_vocabularies() {
    const Value era = manifest_.era_number();
    require("", [&] {
      const std::vector<std::string> paths = _vocabulary_manifest_paths(*neighbours_, manifest_);
      if (paths.empty()) throw SyncError("it has no named_universes/{universe}/vocabulary.json");
      for (const std::string& path : paths) {
        require(path, [&] {
          const Value universe = _vocabulary_named_universe_from_path(*neighbours_, path).value_or("");
          static_cast<void>(_validate_vocabulary_file(*neighbours_, _manifest_local_path(folder_, path), era, universe));
        });
      }
    });
    if (manifest_.file(FUNCTIONS_RELATIVE_PATH).is_null()) {
      require("", [] { throw SyncError("it has no functions.json"); });
    } else {
      require("", [&] { static_cast<void>(_validate_functions_file(*neighbours_, folder_, manifest_)); });
    }
  }

  void examine_index() {
    std::optional<std::string> path;
    require("", [&] {
      path = _manifest_signals_index_path(manifest_);
      if (path) _validate_signals_index_bytes(read_file(_manifest_local_path(folder_, *path)), manifest_);
    });
    if (!path) return;
    NamedFiles unlisted, without_pnl;
    const Manifest::Sections sections = manifest_.sections();
    examine_section("found_signals", sections.found_signals, unlisted, without_pnl);
    examine_section("found_strategies", sections.found_strategies, unlisted, without_pnl);
    examine_section("useful_signals", sections.useful_signals, unlisted, without_pnl);
    warn("the signals index names files that clients do not get", unlisted);
    warn("the signals index has entries without a PnL artifact", without_pnl);
  }

  void examine_section(std::string_view section, const Document& entries, NamedFiles& unlisted, NamedFiles& without_pnl) const {
    for (const Member& member : entries) {
      bool has_pnl = false;
      for (const std::string& path : _membership_referenced_files(Value(Document{{member.key, member.value}}))) {
        const Value entry = manifest_.file(path);
        if (entry.is_null()) unlisted.add(path);
        has_pnl = has_pnl || (_found_pnl_section_for_path(path) == section && _is_manifest_found_pnl_file(path, entry));
      }
      if (!has_pnl) without_pnl.add(fmt::format("{} {}", section, member.key.view()));
    }
  }

  const std::shared_ptr<NeighbourSet> neighbours_;
  const std::string& folder_;
  const Document& stated_;
  Manifest manifest_;  // as a client reads it
  std::vector<std::string> warnings_;
};

}  // namespace

std::optional<std::string> base_url_objection(std::string_view base_url) {
  if (base_url.empty()) return std::nullopt;
  try {
    static_cast<void>(_manifest_file_url(TransportSecurity::builtin(), {}, "file", base_url));
  } catch (const Error& error) {
    return error.text();
  }
  if (base_url.find('#') == std::string_view::npos) return std::nullopt;
  return "the path of a file would become part of its fragment, which no server is sent";
}

std::vector<std::string> examine(const Document& manifest, const std::string& folder) { return Examination(manifest, folder).run(); }

NamedFiles kept_by_clients(const Document& before, const Document& files) {
  const std::shared_ptr<NeighbourSet> neighbours = Neighbours::builtin().bind();
  NamedFiles kept;
  for (const Member& member : files) {
    const Document* entry = member.value.if_document();
    const Document* promised = before.get(member.key).if_document();
    if (entry != nullptr && promised != nullptr && keeps_other_bytes(*neighbours, member.key, *entry, *promised)) kept.add(member.key);
  }
  return kept;
}

}  // namespace brackenfen::sync::distribution
