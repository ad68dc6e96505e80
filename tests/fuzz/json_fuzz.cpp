// Any bytes either parse or are refused with the promised errors, and what was parsed survives every form.
#include "sync/base/json.hpp"

#include <string>

#include "tests/fuzz/fuzz.hpp"

namespace fuzz = brackenfen::sync::fuzz;
using namespace brackenfen::sync;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto parsed = fuzz::unless_refused([&] { return parse_json(fuzz::text_of(data, size)); }, error_class::JSONDecodeError,
                                           error_class::UnicodeDecodeError);
  if (!parsed) return 0;

  const std::string canonical = write_json(*parsed, JsonForm::Canonical);
  for (const JsonForm form : {JsonForm::InsertionOrder, JsonForm::SortedKeys, JsonForm::Canonical}) {
    const std::string written = write_json(*parsed, form);
    const Value again = parse_json(written);
    fuzz::require(write_json(again, form) == written, "writing what was read back gives the same bytes");
    fuzz::require(write_json(again, JsonForm::Canonical) == canonical, "every form holds the same value");
  }
  return 0;
}
