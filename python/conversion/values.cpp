#include "python/conversion/values.hpp"

#include <array>

#include "sync/base/error.hpp"
#include "sync/base/values/json.hpp"

namespace brackenfen::sync::python {
namespace {

/// Decimal text and Python integers are converted in blocks of this many digits: Python refuses more than
/// 4,300 at once.
constexpr std::size_t BLOCK_DIGITS = 4000;

std::string class_name(nb::handle object) { return text_form(object.type().attr("__name__")); }

[[noreturn]] void refuse(const char* name, const std::string& expected, nb::handle object) {
  throw TypeError(std::string(name) + " must be " + expected + ", not " + class_name(object));
}

/// The same after a conversion that failed in Python. What else an object's own conversion raised goes on.
[[noreturn]] void refuse_or_raise(const char* name, const std::string& expected, nb::handle object) {
  const nb::python_error raised;
  for (PyObject* unconvertible : {PyExc_TypeError, PyExc_OverflowError, PyExc_BufferError})
    if (raised.matches(unconvertible)) refuse(name, expected, object);
  throw nb::python_error(raised);
}

/// Enters one level of recursion, as Python counts them.
class Level {
 public:
  explicit Level(const char* where) {
    if (Py_EnterRecursiveCall(where) != 0) throw nb::python_error();
  }
  Level(const Level&) = delete;
  Level& operator=(const Level&) = delete;
  ~Level() { Py_LeaveRecursiveCall(); }
};

Text text_of(nb::handle text) {
  Py_ssize_t size = 0;
  if (const char* bytes = PyUnicode_AsUTF8AndSize(text.ptr(), &size)) return std::string_view(bytes, static_cast<std::size_t>(size));
  PyErr_Clear();
  const nb::object bytes = checked(PyUnicode_AsEncodedString(text.ptr(), "utf-8", "surrogatepass"));
  return std::string_view(PyBytes_AsString(bytes.ptr()), static_cast<std::size_t>(PyBytes_Size(bytes.ptr())));
}

nb::object power_of_ten(std::size_t exponent) { return checked(PyNumber_Power(nb::int_(10).ptr(), nb::int_(exponent).ptr(), Py_None)); }

/// Decimal text of an integer of any size.
std::string decimal_of(nb::handle integer) {
  if (const nb::object text = nb::steal(PyObject_Str(integer.ptr())); text.is_valid()) return text_form(text);
  PyErr_Clear();
  nb::object rest = checked(PyNumber_Absolute(integer.ptr()));
  const bool negative = PyObject_RichCompareBool(integer.ptr(), nb::int_(0).ptr(), Py_LT) == 1;
  const nb::object block = power_of_ten(BLOCK_DIGITS);
  std::vector<std::string> blocks;
  while (truth(rest)) {
    const nb::object pair = checked(PyNumber_Divmod(rest.ptr(), block.ptr()));
    rest = pair[0];
    std::string digits = text_form(pair[1]);
    if (truth(rest)) digits.insert(0, BLOCK_DIGITS - digits.size(), '0');
    blocks.push_back(std::move(digits));
  }
  std::string decimal = negative ? "-" : "";
  for (auto part = blocks.rbegin(); part != blocks.rend(); ++part) decimal += *part;
  return decimal;
}

nb::object integer_from(std::string_view decimal) {
  if (decimal.size() <= BLOCK_DIGITS) return checked(PyLong_FromString(std::string(decimal).c_str(), nullptr, 10));
  const bool negative = decimal.starts_with('-');
  if (negative) decimal.remove_prefix(1);
  nb::object result = nb::int_(0);
  while (!decimal.empty()) {
    const std::string digits(decimal.substr(0, BLOCK_DIGITS));
    decimal.remove_prefix(digits.size());
    const nb::object scaled = checked(PyNumber_Multiply(result.ptr(), power_of_ten(digits.size()).ptr()));
    result = checked(PyNumber_Add(scaled.ptr(), checked(PyLong_FromString(digits.c_str(), nullptr, 10)).ptr()));
  }
  return negative ? checked(PyNumber_Negative(result.ptr())) : result;
}

/// One conversion of one argument.
class Reader {
 public:
  Reader(const char* name, Origins* origins) : name_(name), origins_(origins) {}

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
    if (!is_mapping(object)) refuse(name_, "a mapping", object);
    const Nesting nesting(*this);
    std::vector<Member> members;
    if (PyDict_CheckExact(object.ptr())) {
      members.reserve(static_cast<std::size_t>(PyDict_Size(object.ptr())));
      PyObject* key = nullptr;
      PyObject* item = nullptr;
      Py_ssize_t position = 0;
      while (PyDict_Next(object.ptr(), &position, &key, &item) != 0) {
        // Owned for the moment: converting a foreign mapping runs Python code, which may change the dict.
        const nb::object owned_key = nb::borrow(key);
        const nb::object owned_item = nb::borrow(item);
        members.push_back({this->key(owned_key), read(owned_item)});
      }
    } else {
      // Any other mapping tells its own order.
      const nb::object items = checked(PyMapping_Items(object.ptr()));
      for (nb::handle pair : nb::borrow<nb::list>(items)) members.push_back({key(pair[0]), read(pair[1])});
    }
    Document result(std::move(members));
    if (origins_ != nullptr && !result.empty()) origins_->remember(result.begin(), object.ptr());
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
    std::vector<Value> elements;
    const Py_ssize_t size = PySequence_Size(object.ptr());
    elements.reserve(static_cast<std::size_t>(std::max<Py_ssize_t>(size, 0)));
    for (nb::handle element : nb::iter(object)) elements.push_back(read(element));
    List result(std::move(elements));
    if (origins_ != nullptr && !result.empty()) origins_->remember(result.begin(), object.ptr());
    return result;
  }

