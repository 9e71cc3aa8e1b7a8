#include "values.h"

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>

#include <kr/error.h>

namespace KR {
namespace Py {

namespace {

/// The start of the value's repr, for an error's text.
std::string shown(py::handle object) {
  constexpr std::size_t kLongest = 60;
  std::string text;
  try {
    text = py::str(py::repr(object));
  } catch (const py::error_already_set&) {
    return "...";  // a repr that fails (too deep, a broken __repr__) is left out
  }
  return text.size() > kLongest ? text.substr(0, kLongest) + "..." : text;
}

[[noreturn]] void refuse(const std::string& what, py::handle object, const std::string& why) {
  throw py::type_error(what + ": " + why + " (" + shown(object) + ")");
}

std::string typeName(py::handle object) {
  return py::str(py::type::handle_of(object).attr("__name__"));
}

KRValue fromInt(py::handle object, const std::string& what) {
  int overflow = 0;
  const long long v = PyLong_AsLongLongAndOverflow(object.ptr(), &overflow);
  if (v == -1 && PyErr_Occurred())
    throw py::error_already_set();
  if (overflow != 0 || v < std::numeric_limits<int>::min() || v > std::numeric_limits<int>::max())
    refuse(what, object, "an int must fit in 32 bits");
  return KRValue(static_cast<int>(v));
}

KRValue fromFloat(double v, py::handle object, const std::string& what) {
  if (std::isfinite(v) && std::fabs(v) > static_cast<double>(std::numeric_limits<float>::max()))
    refuse(what, object, "a float must lie within single precision's range");
  return KRValue(static_cast<float>(v));
}

/// Lists nest at most this deep: far beyond any value of the library, and a bound on the stack
/// that converting them takes.
constexpr int kMaxDepth = 32;

KRValue convert(py::handle object, const std::string& what, int depth);

KRValue fromSequence(py::handle object, const std::string& what, int depth) {
  if (depth >= kMaxDepth)
    refuse(what, object, "lists nest at most " + std::to_string(kMaxDepth) + " deep");
  const py::sequence items = py::reinterpret_borrow<py::sequence>(object);
  KRValue::Array array;
  array.reserve(items.size());
  for (std::size_t i = 0; i < items.size(); ++i)
    array.push_back(convert(items[i], what + "[" + std::to_string(i) + "]", depth + 1));
  return KRValue(std::move(array));
}

/// NumPy's scalars and arrays without importing NumPy: they register as numbers and have
/// tolist().
bool isNumpy(py::handle object) {
  const py::object module = py::type::handle_of(object).attr("__module__");
  return py::isinstance<py::str>(module) && std::string(py::str(module)) == "numpy";
}

KRValue convert(py::handle object, const std::string& what, int depth) {
  if (object.is_none())
    return KRValue();
  if (PyBool_Check(object.ptr()))
    return KRValue(object.ptr() == Py_True);
  if (PyLong_Check(object.ptr()))
    return fromInt(object, what);
  if (PyFloat_Check(object.ptr()))
    return fromFloat(PyFloat_AS_DOUBLE(object.ptr()), object, what);
  if (PyUnicode_Check(object.ptr()))
    return KRValue(object.cast<std::string>());
  if (PyList_Check(object.ptr()) || PyTuple_Check(object.ptr()))
    return fromSequence(object, what, depth);
  if (isNumpy(object)) {
    // An array becomes a nested list, a scalar the Python number it holds.
    const py::object plain = object.attr("tolist")();
    if (!isNumpy(plain))
      return convert(plain, what, depth);
  }
  refuse(what, object,
         "a " + typeName(object) +
             " does not convert to a value; expected None, bool, int, float, str or a list of "
             "them");
}

}  // namespace

KRValue toValue(py::handle object, const std::string& what) {
  return convert(object, what, 0);
}

py::object toPython(const KRValue& value) {
  switch (value.type()) {
    case KRValue::Type::Invalid:
      return py::none();
    case KRValue::Type::Bool:
      return py::bool_(value.asBool());
    case KRValue::Type::Int:
      return py::int_(value.asInt());
    case KRValue::Type::Float: {
      // The shortest text of the single-precision number, read back as a double.
      char text[32];
      const auto end = std::to_chars(text, text + sizeof text - 1, value.asFloat()).ptr;
      *end = '\0';
      return py::float_(std::strtod(text, nullptr));
    }
    case KRValue::Type::String:
      return py::str(value.asString());
    case KRValue::Type::Array: {
      py::list list(value.size());
      for (std::size_t i = 0; i < value.size(); ++i)
        list[i] = toPython(value[i]);
      return std::move(list);
    }
  }
  return py::none();
}

std::vector<KRValue> toArguments(const std::string& method, const py::args& args,
                                 const std::vector<std::string>& names) {
  std::vector<KRValue> values;
  values.reserve(args.size());
  for (std::size_t i = 0; i < args.size(); ++i) {
    // Arguments without a name are numbered from 1.
    const std::string name = i < names.size() && !names[i].empty()
                                 ? "argument '" + names[i] + "'"
                                 : "argument " + std::to_string(i + 1);
    values.push_back(toValue(args[i], method + ": " + name));
  }
  return values;
}

void bindValues(py::module_& m) {
  py::register_exception<KRError>(m, "KRError", PyExc_RuntimeError);
  m.attr("KRError").attr("__doc__") =
      "An error of the library, a RuntimeError: its text is the library's, "
      "'module::method: message'.";
}

}  // namespace Py
}  // namespace KR
