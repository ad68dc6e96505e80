// Arguments of bound functions, what operations of the host return, and what is read of the host's objects.
//
// Attached threads only. What does not convert is a TypeError that names it; `name` may go deeper, as in
// "selection.seed". What an object's own conversion raises goes on as it is.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "python/conversion/values.hpp"

namespace brackenfen::sync::python {

/// "{name} must be {expected}, not {class of object}".
[[noreturn]] void refuse(std::string_view name, std::string_view expected, nb::handle object);

// ---- scalars -----------------------------------------------------------------------------------------------

[[nodiscard]] std::string text_argument(nb::handle object, std::string_view name);
/// The same, and the empty text for None.
[[nodiscard]] std::string text_or_empty(nb::handle object, std::string_view name);
/// For arguments that may be anything but mean something as a text alone: null for any other object.
[[nodiscard]] Value text_or_null(nb::handle object);
/// A local path: str or os.PathLike, in the file system's encoding. Throws ValueError for a NUL inside.
[[nodiscard]] std::string path_argument(nb::handle object, std::string_view name);
[[nodiscard]] std::int64_t integer_argument(nb::handle object, std::string_view name);
/// One that counts something: OverflowError beyond 32 bits.
[[nodiscard]] int count_argument(nb::handle object, std::string_view name);
[[nodiscard]] double real_argument(nb::handle object, std::string_view name);
/// int(object): a text of digits converts, too.
[[nodiscard]] nb::object whole_number(nb::handle object, std::string_view name);
/// The object itself, where it can be called or is None.
[[nodiscard]] nb::handle callable_or_none(nb::handle object, std::string_view name);
/// Python's truth of any object.
[[nodiscard]] bool truth(nb::handle object);

/// The bytes of a bytes-like object, held for the life of this scope.
class BytesArgument {
 public:
  BytesArgument(nb::handle object, std::string_view name);
  BytesArgument(const BytesArgument&) = delete;
  BytesArgument& operator=(const BytesArgument&) = delete;
  ~BytesArgument() { PyBuffer_Release(&buffer_); }
  [[nodiscard]] std::string_view view() const noexcept {
    return {static_cast<const char*>(buffer_.buf), static_cast<std::size_t>(buffer_.len)};
  }

 private:
  Py_buffer buffer_{};
};

// ---- iterables ---------------------------------------------------------------------------------------------

/// How often a collection is read: an iterator has nothing left for a second time.
enum class Reading : bool { Once, Again };
/// Refuses None and a text above all: they would read as no paths, or as wrong ones, and have the files of the right ones
/// removed. Everything below does so.
void require_collection(nb::handle given, std::string_view name, Reading reading = Reading::Once);
/// The elements, owned.
[[nodiscard]] std::vector<nb::object> elements_of(nb::handle iterable, std::string_view name);
/// An empty tuple in place of None, where None means that there are none.
[[nodiscard]] nb::object or_empty(nb::handle iterable);

/// str(object) of each element.
[[nodiscard]] std::vector<std::string> texts_argument(nb::handle iterable, std::string_view name);
[[nodiscard]] std::vector<Text> text_list_argument(nb::handle iterable, std::string_view name);
[[nodiscard]] std::vector<Value> values_argument(nb::handle iterable, std::string_view name);
[[nodiscard]] std::set<std::string> text_set_argument(nb::handle iterable, std::string_view name);
/// The elements that are texts; null for each other one.
[[nodiscard]] std::vector<Value> texts_or_nulls_argument(nb::handle iterable, std::string_view name);
/// A mapping of mappings, as manifests map paths to entries.
[[nodiscard]] Document entries_argument(nb::handle mapping, std::string_view name);

// ---- attributes --------------------------------------------------------------------------------------------

/// The attribute, or an empty object where there is none: only an AttributeError for this very name says so. What
/// else its reading raises is thrown.
[[nodiscard]] nb::object optional_attribute(nb::handle object, const char* attribute);
/// The same, with None where there is none.
[[nodiscard]] nb::object attribute_or_none(nb::handle object, const char* attribute);
/// The attribute of something called `name`; TypeError where it has none.
[[nodiscard]] nb::object required_attribute(nb::handle object, const char* attribute, std::string_view name);
/// The value at `key` of any mapping; None where it has none.
[[nodiscard]] nb::object mapping_item(nb::handle mapping, const char* key);

}  // namespace brackenfen::sync::python
