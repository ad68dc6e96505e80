#include "python/conversion/values.hpp"

#include <array>
#include <utility>

#include "python/conversion/arguments.hpp"
#include "sync/base/error.hpp"
#include "sync/base/threads/stack_room.hpp"
#include "sync/base/values/json.hpp"

namespace brackenfen::sync::python {
namespace {

/// Decimal text and Python integers are converted in blocks of this many digits: a host may have Python refuse more than 640
/// at once.
constexpr std::size_t BLOCK_DIGITS = 600;

/// Enters one level of recursion, as Python counts them.
class Level {
 public:
  explicit Level(const char* where) {
    if (!has_stack_room()) throw ValueError(std::string("the stack of this thread is used up") + where);
    if (Py_EnterRecursiveCall(where) != 0) throw nb::python_error();
  }
  Level(const Level&) = delete;
  Level& operator=(const Level&) = delete;
  ~Level() { Py_LeaveRecursiveCall(); }
};

/// 10 to the power of one block's digits, then each the square of the one before. With them numbers are taken apart in halves:
/// block by block takes time by the square of the length, and the length may be a server's choice.
class Powers {
 public:
  Powers() : powers_{checked(PyNumber_Power(nb::int_(10).ptr(), nb::int_(BLOCK_DIGITS).ptr(), Py_None))} {}
  [[nodiscard]] static std::size_t digits(std::size_t level) noexcept { return BLOCK_DIGITS << level; }
  const nb::object& operator[](std::size_t level) {
    while (powers_.size() <= level) powers_.push_back(checked(PyNumber_Multiply(powers_.back().ptr(), powers_.back().ptr())));
    return powers_[level];
  }

 private:
  std::vector<nb::object> powers_;
};

/// Writes a number of at most `digits(level)` digits, all of them where it is no beginning.
void append_decimal(std::string& decimal, nb::handle number, std::size_t level, Powers& powers) {
  if (level == 0) {
    const std::string digits = text_form(number);
    decimal.append(decimal.empty() ? 0 : BLOCK_DIGITS - digits.size(), '0').append(digits);
    return;
  }
  const nb::object halves = checked(PyNumber_Divmod(number.ptr(), powers[level - 1].ptr()));
  if (!decimal.empty() || truth(halves[0])) append_decimal(decimal, halves[0], level - 1, powers);
  append_decimal(decimal, halves[1], level - 1, powers);
}

/// Decimal text of an integer of any size.
std::string decimal_of(nb::handle given) {
  const nb::object integer = checked(PyNumber_Index(given.ptr()));  // a subclass may print itself as it likes
  if (const nb::object text = nb::steal(PyObject_Str(integer.ptr())); text.is_valid()) return text_form(text);
  PyErr_Clear();
  const nb::object magnitude = checked(PyNumber_Absolute(integer.ptr()));
  Powers powers;
  std::size_t level = 0;
  while (PyObject_RichCompareBool(magnitude.ptr(), powers[level].ptr(), Py_GE) == 1) ++level;
  std::string decimal;
  append_decimal(decimal, magnitude, level, powers);
  return PyObject_RichCompareBool(integer.ptr(), magnitude.ptr(), Py_EQ) == 1 ? decimal : "-" + decimal;
}

/// Of digits alone.
nb::object integer_from(std::string_view digits, Powers& powers) {
  if (digits.size() <= BLOCK_DIGITS) return checked(PyLong_FromString(std::string(digits).c_str(), nullptr, 10));
  std::size_t level = 0;
  while (2 * Powers::digits(level) < digits.size()) ++level;
  const std::size_t split = digits.size() - Powers::digits(level);
  const nb::object scaled = checked(PyNumber_Multiply(integer_from(digits.substr(0, split), powers).ptr(), powers[level].ptr()));
  return checked(PyNumber_Add(scaled.ptr(), integer_from(digits.substr(split), powers).ptr()));
}

nb::object integer_from(std::string_view decimal) {
  if (decimal.size() <= BLOCK_DIGITS) return checked(PyLong_FromString(std::string(decimal).c_str(), nullptr, 10));
  Powers powers;
  if (!decimal.starts_with('-')) return integer_from(decimal, powers);
  return checked(PyNumber_Negative(integer_from(decimal.substr(1), powers).ptr()));
}

/// Whether it is a value itself, whatever it holds.
bool is_value(nb::handle object) {
  PyObject* const raw = object.ptr();
  return raw == Py_None || PyUnicode_Check(raw) || PyFloat_Check(raw) || PyIndex_Check(raw) != 0 || PyList_Check(raw) ||
         PyTuple_Check(raw) || is_mapping(object);
}

/// One conversion of one argument.
class Reader {
 public:
  Reader(std::string_view name, Origins* origins) : name_(name), origins_(origins) {}

