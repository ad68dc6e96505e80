#include "sync/rotation/state_file.hpp"

#include <cmath>
#include <ctime>
#include <utility>

#include "sync/base/error.hpp"
#include "sync/base/files/descriptor.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/text/text.hpp"
#include "sync/base/threads/interrupt.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/base/values/json.hpp"
#include "sync/documents/local_files.hpp"
#include "sync/documents/manifest_filters.hpp"

namespace brackenfen::sync {
namespace {

constexpr std::int64_t SECONDS_PER_WEEK = 604800;
constexpr std::int64_t SECONDS_PER_HOUR = 60 * 60;
constexpr std::size_t PATHS_PER_INTERRUPT_CHECK = 1024;

std::string utc_text(double seconds) {
  const auto whole = static_cast<std::time_t>(std::floor(seconds));
  std::tm fields{};
  if (::gmtime_r(&whole, &fields) == nullptr) throw OverflowError("the time of the next rotation is out of range");
  char text[64];
  return {text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &fields)};
}

}  // namespace

std::string feature_rotation_state_path(std::string_view data_dir) { return join_path(data_dir, FEATURE_ROTATION_STATE_FILENAME); }

RotationStateRef load_feature_rotation_state(NeighbourSet& neighbours, std::string_view data_dir) {
  const std::string path = feature_rotation_state_path(data_dir);
  return feature_rotation_state_in(neighbours, ParsedFile::read(path), path);
}

RotationStateRef feature_rotation_state_in(NeighbourSet& neighbours, const ParsedFile& file, const std::string& path) {
  if (!file.exists()) return nullptr;
  Value payload;
  try {
    payload = file.value();
  } catch (const Error& error) {
    throw FeatureRotationStateError("invalid feature rotation state at " + path + ": " + error.text());
  }
  const ArtifactRotation& rotation = neighbours.artifact_rotation();
  try {
    return rotation.rotation_state_from_payload(payload, path, FEATURE_ROTATION_STATE_VERSION);
  } catch (const Error& error) {
    if (!error.is(rotation.rotation_state_payload_error_class())) throw;
    throw FeatureRotationStateError(error.text());
  }
}

std::string rotation_state_document(NeighbourSet& neighbours, const RotationStateRef& state) {
  const ArtifactRotation& rotation = neighbours.artifact_rotation();
  Value payload;
  try {
    payload = rotation.rotation_state_payload(state, FEATURE_ROTATION_STATE_VERSION);
  } catch (const Error& error) {
    if (!error.is(rotation.rotation_state_payload_error_class())) throw;
    throw FeatureRotationStateError(error.text());
  }
  return write_json(payload, JsonForm::Canonical);
}

std::string write_feature_rotation_state(NeighbourSet& neighbours, Files& files, Clock& clock, std::string_view data_dir,
                                         const RotationStateRef& state) {
  std::string path = feature_rotation_state_path(data_dir);
  _atomic_write(files, clock, path, rotation_state_document(neighbours, state), Flush::Yes);
  return path;
}

RotationStateRef _drop_retired_unsupported_runtime_paths_from_state(const RotationStateRef& state, const Value& files) {
  if (!state) return nullptr;
  const Document* entries = files.if_document();
  const TextList paths = state->active_relative_paths();
  TextList kept = kept_of(paths, [&](const Text& path) {
    return !_is_retired_unsupported_runtime_module_path(path) || (entries != nullptr && entries->contains(path));
  });
  return kept.size() == paths.size() ? state : state->with_active_relative_paths(std::move(kept));
}

std::optional<std::int64_t> _rotation_frequency_seconds(const Value& settings_payload) {
  const Document* settings = settings_payload.if_document();
  if (settings == nullptr) return std::nullopt;
  const std::string text = text_or_empty(settings->get("rotation_frequency"));
  std::string_view raw = strip(text);
  if (raw == "weekly") return SECONDS_PER_WEEK;
  if (raw.size() < 3 || !raw.starts_with("PT") || !raw.ends_with("H")) return std::nullopt;
  raw.remove_prefix(2);
  raw.remove_suffix(1);
  const std::optional<Value> hours = to_integer_or_absent(Value(raw));
  const std::optional<std::int64_t> count = hours ? hours->if_integer() : std::nullopt;
  std::int64_t seconds = 0;
  if (!count || *count <= 0 || __builtin_mul_overflow(*count, SECONDS_PER_HOUR, &seconds)) return std::nullopt;
  return seconds;
}

std::optional<NextRotation> _rotation_next_at(Files& files, Clock& clock, std::string_view data_dir, const Value& settings_payload) {
  const std::optional<std::int64_t> frequency = _rotation_frequency_seconds(settings_payload);
  if (!frequency) return std::nullopt;
  const std::optional<FileStat> stat = files.stat(feature_rotation_state_path(data_dir));
  if (!stat) return std::nullopt;
  const double next = static_cast<double>(stat->mtime_ns) * 1e-9 + static_cast<double>(*frequency);
  return NextRotation{utc_text(next), clock.wall_seconds() >= next};
}

bool _rotation_is_due(Files& files, Clock& clock, std::string_view data_dir, const Value& settings_payload,
                      const RotationStateRef& active_state) {
  if (!active_state) return true;
  const std::optional<NextRotation> next = _rotation_next_at(files, clock, data_dir, settings_payload);
  return next && next->due;
}

std::vector<Text> _existing_rotation_paths(std::string_view data_dir, const std::vector<Text>& relative_paths) {
  std::vector<Text> existing;
  LocalFiles local_files(data_dir);
  std::size_t seen = 0;
  for (const Text& path : relative_paths) {
    if (++seen % PATHS_PER_INTERRUPT_CHECK == 0) check_interrupt();
    if (local_files.stat(path)) existing.push_back(path);
  }
  return existing;
}

Value _manifest_era_id_or_none(const Value& era_number) { return to_integer_or_absent(era_number).value_or(Value()); }

}  // namespace brackenfen::sync
