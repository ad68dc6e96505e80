#include "sync/neighbours/rotation_state.hpp"

#include <utility>

#include "sync/base/files/paths.hpp"
#include "sync/base/text/text.hpp"
#include "sync/base/values/convert.hpp"

namespace brackenfen::sync {
namespace {

[[noreturn]] void refuse(const std::string& subject, const std::string& what) {
  throw Error(error_class::RotationStatePayloadError, subject + ": " + what);
}

/// Member `key` of the payload, which must pass `test`.
template <typename Test>
const Value& member(const Document& payload, const char* key, const std::string& subject, const char* expected, Test test) {
  const Value* found = payload.find(key);
  if (found == nullptr) refuse(subject, std::string(key) + " is missing");
  if (!test(*found)) refuse(subject, std::string(key) + " must be " + expected + ", not " + std::string(type_name(*found)));
  return *found;
}

/// Refuses what is no state of that version, in the name of `subject`.
void check_payload(const Document& payload, const std::string& subject, int schema_version) {
  const auto is_integer = [](const Value& value) { return value.is_integer(); };
  const Value& version = member(payload, "schema_version", subject, "an integer", is_integer);
  if (version != Value(schema_version)) refuse(subject, "schema_version " + to_text(version) + " is not " + std::to_string(schema_version));
  const auto is_list = [](const Value& value) { return value.is_list(); };
  std::size_t index = 0;
  for (const Value& element : *member(payload, "active_relative_paths", subject, "a list", is_list).if_list()) {
    const std::optional<std::string_view> path = element.if_text();
    if (path && !fault_of_relative_path(*path)) {
      ++index;
      continue;
    }
    const std::string where = "active_relative_paths[" + std::to_string(index) + "]";
    if (!path) refuse(subject, where + " must be a text, not " + std::string(type_name(element)));
    refuse(subject, where + " is no path inside the directory: " + to_quoted(*path));
  }
  member(payload, "generation", subject, "an integer", is_integer);
  member(payload, "seed", subject, "an integer", is_integer);
  member(payload, "rng_state", subject, "a text", [](const Value& value) { return value.is_text(); });
  if (!payload.get("rotated_at").is_null()) member(payload, "rotated_at", subject, "an integer or null", is_integer);
}

}  // namespace

bool equal_states(const RotationStateRef& left, const RotationStateRef& right) {
  if (left == nullptr || right == nullptr) return left == right;
  return left == right || left->equals(*right);
}

bool BuiltinRotationState::equals(const RotationState& other) const {
  const auto* same_kind = dynamic_cast<const BuiltinRotationState*>(&other);
  return same_kind != nullptr && generation_number == same_kind->generation_number && seed_number == same_kind->seed_number &&
         generator == same_kind->generator && rotated_at == same_kind->rotated_at && active_paths == same_kind->active_paths;
}

RotationStateRef BuiltinRotationState::with_active_relative_paths(TextList paths) const {
  auto copy = std::make_shared<BuiltinRotationState>();
  copy->active_paths = std::move(paths);
  copy->generation_number = generation_number;
  copy->seed_number = seed_number;
  copy->generator = generator;
  copy->rotated_at = rotated_at;
  return copy;
}

Document builtin_rotation_state_payload(const RotationState& state, int schema_version) {
  const TextList paths = state.active_relative_paths();
  const auto* builtin = dynamic_cast<const BuiltinRotationState*>(&state);
  Document payload{{"schema_version", schema_version}, {"active_relative_paths", List(std::vector<Value>(paths.begin(), paths.end()))},
                   {"generation", state.generation()}, {"seed", state.seed()},
                   {"rng_state", state.rng_state()},   {"rotated_at", builtin == nullptr ? Value() : builtin->rotated_at}};
  check_payload(payload, "feature rotation state cannot be written", schema_version);
  return payload;
}

RotationStateRef builtin_rotation_state_from_payload(const Value& payload, const std::string& source, int schema_version) {
  const std::string subject = "invalid feature rotation state at " + source;
  const Document* members = payload.if_document();
  if (members == nullptr) refuse(subject, "it must be a JSON object, not " + std::string(type_name(payload)));
  check_payload(*members, subject, schema_version);

  auto state = std::make_shared<BuiltinRotationState>();
  const List& paths = *members->get("active_relative_paths").if_list();
  std::vector<Text> active_paths;
  active_paths.reserve(paths.size());
  for (const Value& path : paths) active_paths.push_back(*path.if_shared_text());
  state->active_paths = std::move(active_paths);
  state->generation_number = members->get("generation");
  state->seed_number = members->get("seed");
  state->generator = *members->get("rng_state").if_text();
  state->rotated_at = members->get("rotated_at");
  return state;
}

}  // namespace brackenfen::sync