  Value read(nb::handle object) {
    PyObject* const raw = object.ptr();
    if (raw == Py_None) return {};
    if (PyUnicode_Check(raw)) return text_of(object);
    if (raw == Py_True || raw == Py_False) return raw == Py_True;
    if (PyLong_Check(raw)) return integer(object);
    if (PyFloat_Check(raw)) return PyFloat_AsDouble(raw);
    if (PyList_Check(raw) || PyTuple_Check(raw)) return list(object);
    if (is_mapping(object)) return document(object);
    if (PyIndex_Check(raw) != 0) return integer(checked(PyNumber_Index(raw)));
    refuse(name_, depth_ == 0 ? "a JSON value" : "made of JSON values", object);
  }

  Document document(nb::handle object) {
    const Nesting nesting(*this);
    const std::vector<Item> items = mapping_items(object, name_);
    std::vector<Member> members;
    members.reserve(items.size());
    for (const Item& item : items) members.push_back({key(item.key), read(item.value)});
    Document result(std::move(members));
    if (origins_ != nullptr) origins_->remember(result, object);
    return result;
  }

 private:
  struct Nesting {
    explicit Nesting(Reader& reader) : level(" while converting a document"), owner(reader) {
      if (++owner.depth_ > JSON_MAX_DEPTH) {
        --owner.depth_;
        throw ValueError(std::string(owner.name_) + " is nested deeper than " + std::to_string(JSON_MAX_DEPTH) + " levels");
      }
    }
    Nesting(const Nesting&) = delete;
    Nesting& operator=(const Nesting&) = delete;
    ~Nesting() { --owner.depth_; }
    Level level;
    Reader& owner;
  };

  Text key(nb::handle key) {
    if (!PyUnicode_Check(key.ptr())) refuse(name_, "a mapping with str keys", key);
    return text_of(key);
  }

  static Value integer(nb::handle object) {
    int overflow = 0;
    const long long number = PyLong_AsLongLongAndOverflow(object.ptr(), &overflow);
    if (overflow != 0) return Value::integer_from_decimal(decimal_of(object));
    return static_cast<std::int64_t>(number);
  }

  List list(nb::handle object) {
    const Nesting nesting(*this);
    const nb::object snapshot = checked(PySequence_Tuple(object.ptr()));
    const Py_ssize_t size = PyTuple_Size(snapshot.ptr());
    std::vector<Value> elements;
    elements.reserve(static_cast<std::size_t>(size));
    for (Py_ssize_t index = 0; index < size; ++index) elements.push_back(read(PyTuple_GetItem(snapshot.ptr(), index)));
    List result(std::move(elements));
    if (origins_ != nullptr) origins_->remember(result, object);
    return result;
  }

  std::string_view name_;
  Origins* origins_;
  int depth_ = 0;
};

/// One conversion to Python. Short keys repeat from entry to entry, so their texts are made once.
class Writer {
 public:
  explicit Writer(const Origins* origins) : origins_(origins) {}
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;
  ~Writer() {
    for (const Key& key : keys_) Py_XDECREF(key.object);
  }

