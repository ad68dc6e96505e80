// What the tests of documents and local files share: documents from JSON and back.
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

}  // namespace brackenfen::sync
