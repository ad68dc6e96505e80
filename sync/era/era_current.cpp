#include "sync/era/era_current.hpp"

#include <optional>

#include "sync/base/error.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/base/values/json.hpp"

namespace brackenfen::sync {
namespace {

bool is_number(const Value& value) {
  switch (value.kind()) {
    case Value::Kind::Boolean:
    case Value::Kind::Integer:
    case Value::Kind::BigInteger:
    case Value::Kind::Real:
      return true;
    default:
      return false;
  }
}

}  // namespace

Document _normalize_era_current_response(const Value& data) {
  const Document* answer = data.if_document();
  if (!answer) return {};
  const Value* era = answer->find("era");
  if (!era) return *answer;
  const Value* state = answer->find("state");
  if (const Document* wrapped = era->if_document()) {
    if (wrapped->contains("state") || !state || state->is_null()) return *wrapped;
    return wrapped->with("state", *state);
  }
  return Document{{"era_number", nullptr}, {"state", state ? *state : Value("between_eras")}};
}

Document parse_era_current(std::string_view body) { return _normalize_era_current_response(parse_json(body)); }

bool era_is_later(const Value& left, const Value& right) {
  if (left.is_text() && right.is_text()) return *left.if_text() > *right.if_text();
  if (!is_number(left) || !is_number(right)) {
    throw TypeError("'>' not supported between instances of '" + std::string(type_name(left)) + "' and '" + std::string(type_name(right)) +
                    "'");
  }
  if (left.if_real() || right.if_real()) return to_real(left) > to_real(right);
  return compare_integers(to_integer(left), to_integer(right)) > 0;
}

}  // namespace brackenfen::sync