  nb::object write(const Value& value) {
    switch (value.kind()) {
      case Value::Kind::Null:
        return nb::none();
      case Value::Kind::Boolean:
        return nb::bool_(*value.if_boolean());
      case Value::Kind::Integer:
        return nb::int_(*value.if_integer());
      case Value::Kind::BigInteger:
        return integer_from(*value.if_big_integer());
      case Value::Kind::Real:
        return nb::float_(*value.if_real());
      case Value::Kind::Text:
        return to_python(*value.if_text());
      case Value::Kind::List:
        return write(*value.if_list());
      case Value::Kind::Document:
        return write(*value.if_document());
    }
    return nb::none();
  }

  nb::object write(const Document& document) {
    if (PyObject* same = original(document)) return nb::borrow(same);
    const Level level(" while converting a document");
    nb::object result = checked(PyDict_New());
    for (const Member& member : document) {
      const nb::object item = write(member.value);
      if (PyDict_SetItem(result.ptr(), key(member.key.view()).ptr(), item.ptr()) != 0) throw nb::python_error();
    }
    return result;
  }

 private:
  struct Key {
    std::string_view text;
    PyObject* object = nullptr;
  };

  nb::object write(const List& list) {
    if (PyObject* same = original(list)) return nb::borrow(same);
    const Level level(" while converting a list");
    nb::list result;
    for (const Value& element : list) result.append(write(element));
    return result;
  }

  template <typename Container>
  PyObject* original(const Container& container) const noexcept {
    return origins_ == nullptr || container.empty() ? nullptr : origins_->find(container.begin());
  }

  nb::object key(std::string_view text) {
    if (text.size() > 24) return to_python(text);
    Key& slot = keys_[std::hash<std::string_view>{}(text) % keys_.size()];
    if (slot.object == nullptr || slot.text != text) {
      nb::object fresh = to_python(text);
      Py_XDECREF(slot.object);
      slot = {text, fresh.release().ptr()};
    }
    return nb::borrow(slot.object);
  }

