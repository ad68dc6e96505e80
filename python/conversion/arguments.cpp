#include "python/conversion/arguments.hpp"

#include <limits>
#include <utility>

#include "sync/base/error.hpp"

namespace brackenfen::sync::python {
namespace {

/// Refuses after a conversion that failed in Python. What else an object's own conversion raised goes on.
[[noreturn]] void refuse_or_raise(std::string_view name, std::string_view expected, nb::handle object) {
  const nb::python_error raised;
  for (PyObject* unconvertible : {PyExc_TypeError, PyExc_OverflowError, PyExc_BufferError})
    if (raised.matches(unconvertible)) refuse(name, expected, object);
  throw nb::python_error(raised);
}

template <typename Take>
void each(nb::handle iterable, std::string_view name, Take take) {
  require_collection(iterable, name);
  const nb::object iterator = nb::steal(PyObject_GetIter(iterable.ptr()));
  if (!iterator.is_valid()) refuse_or_raise(name, "a collection", iterable);
  while (PyObject* element = PyIter_Next(iterator.ptr())) take(nb::steal(element));
  if (PyErr_Occurred() != nullptr) throw nb::python_error();
}

}  // namespace

void refuse(std::string_view name, std::string_view expected, nb::handle object) {
  const nb::object class_name = checked(PyType_GetName(Py_TYPE(object.ptr())));
  throw TypeError(std::string(name) + " must be " + std::string(expected) + ", not " + text_form(class_name));
}

// ---- scalars -----------------------------------------------------------------------------------------------

std::string text_argument(nb::handle object, std::string_view name) {
  if (!PyUnicode_Check(object.ptr())) refuse(name, "a str", object);
  return text_of(object).str();
}

std::string text_or_empty(nb::handle object, std::string_view name) {
  return object.is_none() ? std::string() : text_argument(object, name);
}

Value text_or_null(nb::handle object) { return PyUnicode_Check(object.ptr()) ? Value(text_of(object)) : Value(); }

std::string path_argument(nb::handle object, std::string_view name) {
  nb::object path = nb::steal(PyOS_FSPath(object.ptr()));
  if (!path.is_valid()) refuse_or_raise(name, "a str or os.PathLike", object);
  if (PyUnicode_Check(path.ptr())) path = checked(PyUnicode_EncodeFSDefault(path.ptr()));
  std::string bytes(PyBytes_AsString(path.ptr()), static_cast<std::size_t>(PyBytes_Size(path.ptr())));
  if (bytes.find('\0') != std::string::npos) throw ValueError(std::string(name) + " holds a null byte");
  return bytes;
}

std::int64_t integer_argument(nb::handle object, std::string_view name) {
  const nb::object index = nb::steal(PyNumber_Index(object.ptr()));
  if (!index.is_valid()) refuse_or_raise(name, "an int", object);
  int overflow = 0;
  const long long number = PyLong_AsLongLongAndOverflow(index.ptr(), &overflow);
  if (overflow != 0) throw OverflowError(std::string(name) + " does not fit 64 bits");
  return number;
}

int count_argument(nb::handle object, std::string_view name) {
  const std::int64_t number = integer_argument(object, name);
  if (!std::in_range<int>(number)) throw OverflowError(std::string(name) + " does not fit 32 bits");
  return static_cast<int>(number);
}

double real_argument(nb::handle object, std::string_view name) {
  const double number = PyFloat_AsDouble(object.ptr());
  if (number == -1.0 && PyErr_Occurred() != nullptr) refuse_or_raise(name, "a float", object);
  return number;
}

nb::object whole_number(nb::handle object, std::string_view name) {
  nb::object number = nb::steal(PyNumber_Long(object.ptr()));
  if (!number.is_valid() && PyErr_ExceptionMatches(PyExc_TypeError) != 0) refuse_or_raise(name, "a number", object);
  return checked(number.release().ptr());
}

nb::handle callable_or_none(nb::handle object, std::string_view name) {
  if (!object.is_none() && PyCallable_Check(object.ptr()) == 0) refuse(name, "callable", object);
  return object;
}

bool truth(nb::handle object) {
  const int answer = PyObject_IsTrue(object.ptr());
  if (answer < 0) throw nb::python_error();
  return answer == 1;
}

BytesArgument::BytesArgument(nb::handle object, std::string_view name) {
  if (PyObject_GetBuffer(object.ptr(), &buffer_, PyBUF_SIMPLE) != 0) refuse_or_raise(name, "bytes-like", object);
}

// ---- iterables ---------------------------------------------------------------------------------------------

void require_collection(nb::handle given, std::string_view name, Reading reading) {
  const bool is_text = PyUnicode_Check(given.ptr()) || PyBytes_Check(given.ptr());
  const bool ends = reading == Reading::Again && PyIter_Check(given.ptr()) != 0;
  if (given.is_none() || is_text || ends) refuse(name, "a collection", given);
}

std::vector<nb::object> elements_of(nb::handle iterable, std::string_view name) {
  std::vector<nb::object> elements;
  each(iterable, name, [&](nb::object element) { elements.push_back(std::move(element)); });
  return elements;
}

nb::object or_empty(nb::handle iterable) { return iterable.is_none() ? nb::object(nb::tuple()) : nb::borrow(iterable); }

std::vector<std::string> texts_argument(nb::handle iterable, std::string_view name) {
  std::vector<std::string> texts;
  each(iterable, name, [&](const nb::object& element) { texts.push_back(text_form(element)); });
  return texts;
}

std::vector<Text> text_list_argument(nb::handle iterable, std::string_view name) {
  std::vector<Text> texts;
  each(iterable, name, [&](const nb::object& element) { texts.emplace_back(text_form(element)); });
  return texts;
}

std::vector<Value> values_argument(nb::handle iterable, std::string_view name) {
  std::vector<Value> values;
  each(iterable, name, [&](const nb::object& element) { values.emplace_back(text_form(element)); });
  return values;
}

std::set<std::string> text_set_argument(nb::handle iterable, std::string_view name) {
  std::set<std::string> texts;
  each(iterable, name, [&](const nb::object& element) { texts.insert(text_form(element)); });
  return texts;
}

std::vector<Value> texts_or_nulls_argument(nb::handle iterable, std::string_view name) {
  std::vector<Value> values;
  each(iterable, name, [&](const nb::object& element) { values.push_back(text_or_null(element)); });
  return values;
}

Document entries_argument(nb::handle mapping, std::string_view name) {
  const std::string deeper = std::string(name) + "[...]";
  std::vector<Member> members;
  for (const Item& item : mapping_items(mapping, name))
    members.push_back({text_argument(item.key, name), document_argument(item.value, deeper)});
  return Document(std::move(members));
}

// ---- attributes --------------------------------------------------------------------------------------------

nb::object optional_attribute(nb::handle object, const char* attribute) {
  nb::object found = nb::steal(PyObject_GetAttrString(object.ptr(), attribute));
  if (found.is_valid()) return found;
  const nb::python_error raised;
  if (!raised.matches(PyExc_AttributeError)) throw nb::python_error(raised);
  // An object's own code may miss something else on the way.
  const nb::object missing = nb::steal(PyObject_GetAttrString(raised.value().ptr(), "name"));
  if (!missing.is_valid()) throw nb::python_error();
  if (PyUnicode_Check(missing.ptr()) && text_of(missing).view() != attribute) throw nb::python_error(raised);
  return {};
}

nb::object attribute_or_none(nb::handle object, const char* attribute) {
  nb::object found = optional_attribute(object, attribute);
  return found.is_valid() ? found : nb::object(nb::none());
}

nb::object required_attribute(nb::handle object, const char* attribute, std::string_view name) {
  nb::object found = optional_attribute(object, attribute);
  if (!found.is_valid()) refuse(name, std::string("an object with ") + attribute, object);
  return found;
}

nb::object mapping_item(nb::handle mapping, const char* key) {
  nb::object found = nb::steal(PyMapping_GetItemString(mapping.ptr(), key));
  if (found.is_valid()) return found;
  if (PyErr_ExceptionMatches(PyExc_KeyError) == 0) throw nb::python_error();
  PyErr_Clear();
  return nb::none();
}

}  // namespace brackenfen::sync::python
