// Texts of any bytes are walked, quoted and taken apart inside their bounds, or refused with the promised errors.
#include "sync/base/values/convert.hpp"

#include <string>

#include "sync/base/text/text.hpp"
#include "sync/base/text/url.hpp"
#include "tests/fuzz/fuzz.hpp"

namespace fuzz = brackenfen::sync::fuzz;
using namespace brackenfen::sync;

namespace {

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
  check_text(text);
  check_url(text);
  return 0;
}
