#include "tools/distribution/kinds.hpp"

#include <fmt/core.h>

#include <array>

#include "sync/base/text/text.hpp"
#include "sync/documents/own_files.hpp"
#include "sync/documents/signals_index.hpp"
#include "sync/neighbours/artifact_rotation.hpp"

namespace brackenfen::sync::distribution {
namespace {

constexpr std::array<std::string_view, 5> MODULE_PLATFORMS = {"linux_x86_64", "linux_aarch64", "macos_x86_64", "macos_arm64",
                                                              "windows_amd64"};
constexpr std::array<std::string_view, 2> MODULE_SUFFIXES = {".so", ".pyd"};

std::optional<std::string> module_platform(std::string_view path) {
  for (const std::string_view suffix : MODULE_SUFFIXES) {
    if (!path.ends_with(suffix)) continue;
    const std::string_view stem = path.substr(0, path.size() - suffix.size());
    for (const std::string_view platform : MODULE_PLATFORMS) {
      if (stem.size() > platform.size() && stem.ends_with(platform) && stem[stem.size() - platform.size() - 1] == '-') {
        return std::string(platform);
      }
    }
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::string> vocabulary_universe(std::string_view path) {
  return ArtifactRotation::builtin().vocabulary_named_universe_from_path(path);
}

ArtifactKind classify_artifact(std::string_view path) {
  if (path == SIGNALS_INDEX_RELATIVE_PATH) return {"signals_index", {}};
  if (path == FUNCTIONS_NAME) return {"functions", {}};
  if (vocabulary_universe(path)) return {"vocabulary", {}};
  if (const std::optional<std::string_view> kind = pnl_kind_for_path(path)) return {std::string(*kind), {}};
  if (path.starts_with("features/")) return {"feature", {}};
  if (std::optional<std::string> platform = module_platform(path)) return {"vault_module", std::move(platform)};
  return {"data", {}};
}

std::optional<std::string> path_objection(std::string_view path) {
  for (const std::string_view segment : split(path, "/")) {
    if (segment.empty() || segment == "." || segment == "..") return fmt::format("its segment '{}' is no name", segment);
  }
  for (const char character : path) {
    const auto byte = static_cast<unsigned char>(character);
    if (byte == ' ') return "it holds a blank";
    if (byte < 0x20 || byte == 0x7f) return fmt::format("it holds the control character 0x{:02x}", byte);
    if (byte > 0x7f) return "it holds a character outside ASCII";
    if (std::string_view("\\%?#").find(character) != std::string_view::npos) return fmt::format("it holds '{}'", character);
  }
  return std::nullopt;
}

bool is_private_to_clients(std::string_view path) {
  if (path.starts_with('.') || path.find("/.") != std::string_view::npos) return true;
  return path != SHUFFLE_SEED_NAME && OwnFiles("/dev/null").contains(path);  // by name alone: nothing lies there
}

}  // namespace brackenfen::sync::distribution
