// Values and documents: the JSON data model, immutable and shared by reference.
//
// A Value is 16 bytes. Texts, lists and documents live behind an atomic reference count and never
// change once built, so any thread may read one without a lock, copying a Value costs one increment,
// and "the same one" is a pointer comparison (same_as). Whoever wants a change builds a new spine that
// shares everything it did not replace.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <new>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace brackenfen::sync {

class Document;
class List;
class Value;

namespace detail {
struct TextNode;
struct ListNode;
struct DocumentNode;
}  // namespace detail

/// Immutable text, shared by reference. UTF-8; a host may hand in lone surrogates, which are kept as
/// three-byte sequences and compare as bytes.
class Text {
 public:
  Text() noexcept = default;
  Text(std::string_view text);
  Text(const std::string& text) : Text(std::string_view(text)) {}
  Text(const char* text) : Text(std::string_view(text)) {}
  Text(const Text& other) noexcept;
  Text(Text&& other) noexcept : node_(std::exchange(other.node_, nullptr)) {}
  Text& operator=(const Text& other) noexcept;
  Text& operator=(Text&& other) noexcept;
  ~Text() {
    if (node_ != nullptr) release();
  }

  [[nodiscard]] std::string_view view() const noexcept;
  [[nodiscard]] std::string str() const { return std::string(view()); }
  operator std::string_view() const noexcept { return view(); }

  friend bool operator==(const Text& left, const Text& right) noexcept;
  friend auto operator<=>(const Text& left, const Text& right) noexcept { return left.view() <=> right.view(); }

 private:
  void release() noexcept;

  const detail::TextNode* node_ = nullptr;  // nullptr for the empty text
};

/// One JSON value. Equality is Python's: 1 == 1.0 == True, nan differs from itself, documents compare
/// without regard to order.
class Value {
 public:
  enum class Kind : std::uint8_t { Null, Boolean, Integer, BigInteger, Real, Text, List, Document };

  Value() noexcept = default;
  Value(std::nullptr_t) noexcept {}
  template <std::same_as<bool> B>
  Value(B flag) noexcept : kind_(Kind::Boolean) {
    payload_.boolean = flag;
  }
  template <std::integral I>
  requires(!std::same_as<I, bool>) Value(I number)
      : Value(from_integral(static_cast<std::int64_t>(number), !std::in_range<std::int64_t>(number), static_cast<std::uint64_t>(number))) {}
  Value(double number) noexcept : kind_(Kind::Real) { payload_.real = number; }
  Value(sync::Text text) noexcept;
  Value(std::string_view text) : Value(sync::Text(text)) {}
  Value(const std::string& text) : Value(sync::Text(text)) {}
  Value(const char* text) : Value(sync::Text(text)) {}
  Value(sync::List list) noexcept;
  Value(sync::Document document) noexcept;
  Value(const Value& other) noexcept;
  Value(Value&& other) noexcept : payload_(other.payload_), kind_(std::exchange(other.kind_, Kind::Null)) {}
  Value& operator=(const Value& other) noexcept;
  Value& operator=(Value&& other) noexcept;
  ~Value() {
    if (owns_handle()) destroy_handle();
  }

  /// An integer given in decimal ("-"? digits). Becomes Kind::Integer when it fits 64 bits, so every
  /// integer has one representation.
  static Value integer_from_decimal(std::string_view decimal);

  [[nodiscard]] Kind kind() const noexcept { return kind_; }
  [[nodiscard]] bool is_null() const noexcept { return kind_ == Kind::Null; }
  [[nodiscard]] bool is_integer() const noexcept { return kind_ == Kind::Integer || kind_ == Kind::BigInteger; }  ///< of any size
  [[nodiscard]] bool is_text() const noexcept { return kind_ == Kind::Text; }
  [[nodiscard]] bool is_list() const noexcept { return kind_ == Kind::List; }
  [[nodiscard]] bool is_document() const noexcept { return kind_ == Kind::Document; }
  /// Exactly the boolean `flag`, and not a number that equals it.
  [[nodiscard]] bool is_exactly(bool flag) const noexcept { return kind_ == Kind::Boolean && payload_.boolean == flag; }

  [[nodiscard]] std::optional<bool> if_boolean() const noexcept;
  [[nodiscard]] std::optional<std::int64_t> if_integer() const noexcept;
  [[nodiscard]] std::optional<double> if_real() const noexcept;
  /// Decimal digits of a BigInteger.
  [[nodiscard]] std::optional<std::string_view> if_big_integer() const noexcept;
  /// The views and pointers below live as long as some Value or handle shares what they point at.
  [[nodiscard]] std::optional<std::string_view> if_text() const noexcept;
  /// The text itself, to be shared.
  [[nodiscard]] const sync::Text* if_shared_text() const noexcept;
  [[nodiscard]] const sync::List* if_list() const noexcept;
  [[nodiscard]] const sync::Document* if_document() const noexcept;

