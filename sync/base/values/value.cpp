#include "sync/base/values/value.hpp"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>

#include "sync/base/values/value_nodes.hpp"

namespace brackenfen::sync {
namespace {

static_assert(sizeof(Value) == 16 && sizeof(Member) == 24);

/// The digits of a double that is a whole number, exactly.
bool equals_decimal(double real, std::string_view decimal) noexcept {
  if (!std::isfinite(real) || real != std::trunc(real)) return false;
  char digits[400];  // the largest double has 309
  const auto [end, error] = std::to_chars(digits, digits + sizeof digits, real, std::chars_format::fixed, 0);
  return error == std::errc{} && std::string_view(digits, static_cast<std::size_t>(end - digits)) == decimal;
}

bool equals_integer(double real, std::int64_t integer) noexcept {
  constexpr double LIMIT = 9223372036854775808.0;  // 2 ** 63
  return real >= -LIMIT && real < LIMIT && real == std::trunc(real) && static_cast<std::int64_t>(real) == integer;
}

}  // namespace

// Text

Text::Text(std::string_view text) {
  if (text.empty()) return;
  detail::TextNode* const node = detail::TextNode::create(text.size());
  std::memcpy(node->characters(), text.data(), text.size());
  node_ = node;
}

Text::Text(const Text& other) noexcept : node_(other.node_) {
  if (node_ != nullptr) detail::add_reference(node_->references);
}

Text& Text::operator=(const Text& other) noexcept {
  Text copy(other);
  std::swap(node_, copy.node_);
  return *this;
}

Text& Text::operator=(Text&& other) noexcept {
  Text taken(std::move(other));
  std::swap(node_, taken.node_);
  return *this;
}

void Text::release() noexcept {
  if (!detail::drop_reference(node_->references)) return;
  node_->~TextNode();
  ::operator delete(const_cast<detail::TextNode*>(node_));
}

std::string_view Text::view() const noexcept {
  return node_ == nullptr ? std::string_view{} : std::string_view(node_->characters(), node_->size);
}

bool operator==(const Text& left, const Text& right) noexcept { return left.node_ == right.node_ || left.view() == right.view(); }

// Value

Value::Value(sync::Text text) noexcept : kind_(Kind::Text) { new (payload_.handle) sync::Text(std::move(text)); }

Value::Value(sync::List list) noexcept : kind_(Kind::List) { new (payload_.handle) sync::List(std::move(list)); }

Value::Value(sync::Document document) noexcept : kind_(Kind::Document) { new (payload_.handle) sync::Document(std::move(document)); }

Value::Value(const Value& other) noexcept : kind_(other.kind_) {
  if (owns_handle()) {
    copy_handle(other);
  } else {
    payload_ = other.payload_;
  }
}

Value& Value::operator=(const Value& other) noexcept {
  Value copy(other);
  std::swap(payload_, copy.payload_);
  std::swap(kind_, copy.kind_);
  return *this;
}

Value& Value::operator=(Value&& other) noexcept {
  Value taken(std::move(other));  // so that what this value held is gone at once
  std::swap(payload_, taken.payload_);
  std::swap(kind_, taken.kind_);
  return *this;
}

void Value::copy_handle(const Value& other) noexcept {
  switch (kind_) {
    case Kind::BigInteger:
    case Kind::Text:
      new (payload_.handle) sync::Text(other.handle<sync::Text>());
      break;
    case Kind::List:
      new (payload_.handle) sync::List(other.handle<sync::List>());
      break;
    case Kind::Document:
      new (payload_.handle) sync::Document(other.handle<sync::Document>());
      break;
    default:
      break;
  }
}

void Value::destroy_handle() noexcept {
  switch (kind_) {
    case Kind::BigInteger:
    case Kind::Text:
      handle<sync::Text>().~Text();
      break;
    case Kind::List:
      handle<sync::List>().~List();
      break;
    case Kind::Document:
      handle<sync::Document>().~Document();
      break;
    default:
      break;
  }
}

Value Value::from_integral(std::int64_t number, bool out_of_range, std::uint64_t wide) {
  if (out_of_range) return integer_from_decimal(std::to_string(wide));
  Value value;
  value.kind_ = Kind::Integer;
  value.payload_.integer = number;
  return value;
}

Value Value::integer_from_decimal(std::string_view decimal) {
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(decimal.data(), decimal.data() + decimal.size(), number);
  if (error == std::errc{}) return Value(number);
  const bool negative = decimal.starts_with('-');
  std::string_view digits = decimal.substr(negative ? 1 : 0);
  digits.remove_prefix(std::min(digits.find_first_not_of('0'), digits.size()));
  if (digits.empty()) return Value(0);
  std::string normalised(negative ? "-" : "");
  normalised.append(digits);
  Value value{sync::Text(normalised)};
  value.kind_ = Kind::BigInteger;
  return value;
}

std::optional<bool> Value::if_boolean() const noexcept { return kind_ == Kind::Boolean ? std::optional(payload_.boolean) : std::nullopt; }

std::optional<std::int64_t> Value::if_integer() const noexcept {
  return kind_ == Kind::Integer ? std::optional(payload_.integer) : std::nullopt;
}

std::optional<double> Value::if_real() const noexcept { return kind_ == Kind::Real ? std::optional(payload_.real) : std::nullopt; }

std::optional<std::string_view> Value::if_big_integer() const noexcept {
  return kind_ == Kind::BigInteger ? std::optional(handle<sync::Text>().view()) : std::nullopt;
}

std::optional<std::string_view> Value::if_text() const noexcept {
  return kind_ == Kind::Text ? std::optional(handle<sync::Text>().view()) : std::nullopt;
}

const Text* Value::if_shared_text() const noexcept { return kind_ == Kind::Text ? &handle<sync::Text>() : nullptr; }

const List* Value::if_list() const noexcept { return kind_ == Kind::List ? &handle<sync::List>() : nullptr; }

const Document* Value::if_document() const noexcept { return kind_ == Kind::Document ? &handle<sync::Document>() : nullptr; }

bool Value::truthy() const noexcept {
  switch (kind_) {
    case Kind::Null:
      return false;
    case Kind::Boolean:
      return payload_.boolean;
    case Kind::Integer:
      return payload_.integer != 0;
    case Kind::BigInteger:
      return true;
    case Kind::Real:
      return payload_.real != 0.0;
    case Kind::Text:
      return !handle<sync::Text>().view().empty();
    case Kind::List:
      return !handle<sync::List>().empty();
    case Kind::Document:
      return !handle<sync::Document>().empty();
  }
  return false;
}

bool Value::same_as(const Value& other) const noexcept {
  if (kind_ != other.kind_) return false;
  switch (kind_) {
    case Kind::Null:
      return true;
    case Kind::Boolean:
      return payload_.boolean == other.payload_.boolean;
    case Kind::Integer:
      return payload_.integer == other.payload_.integer;
    case Kind::BigInteger:
      return handle<sync::Text>() == other.handle<sync::Text>();
    case Kind::Real:
      return std::bit_cast<std::uint64_t>(payload_.real) == std::bit_cast<std::uint64_t>(other.payload_.real);
    case Kind::Text:
      return handle<sync::Text>().view().data() == other.handle<sync::Text>().view().data();
    case Kind::List:
      return handle<sync::List>().same_as(other.handle<sync::List>());
    case Kind::Document:
      return handle<sync::Document>().same_as(other.handle<sync::Document>());
  }
  return false;
}

bool operator==(const Value& left, const Value& right) noexcept {
  using Kind = Value::Kind;
  const auto as_number = [](const Value& value) { return value.kind_ == Kind::Boolean ? Value(value.payload_.boolean ? 1 : 0) : value; };
  if (left.kind_ == Kind::Boolean || right.kind_ == Kind::Boolean) {
    if (left.kind_ == right.kind_) return left.payload_.boolean == right.payload_.boolean;
    return as_number(left) == as_number(right);
  }
  if (left.kind_ == Kind::Real && right.kind_ != Kind::Real) return right == left;
  switch (left.kind_) {
    case Kind::Null:
      return right.is_null();
    case Kind::Integer:
      if (right.kind_ == Kind::Real) return equals_integer(right.payload_.real, left.payload_.integer);
      return right.kind_ == Kind::Integer && left.payload_.integer == right.payload_.integer;
    case Kind::BigInteger:
      if (right.kind_ == Kind::Real) return equals_decimal(right.payload_.real, left.handle<Text>().view());
      return right.kind_ == Kind::BigInteger && left.handle<Text>() == right.handle<Text>();
    case Kind::Real:
      return left.payload_.real == right.payload_.real;
    case Kind::Text:
      return right.is_text() && left.handle<Text>() == right.handle<Text>();
    case Kind::List:
      return right.is_list() && left.handle<List>() == right.handle<List>();
    case Kind::Document:
      return right.is_document() && left.handle<Document>() == right.handle<Document>();
    case Kind::Boolean:
      break;
  }
  return false;
}

}  // namespace brackenfen::sync
