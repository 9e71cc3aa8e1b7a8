#pragma once
// Python's garbage collector told about the Python objects a bound C++ class holds, so that a
// cycle through them (a callback that refers back to its simulation, a proxy kept by one) is
// collected rather than leaked. T provides traverse(visit, arg) and clear().

#include <pybind11/pybind11.h>

namespace KR {
namespace Py {

namespace py = pybind11;

/// The C++ object of a bound instance; null before its __init__ has built it.
template <class T>
T* instanceOf(PyObject* self) {
  auto* instance = reinterpret_cast<py::detail::instance*>(self);
  const py::detail::value_and_holder holder = instance->get_value_and_holder(nullptr, false);
  return holder && holder.holder_constructed() ? static_cast<T*>(holder.value_ptr()) : nullptr;
}

/// The class_ attribute that makes T's instances visible to the collector.
template <class T>
py::custom_type_setup collectable() {
  return py::custom_type_setup([](PyHeapTypeObject* heap) {
    PyTypeObject* type = &heap->ht_type;
    type->tp_flags |= Py_TPFLAGS_HAVE_GC;
    type->tp_traverse = [](PyObject* self, visitproc visit, void* arg) -> int {
      Py_VISIT(Py_TYPE(self));  // a heap type's instances own a reference to it
      T* object = instanceOf<T>(self);
      return object != nullptr ? object->traverse(visit, arg) : 0;
    };
    type->tp_clear = [](PyObject* self) -> int {
      if (T* object = instanceOf<T>(self))
        object->clear();
      return 0;
    };
    // Out of the collector's sight before the C++ object goes.
    type->tp_dealloc = [](PyObject* self) {
      PyObject_GC_UnTrack(self);
      py::detail::pybind11_object_dealloc(self);
    };
  });
}

}  // namespace Py
}  // namespace KR
