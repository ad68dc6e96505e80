// Values between Python and the core. Attached threads only.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "python/interpreter/gate.hpp"
#include "sync/base/values/value.hpp"
#include "sync/transport/http.hpp"

namespace brackenfen::sync::python {

/// Which Python object each converted list and document came from, so that what a function of the core
/// passes through comes back as the very same object. Keeps both sides alive, so that neither the object nor the
/// address by which it is found can become another's while the core works without the interpreter lock.
class Origins {
 public:
  void remember(const Document& document, nb::handle object) { add(document.begin(), document, object); }
  void remember(const List& list, nb::handle object) { add(list.begin(), list, object); }
  /// Borrowed, or nullptr.
  [[nodiscard]] PyObject* find(const void* node) const noexcept;

 private:
  struct Origin {
    Value node;
    nb::object object;
  };
  void add(const void* address, Value node, nb::handle object);

  std::unordered_map<const void*, Origin> origins_;
};

// ---- Python to core --------------------------------------------------------------------------------------
// What is not such a value is a TypeError that begins with `name`.

/// What Python's json module would write: None, bool, int of any size, float, str, list, tuple and any
/// Mapping with str keys. Subclasses count as their base. Lone surrogates are kept.
[[nodiscard]] Value value_argument(nb::handle object, std::string_view name, Origins* origins = nullptr);
[[nodiscard]] Document document_argument(nb::handle object, std::string_view name, Origins* origins = nullptr);
/// For arguments that may be anything: null for an object of none of these kinds. One that only holds such an object
/// is refused all the same.
[[nodiscard]] Value any_value(nb::handle object, std::string_view name, Origins* origins = nullptr);
/// The same where an object that is no such value counts by its text.
[[nodiscard]] Value value_or_text(nb::handle object);

[[nodiscard]] bool is_mapping(nb::handle object);

/// One key of a mapping with what it leads to.
struct Item {
  nb::object key;
  nb::object value;
};
/// What a mapping holds, owned: as it stood at one moment if it is a dict.
[[nodiscard]] std::vector<Item> mapping_items(nb::handle mapping, std::string_view name);
/// The same of an iterable of pairs.
[[nodiscard]] std::vector<Item> items_of_pairs(nb::handle pairs, std::string_view name);

/// The text of a str.
[[nodiscard]] Text text_of(nb::handle text);
/// str(object).
[[nodiscard]] std::string text_form(nb::handle object);

// ---- core to Python --------------------------------------------------------------------------------------

[[nodiscard]] nb::object to_python(const Value& value, const Origins* origins = nullptr);
[[nodiscard]] nb::object to_python(const Document& document, const Origins* origins = nullptr);
/// Lone surrogates are kept. Bytes that are no UTF-8, as in a message that names a path, come as os.fsdecode
/// gives them.
[[nodiscard]] nb::object to_python(std::string_view text);
[[nodiscard]] inline nb::object to_python(const std::string& text) { return to_python(std::string_view(text)); }
[[nodiscard]] inline nb::object to_python(const Text& text) { return to_python(text.view()); }
[[nodiscard]] inline nb::object to_python(const char* text) { return to_python(std::string_view(text)); }
[[nodiscard]] inline nb::object to_python(bool flag) { return nb::bool_(flag); }
[[nodiscard]] inline nb::object to_python(std::int64_t number) { return nb::int_(number); }
[[nodiscard]] inline nb::object to_python(double number) { return nb::float_(number); }
/// A local path, decoded as os.fsdecode does.
[[nodiscard]] nb::object path_to_python(std::string_view path);
[[nodiscard]] nb::list list_of_paths(const std::vector<std::string>& paths);
[[nodiscard]] nb::object bytes_to_python(std::string_view bytes);
/// (status, headers, body)
[[nodiscard]] nb::object to_python(const HttpResult& response);
[[nodiscard]] nb::object headers_to_python(const Headers& headers);

/// The conversion of what is there, else None.
template <typename T>
[[nodiscard]] nb::object to_python(const std::optional<T>& value) {
  if (!value) return nb::none();
  return to_python(*value);
}
/// A list or tuple of texts.
template <typename Texts>
[[nodiscard]] nb::list list_of_texts(const Texts& texts) {
  nb::list result;
  for (const auto& text : texts) result.append(to_python(std::string_view(text)));
  return result;
}
template <typename Texts>
[[nodiscard]] nb::object tuple_of_texts(const Texts& texts) {
  return nb::steal(PyList_AsTuple(list_of_texts(texts).ptr()));
}
template <typename Texts>
[[nodiscard]] nb::object set_of_texts(const Texts& texts) {
  return nb::steal(PySet_New(list_of_texts(texts).ptr()));
}

/// Throws what Python just raised, where `object` is nullptr; else the owned object.
[[nodiscard]] nb::object checked(PyObject* object);

}  // namespace brackenfen::sync::python