  const Origins* origins_;
  std::array<Key, 64> keys_;
};

}  // namespace

nb::object checked(PyObject* object) {
  if (object == nullptr) throw nb::python_error();
  return nb::steal(object);
}

void Origins::add(const void* address, Value node, nb::handle object) {
  // An empty container has no address of its own, and one that a repeated key dropped is gone.
  if (address != nullptr) origins_.insert_or_assign(address, Origin{std::move(node), nb::borrow(object)});
}

PyObject* Origins::find(const void* node) const noexcept {
  const auto found = origins_.find(node);
  return found == origins_.end() ? nullptr : found->second.object.ptr();
}

// ---- Python to core --------------------------------------------------------------------------------------

Value value_argument(nb::handle object, std::string_view name, Origins* origins) { return Reader(name, origins).read(object); }

Document document_argument(nb::handle object, std::string_view name, Origins* origins) { return Reader(name, origins).document(object); }

Value any_value(nb::handle object, std::string_view name, Origins* origins) {
  return is_value(object) ? value_argument(object, name, origins) : Value();
}

Value value_or_text(nb::handle object) {
  try {
    return value_argument(object, "value");
  } catch (const Error&) {
    return text_form(object);
  }
}

bool is_mapping(nb::handle object) {
  if (PyDict_Check(object.ptr())) return true;
  if (PyList_Check(object.ptr()) || PyUnicode_Check(object.ptr())) return false;
  const int answer = PyObject_IsInstance(object.ptr(), nb::module_::import_("collections.abc").attr("Mapping").ptr());
  if (answer < 0) throw nb::python_error();
  return answer == 1;
}

std::vector<Item> mapping_items(nb::handle mapping, std::string_view name) {
  if (!PyDict_CheckExact(mapping.ptr())) {
    if (!is_mapping(mapping)) refuse(name, "a mapping", mapping);
    // Any mapping but a plain dict tells its own order, and may make its values when it is asked.
    return items_of_pairs(checked(PyMapping_Items(mapping.ptr())), name);
  }
  std::vector<Item> items;
  items.reserve(static_cast<std::size_t>(PyDict_Size(mapping.ptr())));
  PyObject* key = nullptr;
  PyObject* value = nullptr;
  // No code of Python's runs in this loop, hence no other thread's either.
  for (Py_ssize_t position = 0; PyDict_Next(mapping.ptr(), &position, &key, &value) != 0;)
    items.push_back({nb::borrow(key), nb::borrow(value)});
  return items;
}

std::vector<Item> items_of_pairs(nb::handle pairs, std::string_view name) {
  std::vector<Item> items;
  for (const nb::object& given : elements_of(pairs, name)) {
    const nb::object pair = nb::steal(PySequence_Tuple(given.ptr()));
    if (!pair.is_valid() && PyErr_ExceptionMatches(PyExc_TypeError) == 0) throw nb::python_error();
    PyErr_Clear();
    if (!pair.is_valid() || PyTuple_Size(pair.ptr()) != 2) refuse(name, "a mapping whose items are pairs", given);
    items.push_back({nb::borrow(PyTuple_GetItem(pair.ptr(), 0)), nb::borrow(PyTuple_GetItem(pair.ptr(), 1))});
  }
  return items;
}

Text text_of(nb::handle text) {
  Py_ssize_t size = 0;
  if (const char* bytes = PyUnicode_AsUTF8AndSize(text.ptr(), &size)) return std::string_view(bytes, static_cast<std::size_t>(size));
  PyErr_Clear();
  const nb::object bytes = checked(PyUnicode_AsEncodedString(text.ptr(), "utf-8", "surrogatepass"));
  return std::string_view(PyBytes_AsString(bytes.ptr()), static_cast<std::size_t>(PyBytes_Size(bytes.ptr())));
}

std::string text_form(nb::handle object) {
  return text_of(PyUnicode_CheckExact(object.ptr()) ? nb::borrow(object) : checked(PyObject_Str(object.ptr()))).str();
}

// ---- core to Python --------------------------------------------------------------------------------------

nb::object to_python(const Value& value, const Origins* origins) { return Writer(origins).write(value); }
nb::object to_python(const Document& document, const Origins* origins) { return Writer(origins).write(document); }

nb::object to_python(std::string_view text) {
  const auto size = static_cast<Py_ssize_t>(text.size());
  nb::object decoded = nb::steal(PyUnicode_DecodeUTF8(text.data(), size, "surrogatepass"));
  if (decoded.is_valid() || PyErr_ExceptionMatches(PyExc_UnicodeDecodeError) == 0) return checked(decoded.release().ptr());
  PyErr_Clear();
  return checked(PyUnicode_DecodeUTF8(text.data(), size, "surrogateescape"));
}

nb::object path_to_python(std::string_view path) {
  return checked(PyUnicode_DecodeFSDefaultAndSize(path.data(), static_cast<Py_ssize_t>(path.size())));
}

nb::list list_of_paths(const std::vector<std::string>& paths) {
  nb::list result;
  for (const std::string& path : paths) result.append(path_to_python(path));
  return result;
}

nb::object bytes_to_python(std::string_view bytes) {
  return checked(PyBytes_FromStringAndSize(bytes.data(), static_cast<Py_ssize_t>(bytes.size())));
}

nb::object headers_to_python(const Headers& headers) {
  nb::dict result;
  for (const auto& [name, value] : headers) result[to_python(name)] = to_python(value);
  return result;
}

nb::object to_python(const HttpResult& response) {
  return nb::make_tuple(response.status, headers_to_python(response.headers), bytes_to_python(response.body));
}

}  // namespace brackenfen::sync::python
