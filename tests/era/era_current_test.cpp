#include <gtest/gtest.h>

#include "sync/era/era_current.hpp"
#include "tests/documents/values.hpp"

namespace brackenfen::sync {
namespace {

TEST(EraCurrent, isReadInEitherShape) {
  const std::pair<const char*, const char*> rows[] = {
      {R"({"era_number": 5, "state": "closing", "more": 1})", R"({"era_number": 5, "state": "closing", "more": 1})"},
      {R"({"era": {"era_number": 5}, "state": "closing", "more": 1})", R"({"era_number": 5, "state": "closing"})"},
      {R"({"era": {"era_number": 5, "state": "active"}, "state": "closing"})", R"({"era_number": 5, "state": "active"})"},
      {R"({"era": {"era_number": 5, "state": null}, "state": "closing"})", R"({"era_number": 5, "state": null})"},
      {R"({"era": {"era_number": 5}, "state": null})", R"({"era_number": 5})"},
      {R"({"era": {"era_number": 5}})", R"({"era_number": 5})"},
      {R"({"era": null})", R"({"era_number": null, "state": "between_eras"})"},
      {R"({"era": null, "state": "closing"})", R"({"era_number": null, "state": "closing"})"},
      {R"({"era": null, "state": null})", R"({"era_number": null, "state": null})"},
      {R"({"era": [5]})", R"({"era_number": null, "state": "between_eras"})"},
      {"[]", "{}"},
      {"7", "{}"},
  };
  for (const auto& [body, flat] : rows) EXPECT_EQ(json_of(parse_era_current(body)), flat) << body;
  const Document flat{{"era_number", 5}};
  EXPECT_TRUE(_normalize_era_current_response(Value(flat)).same_as(flat));
}

TEST(EraCurrent, erasHaveTheOrderOfNumbers) {
  const Value huge = Value::integer_from_decimal("99999999999999999999");
  EXPECT_TRUE(era_is_later(8, 7) && era_is_later(huge, 8) && era_is_later(7.5, 7) && era_is_later("b", "a") && era_is_later(true, 0));
  EXPECT_FALSE(era_is_later(7, 7) || era_is_later(7, huge) || era_is_later(7, 7.5));
}

}  // namespace
}  // namespace brackenfen::sync
