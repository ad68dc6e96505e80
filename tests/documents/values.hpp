// What the tests of documents and local files share: documents from JSON, and the text of an expected error.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "sync/base/error.hpp"
#include "sync/base/json.hpp"
#include "sync/base/value.hpp"

namespace brackenfen::sync {

inline Document document(std::string_view json) { return *parse_json(json).if_document(); }

inline std::string json_of(const Value& value) { return write_json(value, JsonForm::InsertionOrder); }

/// The text of the error that `body` ends with, which must be of `expected`.
template <typename Body>
std::string error_text(const ErrorClass& expected, Body body) {
  try {
    static_cast<void>(body());
  } catch (const Error& error) {
    EXPECT_TRUE(error.is(expected)) << error.error_class().name() << ": " << error.text();
    return error.text();
  }
  ADD_FAILURE() << "no " << expected.name();
  return {};
}

}  // namespace brackenfen::sync