  /// Python's truth: null, false, 0, 0.0, "", [] and {} are false.
  [[nodiscard]] bool truthy() const noexcept;
  /// The same shared node, or the same plain value of the same kind.
  [[nodiscard]] bool same_as(const Value& other) const noexcept;

  friend bool operator==(const Value& left, const Value& right) noexcept;

 private:
  static Value from_integral(std::int64_t number, bool out_of_range, std::uint64_t wide);
  /// The handle that lies in the payload; `Handle` must be the one that kind_ names.
  template <typename Handle>
  [[nodiscard]] const Handle& handle() const noexcept {
    return *std::launder(reinterpret_cast<const Handle*>(payload_.handle));
  }
  [[nodiscard]] bool owns_handle() const noexcept { return kind_ == Kind::BigInteger || kind_ >= Kind::Text; }
  void copy_handle(const Value& other) noexcept;
  void destroy_handle() noexcept;

  union Payload {
    bool boolean;
    std::int64_t integer = 0;
    double real;
    alignas(void*) std::byte handle[sizeof(void*)];  // a Text (also the digits of a BigInteger), List or Document
  };
  Payload payload_;
  Kind kind_ = Kind::Null;
};

/// An immutable list, shared by reference.
class List {
 public:
  List() noexcept = default;
  explicit List(std::vector<Value> elements) : List(std::span<Value>(elements)) {}
  /// Moves the elements out of the range.
  explicit List(std::span<Value> elements);
  /// A list in a list is `List{Value(inner)}`: compilers disagree whether `List{inner}` nests or copies.
  List(std::initializer_list<Value> elements) : List(std::vector<Value>(elements)) {}
  List(const List& other) noexcept;
  List(List&& other) noexcept : node_(std::exchange(other.node_, nullptr)) {}
  List& operator=(const List& other) noexcept;
  List& operator=(List&& other) noexcept;
  ~List();

  [[nodiscard]] std::size_t size() const noexcept;
  [[nodiscard]] bool empty() const noexcept { return size() == 0; }
  [[nodiscard]] const Value* begin() const noexcept;
  [[nodiscard]] const Value* end() const noexcept;
  [[nodiscard]] const Value& operator[](std::size_t index) const noexcept { return begin()[index]; }
  [[nodiscard]] bool same_as(const List& other) const noexcept { return node_ == other.node_; }
  friend bool operator==(const List& left, const List& right) noexcept;

 private:
  const detail::ListNode* node_ = nullptr;  // nullptr for the empty list
};

/// One key and value of a Document.
struct Member {
  Text key;
  Value value;
};

/// An immutable JSON object, shared by reference. Members keep the order in which their keys were first
/// set; look-up is hashed once there are more than a few.
class Document {
 public:
  Document() noexcept = default;
  /// A key given twice keeps its first position and its last value.
  explicit Document(std::vector<Member> members) : Document(std::span<Member>(members)) {}
  /// Moves the members out of the range.
  explicit Document(std::span<Member> members);
  Document(std::initializer_list<Member> members) : Document(std::vector<Member>(members)) {}
  Document(const Document& other) noexcept;
  Document(Document&& other) noexcept : node_(std::exchange(other.node_, nullptr)) {}
  Document& operator=(const Document& other) noexcept;
  Document& operator=(Document&& other) noexcept;
  ~Document();

  [[nodiscard]] std::size_t size() const noexcept;
  [[nodiscard]] bool empty() const noexcept { return size() == 0; }
  [[nodiscard]] const Member* begin() const noexcept;
  [[nodiscard]] const Member* end() const noexcept;

  /// The value at `key`, or nullptr. Lives as long as this document is shared by anyone.
  [[nodiscard]] const Value* find(std::string_view key) const noexcept;
  [[nodiscard]] const Member* find_member(std::string_view key) const noexcept;
  [[nodiscard]] bool contains(std::string_view key) const noexcept { return find(key) != nullptr; }
  /// The value at `key`, or null where the key is absent.
  [[nodiscard]] const Value& get(std::string_view key) const noexcept;

  /// A document with `key` set: replaced in place, or added at the end.
  [[nodiscard]] Document with(Text key, Value value) const;
  /// A document without `key`; this one where it has no such key.
  [[nodiscard]] Document without(std::string_view key) const;

  [[nodiscard]] bool same_as(const Document& other) const noexcept { return node_ == other.node_; }
  friend bool operator==(const Document& left, const Document& right) noexcept;

 private:
  explicit Document(const detail::DocumentNode* node) noexcept : node_(node) {}

  const detail::DocumentNode* node_ = nullptr;  // nullptr for the empty document
};

}  // namespace brackenfen::sync
