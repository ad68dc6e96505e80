// Answers for JSON documents what this library makes of them, so that another implementation can be compared
// with it document by document.
//
// A request on standard input is one field: four bytes of length, little-endian, and that many bytes of JSON.
// An answer on standard output is a count of fields in one byte and the fields in the same form:
//   the error's class and text, or
//   "ok", the three written forms, str(), repr(), and what int() and float() make of the value.
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "sync/base/convert.hpp"
#include "sync/base/error.hpp"
#include "sync/base/json.hpp"

namespace {

using namespace brackenfen::sync;

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

std::string text_or_error(const std::function<std::string()>& text) {
  try {
    return text();
  } catch (const Error& error) {
    return std::string(error.error_class().name()) + ": " + error.text();
  }
}

std::vector<std::string> answer(const std::string& document) {
  try {
    const Value value = parse_json(document);
    return {"ok",
            write_json(value, JsonForm::InsertionOrder),
            write_json(value, JsonForm::SortedKeys),
            write_json(value, JsonForm::Canonical),
            to_text(value),
            to_quoted(value),
            text_or_error([&] { return to_text(to_integer(value)); }),
            text_or_error([&] { return real_text(to_real(value)); })};
  } catch (const Error& error) {
    return {std::string(error.error_class().name()), error.text()};
  }
}

}  // namespace

int main() {
  std::string document;
  while (read_field(document)) {
    const std::vector<std::string> fields = answer(document);
    std::fputc(static_cast<int>(fields.size()), stdout);
    for (const std::string& field : fields) write_field(field);
    std::fflush(stdout);
  }
  return 0;
}
