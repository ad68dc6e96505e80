// Writing JSON: the bytes of Python's json.dumps with its ASCII output.
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <vector>

#include "sync/base/error.hpp"
#include "sync/base/text/text.hpp"
#include "sync/base/threads/stack_room.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/base/values/json.hpp"

namespace brackenfen::sync {
namespace {

/// Which bytes go into a string as they are.
constexpr std::array<bool, 256> PLAIN = [] {
  std::array<bool, 256> plain{};
  for (std::size_t c = ' '; c <= '~'; ++c) plain[c] = c != '"' && c != '\\';
  return plain;
}();

/// Roughly how long the text will be, from the first few members of each level.
std::size_t estimated_size(const Value& value, int levels) {
  constexpr std::size_t SAMPLES = 8;
  constexpr std::size_t PUNCTUATION = 6;
  if (const auto text = value.if_text()) return text->size() + PUNCTUATION;
  const List* const list = value.if_list();
  const Document* const document = value.if_document();
  if ((list == nullptr && document == nullptr) || levels == 0) return 16;
  std::size_t sampled = 0;
  const std::size_t size = list != nullptr ? list->size() : document->size();
  const std::size_t samples = std::min(size, SAMPLES);
  for (std::size_t i = 0; i < samples; ++i) {
    if (document != nullptr) sampled += document->begin()[i].key.view().size() + PUNCTUATION;
    sampled += estimated_size(list != nullptr ? (*list)[i] : document->begin()[i].value, levels - 1);
  }
  return 2 + (samples == 0 ? 0 : sampled * size / samples);
}

class JsonWriter {
 public:
  explicit JsonWriter(JsonForm form)
      : sorted_(form != JsonForm::InsertionOrder),
        item_separator_(form == JsonForm::Canonical ? "," : ", "),
        key_separator_(form == JsonForm::Canonical ? ":" : ": ") {}

  std::string write(const Value& value) {
    out_.reserve(estimated_size(value, 4));
    append(value, 0);
    return std::move(out_);
  }

 private:
  void append(const Value& value, int depth) {
    switch (value.kind()) {
      case Value::Kind::Null:
        out_ += "null";
        break;
      case Value::Kind::Boolean:
        out_ += *value.if_boolean() ? "true" : "false";
        break;
      case Value::Kind::Integer:
        append_integer(*value.if_integer());
        break;
      case Value::Kind::BigInteger:
        out_ += *value.if_big_integer();
        break;
      case Value::Kind::Real:
        append_real(*value.if_real());
        break;
      case Value::Kind::Text:
        append_string(*value.if_text());
        break;
      case Value::Kind::List:
        append_list(*value.if_list(), depth + 1);
        break;
      case Value::Kind::Document:
        append_document(*value.if_document(), depth + 1);
        break;
    }
  }

  void append_integer(std::int64_t number) {
    std::array<char, 24> digits;
    const auto [end, error] = std::to_chars(digits.data(), digits.data() + digits.size(), number);
    out_.append(digits.data(), end);
  }

  void append_real(double number) {
    if (std::isnan(number)) {
      out_ += "NaN";
    } else if (std::isinf(number)) {
      out_ += number < 0 ? "-Infinity" : "Infinity";
    } else {
      out_ += real_text(number);
    }
  }

  void append_string(std::string_view text) {
    out_ += '"';
    while (!text.empty()) {
      const auto stop = std::find_if(text.begin(), text.end(), [](char c) { return !PLAIN[static_cast<unsigned char>(c)]; });
      const auto plain = static_cast<std::size_t>(stop - text.begin());
      out_.append(text.data(), plain);
      if (plain == text.size()) break;
      const CodePoint point = code_point_at(text, plain);
      append_escape(point.value);
      text.remove_prefix(plain + point.size);
    }
    out_ += '"';
  }

  void append_escape(char32_t c) {
    switch (c) {
      case '"':
        out_ += "\\\"";
        return;
      case '\\':
        out_ += "\\\\";
        return;
      case '\b':
        out_ += "\\b";
        return;
      case '\f':
        out_ += "\\f";
        return;
      case '\n':
        out_ += "\\n";
        return;
      case '\r':
        out_ += "\\r";
        return;
      case '\t':
        out_ += "\\t";
        return;
      default:
        break;
    }
    if (c >= 0x10000) {
      append_unit(0xD800 + ((c - 0x10000) >> 10U));
      append_unit(0xDC00 + ((c - 0x10000) & 0x3FFU));
    } else {
      append_unit(c);
    }
  }

  void append_unit(char32_t unit) {
    constexpr std::string_view DIGITS = "0123456789abcdef";
    out_ += "\\u";
    for (const unsigned shift : {12U, 8U, 4U, 0U}) out_ += DIGITS[(unit >> shift) & 0xFU];
  }

  void append_list(const List& list, int depth) {
    require_depth(depth);
    out_ += '[';
    std::string_view separator;
    for (const Value& element : list) {
      out_ += separator;
      separator = item_separator_;
      append(element, depth);
    }
    out_ += ']';
  }

  void append_document(const Document& document, int depth) {
    require_depth(depth);
    out_ += '{';
    std::string_view separator;
    const auto append_member = [&](const Member& member) {
      out_ += separator;
      separator = item_separator_;
      append_string(member.key);
      out_ += key_separator_;
      append(member.value, depth);
    };
    if (sorted_) {
      std::vector<const Member*> members;
      members.reserve(document.size());
      for (const Member& member : document) members.push_back(&member);
      const auto by_key = [](const Member* left, const Member* right) { return left->key < right->key; };
      if (!std::is_sorted(members.begin(), members.end(), by_key)) std::sort(members.begin(), members.end(), by_key);
      for (const Member* member : members) append_member(*member);
    } else {
      for (const Member& member : document) append_member(member);
    }
    out_ += '}';
  }

  static void require_depth(int depth) {
    if (depth > JSON_MAX_DEPTH) throw ValueError(fmt::format("Nesting deeper than {} levels", JSON_MAX_DEPTH));
    if (!has_stack_room()) throw ValueError("the stack of this thread is used up while writing a document");
  }

  bool sorted_;
  std::string_view item_separator_;
  std::string_view key_separator_;
  std::string out_;
};

}  // namespace

std::string write_json(const Value& value, JsonForm form) { return JsonWriter(form).write(value); }

}  // namespace brackenfen::sync
