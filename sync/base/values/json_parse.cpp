// Reading JSON: one pass without recursion, in the grammar and with the error positions of Python's scanner.
//
// RapidJSON, which would be at hand, does not have this dialect: even when it hands numbers over as text it
// refuses 1e400 and integers of more than 309 digits, and what follows a NUL byte it never sees.
#include <array>
#include <cstdint>
#include <cstring>
#include <limits>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "sync/base/error.hpp"
#include "sync/base/text/text.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/base/values/json.hpp"
#include "sync/base/values/member_cursor.hpp"

namespace brackenfen::sync {
namespace {

constexpr std::string_view BYTE_ORDER_MARK = "\xEF\xBB\xBF";
constexpr std::string_view EXPECTING_VALUE = "Expecting value";
// The X stand for hexadecimal digits, as in the messages of Python's json module.
constexpr std::string_view INVALID_UNICODE_ESCAPE = "Invalid \\uXXXX escape";
constexpr std::string_view LONE_SURROGATE = "Lone surrogate in \\uXXXX escape";

bool is_digit(char c) noexcept { return c >= '0' && c <= '9'; }
bool is_high_surrogate(char32_t c) noexcept { return c >= 0xD800 && c <= 0xDBFF; }
bool is_low_surrogate(char32_t c) noexcept { return c >= 0xDC00 && c <= 0xDFFF; }

/// True where any of eight bytes ends a run of plain string characters: a quote, a backslash or a control.
bool ends_plain_run(const char* eight_bytes) noexcept {
  constexpr std::uint64_t ONES = 0x0101010101010101U;
  constexpr std::uint64_t HIGH_BITS = 0x8080808080808080U;
  std::uint64_t word = 0;
  std::memcpy(&word, eight_bytes, sizeof word);
  const std::uint64_t quote = word ^ (ONES * '"');
  const std::uint64_t backslash = word ^ (ONES * '\\');
  return ((((quote - ONES) & ~quote) | ((backslash - ONES) & ~backslash) | ((word - ONES * 0x20U) & ~word)) & HIGH_BITS) != 0;
}

void append_utf8(std::string& out, char32_t c) {
  const auto byte = [](char32_t value) { return static_cast<char>(static_cast<unsigned char>(value)); };
  if (c < 0x80) {
    out += byte(c);
    return;
  }
  if (c < 0x800) {
    out += byte(0xC0U | (c >> 6U));
  } else {
    if (c < 0x10000) {
      out += byte(0xE0U | (c >> 12U));
    } else {
      out += byte(0xF0U | (c >> 18U));
      out += byte(0x80U | ((c >> 12U) & 0x3FU));
    }
    out += byte(0x80U | ((c >> 6U) & 0x3FU));
  }
  out += byte(0x80U | (c & 0x3FU));
}

/// What a backslash and this letter stand for, or NUL.
char short_escape(char letter) noexcept {
  switch (letter) {
    case '"':
    case '\\':
    case '/':
      return letter;
    case 'b':
      return '\b';
    case 'f':
      return '\f';
    case 'n':
      return '\n';
    case 'r':
      return '\r';
    case 't':
      return '\t';
    default:
      return '\0';
  }
}

/// Shares one Text among the occurrences of a short text: documents repeat the same few keys and kinds.
class TextCache {
 public:
  Text get(std::string_view key) {
    if (key.empty() || key.size() > LONGEST) return Text(key);
    const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(key[at]); };
    Text& known = known_[(key.size() * 7U + byte(0) * 31U + byte(key.size() / 2) * 131U + byte(key.size() - 1) * 61U) % known_.size()];
    if (known.view() != key) known = Text(key);
    return known;
  }

 private:
  static constexpr std::size_t LONGEST = 32;
  std::array<Text, 256> known_;
};

class JsonReader {
 public:
  explicit JsonReader(std::string_view document, const Document* known = nullptr)
      : document_(document), at_(document.data()), end_(at_ + document.size()), known_(known) {}
  /// The object at `taken_key` of the top level is handed to `taker`.
  JsonReader(std::string_view document, std::string_view taken_key, JsonMembers& taker) : JsonReader(document) {
    taken_key_ = taken_key;
    taker_ = &taker;
  }

  Value read() {
    skip_blanks();
    Value value;
    do value = read_scalar_or_open();
    while (!placed_last(value));
    skip_blanks();
    if (at_ != end_) fail("Extra data", at_);
    return value;
  }

 private:
  /// An object or array that is not closed yet, and where its members or elements begin on their stack.
  struct Frame {
    bool is_object;
    bool is_taken;  ///< its members go to the taker
    std::size_t start;
  };

  [[noreturn]] void fail(std::string_view message, const char* where) const {
    throw JSONDecodeError(std::string(message), document_, static_cast<std::size_t>(where - document_.data()));
  }

