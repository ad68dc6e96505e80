// Answers what this library makes of arguments in JSON, so that it can be compared with Python case by case.
//
// A request on standard input is two fields, the name of an operation and its argument: four bytes of length,
// little-endian, and that many bytes. An answer on standard output is a count of fields in one byte and the fields in
// the same form: what the operation gives, or one field "Class: text" for an error.
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "sync/base/files/paths.hpp"
#include "sync/base/text/text.hpp"
#include "sync/base/text/url.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/base/values/json.hpp"
#include "tests/support/failures.hpp"

namespace {

using namespace brackenfen::sync;
using Fields = std::vector<std::string>;

bool read_exactly(void* buffer, std::size_t size) { return std::fread(buffer, 1, size, stdin) == size; }

bool read_field(std::string& field) {
  unsigned char length[4];
  if (!read_exactly(length, sizeof length)) return false;
  std::size_t size = 0;
  for (int i = 3; i >= 0; --i) size = size << 8U | length[i];
  field.resize(size);
  return read_exactly(field.data(), size);
}

void write_field(const std::string& field) {
  for (unsigned shift = 0; shift < 32; shift += 8) std::fputc(static_cast<int>(field.size() >> shift & 0xFFU), stdout);
  std::fwrite(field.data(), 1, field.size(), stdout);
}

template <typename Text>
std::string text_or_error(const Text& text) {
  std::string made;
  const std::string failure = failure_of([&] { return made = text(); });
  return failure.empty() ? made : failure;
}

Fields every_form(const Value& value) {
  return {write_json(value, JsonForm::InsertionOrder),
          write_json(value, JsonForm::SortedKeys),
          write_json(value, JsonForm::Canonical),
          to_text(value),
          to_quoted(value),
          to_text(value.truthy()),
          text_or_error([&] { return to_text(to_integer(value)); }),
          text_or_error([&] { return real_text(to_real(value)); })};
}

/// Of two values; the order of two integers as well.
Fields comparison(const Value& pair) {
  const Value &left = (*pair.if_list())[0], &right = (*pair.if_list())[1];
  const auto is_integer = [](const Value& value) { return value.if_integer() || value.if_big_integer(); };
  const bool ordered = is_integer(left) && is_integer(right);
  return {to_text(left == right), ordered ? to_text(compare_integers(left, right) < 0) : ""};
}

Fields url_parts(const Value& text) {
  const UrlParts parts = split_url(*text.if_text());
  return {parts.scheme,
          parts.network_location,
          parts.path,
          parts.query,
          parts.fragment,
          parts.host(),
          to_text(parts.has_user_information()),
          text_or_error([&] { return parts.port() ? std::to_string(*parts.port()) : "None"; })};
}

Fields paths(const Value& pair) {
  const std::string_view left = *(*pair.if_list())[0].if_text(), right = *(*pair.if_list())[1].if_text();
  return {join_path(left, right), directory_of(left), absolute_path(left), real_path(left), expand_user(left)};
}

const std::map<std::string, Fields (*)(const Value&)> OPERATIONS{
    {"forms", every_form},
    {"compare", comparison},
    {"strip", [](const Value& text) { return Fields{std::string(strip(*text.if_text()))}; }},
    {"url", url_parts},
    {"paths", paths},
};

}  // namespace

int main() {
  std::string operation, argument;
  while (read_field(operation) && read_field(argument)) {
    Fields fields;
    const std::string failure = failure_of([&] { return fields = OPERATIONS.at(operation)(parse_json(argument)); });
    if (!failure.empty()) fields = {failure};
    std::fputc(static_cast<int>(fields.size()), stdout);
    for (const std::string& field : fields) write_field(field);
    std::fflush(stdout);
  }
  return 0;
}
