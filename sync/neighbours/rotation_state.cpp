#include "sync/neighbours/rotation_state.hpp"

#include <utility>

#include "sync/base/convert.hpp"
#include "sync/base/text.hpp"

namespace brackenfen::sync {
namespace {

[[noreturn]] void refuse(const std::string& source, const std::string& what) {
  throw Error(error_class::RotationStatePayloadError, "invalid feature rotation state at " + source + ": " + what);
}

bool is_integer(const Value& value) { return value.kind() == Value::Kind::Integer || value.kind() == Value::Kind::BigInteger; }

/// A path that could lead out of the directory, whoever wrote it there.
bool climbs(std::string_view path) {
  if (strip(path).empty() || path.starts_with('/') || path.find('\0') != std::string_view::npos) return true;
  const std::string forward = replace_char(path, '\\', '/');
  for (const std::string_view segment : split(forward, "/")) {
    if (strip(segment) == "..") return true;
  }
  return false;
}

/// Member `key` of the payload, which must pass `test`.
template <typename Test>
const Value& member(const Document& payload, const char* key, const std::string& source, const char* expected, Test test) {
  const Value* found = payload.find(key);
  if (found == nullptr) refuse(source, std::string(key) + " is missing");
  if (!test(*found)) refuse(source, std::string(key) + " must be " + expected + ", not " + std::string(type_name(*found)));
  return *found;
}

std::vector<Text> paths_of(const List& list, const std::string& source) {
  std::vector<Text> paths;
  paths.reserve(list.size());
  for (const Value& element : list) {
    const std::string where = "active_relative_paths[" + std::to_string(paths.size()) + "]";
    const std::optional<std::string_view> path = element.if_text();
    if (!path) refuse(source, where + " must be a text, not " + std::string(type_name(element)));
    if (climbs(*path)) refuse(source, where + " is no path inside the directory: " + to_quoted(*path));
    paths.emplace_back(*path);
  }
  return paths;
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

RotationStateRef BuiltinRotationState::with_active_relative_paths(std::vector<Text> paths) const {
  auto copy = std::make_shared<BuiltinRotationState>();
  copy->active_paths = std::move(paths);
  copy->generation_number = generation_number;
  copy->seed_number = seed_number;
  copy->generator = generator;
  copy->rotated_at = rotated_at;
  return copy;
}

Document builtin_rotation_state_payload(const RotationState& state, int schema_version) {
  const std::vector<Text> paths = state.active_relative_paths();
  const auto* builtin = dynamic_cast<const BuiltinRotationState*>(&state);
  return Document{{"schema_version", schema_version}, {"active_relative_paths", List(std::vector<Value>(paths.begin(), paths.end()))},
                  {"generation", state.generation()}, {"seed", state.seed()},
                  {"rng_state", state.rng_state()},   {"rotated_at", builtin == nullptr ? Value() : builtin->rotated_at}};
}

RotationStateRef builtin_rotation_state_from_payload(const Value& payload, const std::string& source, int schema_version) {
  const Document* members = payload.if_document();
  if (members == nullptr) refuse(source, "it must be a JSON object, not " + std::string(type_name(payload)));
  const Value& version = member(*members, "schema_version", source, "an integer", is_integer);
  if (version != Value(schema_version)) refuse(source, "schema_version " + to_text(version) + " is not " + std::to_string(schema_version));

  auto state = std::make_shared<BuiltinRotationState>();
  const auto is_list = [](const Value& value) { return value.is_list(); };
  state->active_paths = paths_of(*member(*members, "active_relative_paths", source, "a list", is_list).if_list(), source);
  state->generation_number = member(*members, "generation", source, "an integer", is_integer);
  state->seed_number = member(*members, "seed", source, "an integer", is_integer);
  const auto is_text = [](const Value& value) { return value.is_text(); };
  state->generator = *member(*members, "rng_state", source, "a text", is_text).if_text();
  if (const Value& rotated_at = members->get("rotated_at"); !rotated_at.is_null()) {
    state->rotated_at = member(*members, "rotated_at", source, "an integer or null", is_integer);
  }
  return state;
}

}  // namespace brackenfen::sync