  const char* name_;
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

PyObject* Origins::find(const void* node) const noexcept {
  const auto found = objects_.find(node);
  return found == objects_.end() ? nullptr : found->second;
}

Value value_argument(nb::handle object, const char* name, Origins* origins) { return Reader(name, origins).read(object); }

Document document_argument(nb::handle object, const char* name, Origins* origins) { return Reader(name, origins).document(object); }

Value loose_value(nb::handle object) {
  try {
    return value_argument(object, "value");
  } catch (const Error& error) {
    if (error.is(error_class::TypeError)) return {};
    throw;
  }
}

bool is_mapping(nb::handle object) {
  if (PyDict_Check(object.ptr())) return true;
  if (PyList_Check(object.ptr()) || PyUnicode_Check(object.ptr())) return false;
  const int answer = PyObject_IsInstance(object.ptr(), nb::module_::import_("collections.abc").attr("Mapping").ptr());
  if (answer < 0) throw nb::python_error();
  return answer == 1;
}

std::string text_argument(nb::handle object, const char* name) {
  if (!PyUnicode_Check(object.ptr())) refuse(name, "a str", object);
  return text_of(object).str();
}

std::string path_argument(nb::handle object, const char* name) {
  nb::object path = nb::steal(PyOS_FSPath(object.ptr()));
  if (!path.is_valid()) refuse_or_raise(name, "a str or os.PathLike", object);
  if (PyUnicode_Check(path.ptr())) path = checked(PyUnicode_EncodeFSDefault(path.ptr()));
  std::string bytes(PyBytes_AsString(path.ptr()), static_cast<std::size_t>(PyBytes_Size(path.ptr())));
  if (bytes.find('\0') != std::string::npos) throw ValueError(std::string(name) + " holds a null byte");
  return bytes;
}

std::int64_t integer_argument(nb::handle object, const char* name) {
  const nb::object index = nb::steal(PyNumber_Index(object.ptr()));
  if (!index.is_valid()) refuse_or_raise(name, "an int", object);
  int overflow = 0;
  const long long number = PyLong_AsLongLongAndOverflow(index.ptr(), &overflow);
  if (overflow != 0) throw OverflowError(std::string(name) + " does not fit 64 bits");
  return number;
}

double real_argument(nb::handle object, const char* name) {
  const double number = PyFloat_AsDouble(object.ptr());
  if (number == -1.0 && PyErr_Occurred() != nullptr) refuse_or_raise(name, "a float", object);
  return number;
}

bool truth(nb::handle object) {
  const int answer = PyObject_IsTrue(object.ptr());
  if (answer < 0) throw nb::python_error();
  return answer == 1;
}

nb::object mapping_item(nb::handle mapping, const char* key) {
  nb::object found = nb::steal(PyMapping_GetItemString(mapping.ptr(), key));
  if (found.is_valid()) return found;
  if (PyErr_ExceptionMatches(PyExc_KeyError) == 0) throw nb::python_error();
  PyErr_Clear();
  return nb::none();
}

std::string text_form(nb::handle object) {
  return text_of(PyUnicode_CheckExact(object.ptr()) ? nb::borrow(object) : checked(PyObject_Str(object.ptr()))).str();
}

namespace {
template <typename Take>
void each(nb::handle iterable, const char* name, Take take) {
  if (iterable.is_none()) return;
  const nb::object iterator = nb::steal(PyObject_GetIter(iterable.ptr()));
  if (!iterator.is_valid()) refuse_or_raise(name, "an iterable", iterable);
  while (PyObject* element = PyIter_Next(iterator.ptr())) take(nb::steal(element));
  if (PyErr_Occurred() != nullptr) throw nb::python_error();
}
}  // namespace

std::vector<std::string> texts_argument(nb::handle iterable, const char* name) {
  std::vector<std::string> texts;
  each(iterable, name, [&](const nb::object& element) { texts.push_back(text_form(element)); });
  return texts;
}

std::vector<Value> values_argument(nb::handle iterable, const char* name) {
  std::vector<Value> values;
  each(iterable, name, [&](const nb::object& element) { values.emplace_back(text_form(element)); });
  return values;
}

std::vector<Value> loose_values_argument(nb::handle iterable, const char* name) {
  std::vector<Value> values;
  each(iterable, name, [&](const nb::object& element) { values.push_back(loose_value(element)); });
  return values;
}

std::set<std::string> text_set_argument(nb::handle iterable, const char* name) {
  std::set<std::string> texts;
  each(iterable, name, [&](const nb::object& element) { texts.insert(text_form(element)); });
  return texts;
}

BytesArgument::BytesArgument(nb::handle object, const char* name) {
  if (PyObject_GetBuffer(object.ptr(), &buffer_, PyBUF_SIMPLE) != 0) refuse_or_raise(name, "bytes-like", object);
}

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
