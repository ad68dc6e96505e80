// What the tests of documents and local files share: documents from JSON, and the text of an expected error.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "sync/base/values/json.hpp"
#include "sync/base/values/value.hpp"
#include "tests/support/failures.hpp"

namespace brackenfen::sync {

inline Document document(std::string_view json) { return *parse_json(json).if_document(); }

inline std::string json_of(const Value& value) { return write_json(value, JsonForm::InsertionOrder); }

/// The text of the error that `body` ends with, which must be of `expected`.
template <typename Body>
std::string error_text(const ErrorClass& expected, Body body) {
  const std::optional<Error> error = error_of(body);
  EXPECT_TRUE(error && error->is(expected)) << "no " << expected.name() << " but " << failure_of(body);
  return error ? error->text() : std::string();
}

}  // namespace brackenfen::sync
