// Answers what this library makes of arguments in JSON, so that it can be compared with plain rules, input by input.
//
// A line of standard input is the name of an operation, a blank and the bytes of its argument in hexadecimal. The line of standard
// output that answers it is JSON: what the operation gives, or the text "Class: message" of an error.
#include <fcntl.h>

#include <cstdio>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "sync/base/files/descriptor.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/text/text.hpp"
#include "sync/base/text/url.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/base/values/json.hpp"
#include "sync/documents/feature_paths.hpp"
#include "sync/documents/manifest.hpp"
#include "sync/documents/manifest_filters.hpp"
#include "sync/documents/manifest_paths.hpp"
#include "sync/neighbours/rotation_settings.hpp"
#include "sync/neighbours/transport_security.hpp"
#include "sync/rotation/planning.hpp"
#include "sync/rotation/state_file.hpp"
#include "tests/support/failures.hpp"

namespace {

using namespace brackenfen::sync;

std::string text_of(const Value& value) { return std::string(value.if_text().value()); }

template <typename Optional>
Value or_null(const Optional& value) {
  return value ? Value(*value) : Value();
}

Value list_of(const std::vector<std::string>& texts) { return List(std::vector<Value>(texts.begin(), texts.end())); }

template <typename Operation>
Value or_failure(const Operation& operation) {
  Value given;
  const std::string failure = failure_of([&] { return given = operation(); });
  return failure.empty() ? given : Value(failure);
}

std::string unhex(std::string_view digits) {
  std::string bytes;
  const auto value = [](char digit) { return digit <= '9' ? digit - '0' : digit - 'a' + 10; };
  for (std::size_t at = 0; at + 1 < digits.size(); at += 2) bytes += static_cast<char>(value(digits[at]) * 16 + value(digits[at + 1]));
  return bytes;
}

Value every_form(const Value& value) {
  return List{write_json(value, JsonForm::InsertionOrder),
              write_json(value, JsonForm::SortedKeys),
              write_json(value, JsonForm::Canonical),
              to_text(value),
              to_quoted(value),
              value.truthy(),
              or_failure([&]() -> Value { return to_text(to_integer(value)); }),
              or_failure([&]() -> Value { return real_text(to_real(value)); })};
}

Value comparison(const Value& pair) {
  const Value &left = (*pair.if_list())[0], &right = (*pair.if_list())[1];
  return List{left == right, left.is_integer() && right.is_integer() ? Value(compare_integers(left, right) < 0) : Value()};
}

/// How the operating system's paths are handled: of two texts.
Value system_paths(const Value& pair) {
  const std::string left = text_of((*pair.if_list())[0]), right = text_of((*pair.if_list())[1]);
  return List{strip(left), join_path(left, right), directory_of(left), absolute_path(left), real_path(left), expand_user(left)};
}

/// Of a data directory and a path of a manifest.
Value manifest_path(const Value& pair) {
  const Value &directory = (*pair.if_list())[0], &path = (*pair.if_list())[1];
  return List{or_failure([&]() -> Value { return _safe_manifest_relative_path(path); }),
              or_failure([&]() -> Value { return _manifest_local_path(text_of(directory), path); })};
}

/// Of a URL, a server's URL, a path and the base URL of a manifest.
Value url(const Value& arguments) {
  const Value& base = (*arguments.if_list())[3];
  const std::string address = text_of((*arguments.if_list())[0]), server = text_of((*arguments.if_list())[1]);
  const TransportSecurity& security = TransportSecurity::builtin();
  return List{or_failure([&]() -> Value {
                const UrlParts parts = split_url(address);
                return List{parts.scheme,
                            parts.network_location,
                            parts.path,
                            parts.query,
                            parts.fragment,
                            parts.host(),
                            parts.has_user_information(),
                            or_failure([&]() -> Value { return or_null(parts.port()); })};
              }),
              or_failure([&]() -> Value { return security.validate_bearer_transport_url(address), Value(); }),
              or_failure([&]() -> Value { return _manifest_file_url(security, server, (*arguments.if_list())[2], base); }),
              _manifest_base_url_uses_public_download(server, base), same_origin(address, server)};
}

/// Of the files of a manifest, a list of names, an expression type, a universe, a path and a prefix.
Value groups(const Value& arguments) {
  const List& given = *arguments.if_list();
  const EraConfig& epochs = EraConfig::builtin();
  std::vector<std::string> names;
  for (const Value& name : *given[1].if_list()) names.push_back(text_of(name));
  return List{or_null(_manifest_feature_relative_path(epochs, given[0], given[4], given[2], given[3])),
              or_null(_feature_artifact_family_prefix(given[4])), list_of(_manifest_feature_companion_relative_paths(given[0], given[4])),
              list_of(feature_prefetch_relative_paths(epochs, given[0], names, given[2], given[3])),
              or_null(_agent_signal_group_key(epochs, given[4], text_of(given[5])))};
}

Value manifest(const Value& data) {
  NeighbourSet& neighbours = *Neighbours::builtin().bind();
  const Document cleaned = _sanitize_manifest_data_for_sync(neighbours, data);
  std::vector<Value> rows;
  if (const Document* files = data.if_document()->get("files").if_document()) {
    for (const auto& [path, entry] : *files) {
      rows.push_back(List{_rotation_file_is_platform_excluded(neighbours, entry), _manifest_file_is_sync_excluded(neighbours, entry),
                          or_null(_retired_unsupported_runtime_module_name_from_path(path))});
    }
  }
  const Value files = data.if_document()->get("files");
  return List{cleaned,
              cleaned.same_as(*data.if_document()),
              _sanitize_manifest_data_for_sync(neighbours, cleaned).same_as(cleaned),
              _manifest_has_agent_bundle_declarations(files),
              _manifest_has_retired_found_pnl_long_files(files),
              List(std::move(rows))};
}

/// Of a directory, the bytes of the settings that it shall hold, a catalogue's context and a stored seed.
Value rotation(const Value& arguments) {
  const List& given = *arguments.if_list();
  const std::string path = join_path(text_of(given[0]), FEATURE_ROTATION_SETTINGS_FILENAME);
  std::remove(path.c_str());  // a file system may flush one that is emptied instead
  write_all(open_file(path, O_CREAT | O_WRONLY), unhex(text_of(given[1])), path);
  const RotationSettings& neighbour = RotationSettings::builtin();
  const LoadedRotationSettings settings = neighbour.load_rotation_settings(text_of(given[0]), *given[2].if_document(), given[3]);
  const Value dumped = neighbour.model_dump(settings);
  return List{dumped, _rotation_feature_budget_bytes(settings.feature_budget_gb), or_null(_rotation_frequency_seconds(dumped))};
}

const std::map<std::string, Value (*)(const Value&)> OPERATIONS{
    {"json", every_form}, {"compare", comparison}, {"system", system_paths}, {"path", manifest_path},
    {"url", url},         {"groups", groups},      {"manifest", manifest},   {"rotation", rotation},
};

}  // namespace

int main() {
  for (std::string operation, argument; std::cin >> operation;) {
    std::getline(std::cin.ignore(), argument);
    const Value answer = or_failure([&] { return OPERATIONS.at(operation)(parse_json(unhex(argument))); });
    std::cout << write_json(answer, JsonForm::InsertionOrder) << std::endl;
  }
}