  [[nodiscard]] bool next_is(char c) const noexcept { return at_ != end_ && *at_ == c; }

  void skip_blanks() noexcept {
    while (at_ != end_ && (*at_ == ' ' || *at_ == '\n' || *at_ == '\t' || *at_ == '\r')) ++at_;
  }

  /// Opens containers until a value is complete that holds no open one: a scalar or an empty container.
  Value read_scalar_or_open() {
    for (;;) {
      if (next_is('{')) {
        open(true);
        if (next_is('}')) return close_object();
        read_key();
      } else if (next_is('[')) {
        open(false);
        if (next_is(']')) return close_array();
      } else {
        return read_scalar();
      }
    }
  }

  void open(bool is_object) {
    if (frames_.size() >= static_cast<std::size_t>(JSON_MAX_DEPTH)) {
      fail("Nesting deeper than " + std::to_string(JSON_MAX_DEPTH) + " levels", at_);
    }
    const bool is_taken =
        taker_ != nullptr && is_object && frames_.size() == 1 && frames_[0].is_object && members_.back().key.view() == taken_key_;
    if (is_taken) taker_->begin();
    frames_.push_back({is_object, is_taken, is_object ? members_.size() : elements_.size()});
    ++at_;
    skip_blanks();
  }

  /// Puts a complete value into the innermost container and closes what ends there. True when `value` is
  /// then the whole document, false when another value follows.
  bool placed_last(Value& value) {
    while (!frames_.empty()) {
      const bool is_object = frames_.back().is_object;
      if (frames_.back().is_taken) {
        if (!std::exchange(was_taken_, false)) taker_->take_other(members_.back().key);
        members_.pop_back();
      } else if (is_object) {
        members_.back().value = std::move(value);
      } else {
        elements_.push_back(std::move(value));
      }
      skip_blanks();
      if (next_is(is_object ? '}' : ']')) {
        value = is_object ? close_object() : close_array();
        continue;
      }
      if (!next_is(',')) fail("Expecting ',' delimiter", at_);
      ++at_;
      skip_blanks();
      if (is_object) read_key();
      return false;
    }
    return true;
  }

  Value close_object() {
    ++at_;
    const std::size_t start = frames_.back().start;
    frames_.pop_back();
    const std::span<Member> members = std::span<Member>(members_).subspan(start);
    was_taken_ = !frames_.empty() && frames_.back().is_taken;
    if (was_taken_) taker_->take(std::move(members_[start - 1].key), members);
    Value closed(was_taken_ ? Document() : Document(members));
    members_.erase(members_.begin() + static_cast<std::ptrdiff_t>(start), members_.end());
    return closed;
  }

  Value close_array() {
    ++at_;
    const std::size_t start = frames_.back().start;
    frames_.pop_back();
    Value closed(List(std::span<Value>(elements_).subspan(start)));
    elements_.erase(elements_.begin() + static_cast<std::ptrdiff_t>(start), elements_.end());
    return closed;
  }

  /// Leaves the reader at the value that belongs to the key.
  void read_key() {
    if (!next_is('"')) fail("Expecting property name enclosed in double quotes", at_);
    members_.push_back({texts_.get(read_string()), Value()});
    skip_blanks();
    if (!next_is(':')) fail("Expecting ':' delimiter", at_);
    ++at_;
    skip_blanks();
  }

  Value read_scalar() {
    switch (at_ == end_ ? '\0' : *at_) {
      case '"':
        return Value(shared_text(read_string()));
      case 'n':
        if (skip_word("null")) return {};
        break;
      case 't':
        if (skip_word("true")) return Value(true);
        break;
      case 'f':
        if (skip_word("false")) return Value(false);
        break;
      case 'N':
        if (skip_word("NaN")) return Value(std::numeric_limits<double>::quiet_NaN());
        break;
      case 'I':
        if (skip_word("Infinity")) return Value(std::numeric_limits<double>::infinity());
        break;
      case '-':
        if (skip_word("-Infinity")) return Value(-std::numeric_limits<double>::infinity());
        return read_number();
      default:
        return read_number();
    }
    fail(EXPECTING_VALUE, at_);
  }

  Text shared_text(std::string_view text) {
    const Member* known = known_.find_member(text);
    return known != nullptr ? known->key : texts_.get(text);
  }

  bool skip_word(std::string_view word) noexcept {
    if (!std::string_view(at_, end_).starts_with(word)) return false;
    at_ += word.size();
    return true;
  }

  [[nodiscard]] const char* skip_digits(const char* from) const noexcept {
    while (from != end_ && is_digit(*from)) ++from;
    return from;
  }

