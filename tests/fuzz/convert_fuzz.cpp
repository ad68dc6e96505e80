// Conversions either refuse with the promised errors or come back to the same value.
#include "sync/base/convert.hpp"

#include <bit>
#include <string>

#include "sync/base/text.hpp"
#include "sync/base/url.hpp"
#include "tests/fuzz/fuzz.hpp"

namespace fuzz = brackenfen::sync::fuzz;
using namespace brackenfen::sync;

namespace {

void check_numbers(std::string_view text) {
  const auto integer = fuzz::unless_refused([&] { return to_integer(Value(text)); }, error_class::ValueError);
  if (integer) {
    fuzz::require(to_integer(Value(to_text(*integer))) == *integer, "an integer's text converts to the integer");
    fuzz::require(
        compare_integers(*integer, *integer) == 0 && compare_integers(*integer, Value(0)) == -compare_integers(Value(0), *integer),
        "integers compare both ways alike");
  }
  if (const auto number = parse_real(text)) {
    const auto again = parse_real(real_text(*number));
    fuzz::require(again && (*number != *number || std::bit_cast<std::uint64_t>(*again) == std::bit_cast<std::uint64_t>(*number)),
                  "a float's text reads back to the same bits");
  }
}

void check_text(std::string_view text) {
  fuzz::require(strip(strip(text)) == strip(text), "nothing is left to strip");
  const bool refused = !fuzz::unless_refused([&] { return require_utf8(text), true; }, error_class::UnicodeDecodeError);
  fuzz::require(refused == (find_invalid_utf8(text) != std::string_view::npos), "both UTF-8 checks agree");
  std::size_t offset = 0;
  while (offset < text.size()) {
    const CodePoint point = code_point_at(text, offset);
    fuzz::require(point.size > 0 && point.size <= text.size() - offset, "a character lies inside the text");
    offset += point.size;
  }
  if (!refused) {
    const std::string quoted = to_quoted(text);
    fuzz::require(quoted.size() >= 2 && quoted.front() == quoted.back() && find_invalid_utf8(quoted) == std::string::npos,
                  "a quoted text is enclosed and valid");
  }
}

void check_url(std::string_view text) {
  const auto parts = fuzz::unless_refused([&] { return split_url(text); }, error_class::ValueError);
  if (!parts) return;
  (void)parts->host();
  const auto port = fuzz::unless_refused([&] { return parts->port(); }, error_class::ValueError);
  if (port && *port) fuzz::require(**port >= 0 && **port <= 65535, "a port is in range");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text = fuzz::text_of(data, size);
  check_numbers(text);
  check_text(text);
  check_url(text);
  return 0;
}
