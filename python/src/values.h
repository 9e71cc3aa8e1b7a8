#pragma once
// Python values to KRValue and back, on every call that crosses into the library.
//
// Python to KRValue: None is the invalid value, bool a bool, int an int (32 bits), float a
// float (single precision, as everywhere on the platform), str a string, a list, a tuple or a
// NumPy array an array of the converted elements; NumPy scalars count as the Python numbers they
// stand for. Anything else raises TypeError naming the argument.
// KRValue to Python: the reverse; a float comes back as the shortest decimal that reads back as
// the same single-precision number, so that 0.8 set is 0.8 read.

#include <string>
#include <vector>

#include <pybind11/pybind11.h>

#include <kr/value/krvalue.h>

namespace KR {
namespace Py {

namespace py = pybind11;

/// `what` names the value in the TypeError, e.g. "registerTarget: argument 'params'".
KRValue toValue(py::handle object, const std::string& what);
py::object toPython(const KRValue& value);

/// The arguments of a call, converted one by one; `names` name them in errors (a position
/// without a name is called "argument N").
std::vector<KRValue> toArguments(const std::string& method, const py::args& args,
                                 const std::vector<std::string>& names = {});

/// krtracker.KRError, a RuntimeError, for the library's errors (KR::KRError).
void bindValues(py::module_& m);

}  // namespace Py
}  // namespace KR