  /// Takes the longest number there is: of "1." or "1e" only the "1", whose rest is the caller's error.
  Value read_number() {
    const char* const digits = at_ + (next_is('-') ? 1 : 0);
    if (digits == end_ || !is_digit(*digits)) fail(EXPECTING_VALUE, at_);
    const char* const whole = *digits == '0' ? digits + 1 : skip_digits(digits);
    const char* last = whole;
    if (last != end_ && *last == '.') {
      const char* const fraction = skip_digits(last + 1);
      if (fraction != last + 1) last = fraction;
    }
    if (last != end_ && (*last == 'e' || *last == 'E')) {
      const char* exponent = last + 1;
      if (exponent != end_ && (*exponent == '+' || *exponent == '-')) ++exponent;
      const char* const after = skip_digits(exponent);
      if (after != exponent) last = after;
    }
    const std::string_view text(at_, last);
    at_ = last;
    if (last != whole) return Value(parse_real(text).value());
    return Value::integer_from_decimal(text);
  }

  /// Leaves the reader behind the closing quote. What is returned lies in the document or, where there are
  /// escapes, in unescaped_ until the next string is read.
  std::string_view read_string() {
    const char* const opening = at_++;
    const char* run = at_;
    skip_plain_run(opening);
    if (*at_ == '"') return {run, at_++};
    unescaped_.clear();
    for (;;) {
      unescaped_.append(run, at_);
      if (*at_ == '"') break;
      read_escape(opening);
      run = at_;
      skip_plain_run(opening);
    }
    ++at_;
    return unescaped_;
  }

  /// Stops at a quote or a backslash.
  void skip_plain_run(const char* opening) {
    while (end_ - at_ >= 8 && !ends_plain_run(at_)) at_ += 8;
    while (at_ != end_ && *at_ != '"' && *at_ != '\\') {
      if (static_cast<unsigned char>(*at_) < 0x20) fail("Invalid control character at", at_);
      ++at_;
    }
    if (at_ == end_) fail("Unterminated string starting at", opening);
  }

  void read_escape(const char* opening) {
    const char* const backslash = at_++;
    if (at_ == end_) fail("Unterminated string starting at", opening);
    const char letter = *at_++;
    if (letter != 'u') {
      const char plain = short_escape(letter);
      if (plain == '\0') fail("Invalid \\escape", backslash);
      unescaped_ += plain;
      return;
    }
    char32_t character = read_hex();
    if (is_high_surrogate(character) && std::string_view(at_, end_).starts_with("\\u")) {
      at_ += 2;
      const char32_t low = read_hex();
      if (!is_low_surrogate(low)) fail(LONE_SURROGATE, backslash);
      character = 0x10000 + ((character - 0xD800) << 10U) + (low - 0xDC00);
    } else if (is_high_surrogate(character) || is_low_surrogate(character)) {
      fail(LONE_SURROGATE, backslash);
    }
    append_utf8(unescaped_, character);
  }

  /// The four digits of an escape, which cannot be the last characters of the document.
  char32_t read_hex() {
    if (end_ - at_ <= 4) fail(INVALID_UNICODE_ESCAPE, at_ - 1);
    char32_t value = 0;
    for (int i = 0; i < 4; ++i) {
      const char c = at_[i];
      const bool lower = c >= 'a' && c <= 'f';
      const bool upper = c >= 'A' && c <= 'F';
      if (!is_digit(c) && !lower && !upper) fail(INVALID_UNICODE_ESCAPE, at_ - 1);
      value = value * 16 + static_cast<char32_t>(is_digit(c) ? c - '0' : lower ? c - 'a' + 10 : c - 'A' + 10);
    }
    at_ += 4;
    return value;
  }

  std::string_view document_;
  const char* at_;
  const char* end_;
  std::vector<Frame> frames_;
  std::vector<Member> members_;  // of all open objects; the last one waits for its value
  std::vector<Value> elements_;  // of all open arrays
  std::string unescaped_;
  TextCache texts_;
  MemberCursor known_;
  std::string_view taken_key_;
  JsonMembers* taker_ = nullptr;
  bool was_taken_ = false;  // the object that was closed last, by the taker
};

void require_json_encoding(std::string_view bytes) {
  require_utf8(bytes);
  if (bytes.starts_with(BYTE_ORDER_MARK)) throw JSONDecodeError("Unexpected UTF-8 BOM (decode using utf-8-sig)", bytes, 0);
}

}  // namespace

Value parse_json(std::string_view bytes) {
  require_json_encoding(bytes);
  return JsonReader(bytes).read();
}

Value parse_json(std::string_view bytes, const Document& known) {
  require_json_encoding(bytes);
  return JsonReader(bytes, &known).read();
}

Value parse_json(std::string_view bytes, std::string_view key, JsonMembers& members) {
  require_json_encoding(bytes);
  return JsonReader(bytes, key, members).read();
}

}  // namespace brackenfen::sync
