// Values between Python and the core, and the arguments of bound functions.
//
// Attached threads only. An argument that does not convert is a TypeError that names it.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "python/interpreter/gate.hpp"
#include "sync/base/values/value.hpp"
#include "sync/transport/http.hpp"

namespace brackenfen::sync::python {

/// Which Python object each converted list and document came from, so that what a function of the core
/// passes through comes back as the very same object. For the life of one call: it keeps nothing alive.
class Origins {
 public:
  void remember(const void* node, PyObject* object) { objects_.emplace(node, object); }
  /// Borrowed, or nullptr.
  [[nodiscard]] PyObject* find(const void* node) const noexcept;

 private:
  std::unordered_map<const void*, PyObject*> objects_;
};

// ---- Python to core --------------------------------------------------------------------------------------

/// What Python's json module would write: None, bool, int of any size, float, str, list, tuple and any
/// Mapping with str keys. Subclasses count as their base. Lone surrogates are kept.
[[nodiscard]] Value value_argument(nb::handle object, const char* name, Origins* origins = nullptr);
[[nodiscard]] Document document_argument(nb::handle object, const char* name, Origins* origins = nullptr);
/// The same for arguments that may be anything: null for an object that is no such value.
[[nodiscard]] Value loose_value(nb::handle object);

[[nodiscard]] std::string text_argument(nb::handle object, const char* name);
/// A local path: str or os.PathLike, in the file system's encoding. Throws ValueError for a NUL inside.
[[nodiscard]] std::string path_argument(nb::handle object, const char* name);
[[nodiscard]] std::int64_t integer_argument(nb::handle object, const char* name);
[[nodiscard]] double real_argument(nb::handle object, const char* name);
/// Python's truth of any object.
[[nodiscard]] bool truth(nb::handle object);
/// str(object).
[[nodiscard]] std::string text_form(nb::handle object);
[[nodiscard]] bool is_mapping(nb::handle object);
/// The value at `key` of any mapping; None where it has none.
[[nodiscard]] nb::object mapping_item(nb::handle mapping, const char* key);
/// str(object) of each element; none for None.
[[nodiscard]] std::vector<std::string> texts_argument(nb::handle iterable, const char* name);
[[nodiscard]] std::vector<Value> values_argument(nb::handle iterable, const char* name);
/// The elements as they are; null for one that is no JSON value. None for None.
[[nodiscard]] std::vector<Value> loose_values_argument(nb::handle iterable, const char* name);
[[nodiscard]] std::set<std::string> text_set_argument(nb::handle iterable, const char* name);

/// The bytes of a bytes-like object, held for the life of this scope.
class BytesArgument {
 public:
  BytesArgument(nb::handle object, const char* name);
  BytesArgument(const BytesArgument&) = delete;
  BytesArgument& operator=(const BytesArgument&) = delete;
  ~BytesArgument() { PyBuffer_Release(&buffer_); }
  [[nodiscard]] std::string_view view() const noexcept {
    return {static_cast<const char*>(buffer_.buf), static_cast<std::size_t>(buffer_.len)};
  }

 private:
  Py_buffer buffer_{};
};

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
