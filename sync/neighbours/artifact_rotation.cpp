#include "sync/neighbours/artifact_rotation.hpp"

#include "sync/base/convert.hpp"

namespace brackenfen::sync {
namespace {

constexpr std::string_view VOCABULARY_ROOT = "named_universes/";
constexpr std::string_view VOCABULARY_NAME = "/vocabulary.json";

class BuiltinArtifactRotation final : public ArtifactRotation {
 public:
  std::string manifest_file_kind(const Value& file_info) const override {
    const Document* entry = file_info.if_document();
    const Value* kind = entry == nullptr ? nullptr : entry->find("kind");
    if (kind == nullptr || kind->is_null()) return {};
    if (const std::optional<std::string_view> text = kind->if_text()) return std::string(*text);
    return to_text(*kind);
  }

  std::optional<std::string> vocabulary_named_universe_from_path(std::string_view relative_path) const override {
    if (!relative_path.ends_with(VOCABULARY_NAME) || !relative_path.starts_with(VOCABULARY_ROOT)) return std::nullopt;
    if (relative_path.size() <= VOCABULARY_ROOT.size() + VOCABULARY_NAME.size()) return std::nullopt;
    relative_path.remove_prefix(VOCABULARY_ROOT.size());
    relative_path.remove_suffix(VOCABULARY_NAME.size());
    if (relative_path.find('/') != std::string_view::npos) return std::nullopt;
    return std::string(relative_path);
  }
};

}  // namespace

const ArtifactRotation& ArtifactRotation::builtin() {
  static const ArtifactRotation& rotation = *new BuiltinArtifactRotation;
  return rotation;
}

}  // namespace brackenfen::sync
