#include "bindings/arrays.hpp"

#include <cstdlib>

#define NPY_NO_DEPRECATED_API NPY_1_7_API_VERSION
#define PY_ARRAY_UNIQUE_SYMBOL dravik_numpy_api
#include <numpy/arrayobject.h>

namespace dravik::mirel::cones::cpp {

void init_numpy() {
    if (_import_array() < 0) throw nb::python_error();
}

bool is_numpy_array(PyObject* object) { return PyArray_Check(object); }

Float64Array to_numpy(OwnedArray&& array) {
    double* block = array.data();
    // Nameless capsule whose destructor frees the block.
    PyObject* owner = PyCapsule_New(block, nullptr, [](PyObject* capsule) {
        std::free(PyCapsule_GetPointer(capsule, nullptr));
    });
    if (owner == nullptr) throw nb::python_error();
    array.block.release();  // the capsule owns it now

    npy_intp dims[2] = {static_cast<npy_intp>(array.shape[0]),
                        static_cast<npy_intp>(array.shape[1])};
    PyObject* result = PyArray_SimpleNewFromData(static_cast<int>(array.ndim), dims, NPY_FLOAT64,
                                                 block);
    if (result == nullptr) {
        Py_DECREF(owner);
        throw nb::python_error();
    }
    // Steals the reference, on failure too: the array holds the only one.
    if (PyArray_SetBaseObject(reinterpret_cast<PyArrayObject*>(result), owner) < 0) {
        Py_DECREF(result);
        throw nb::python_error();
    }
    return nb::steal<Float64Array>(result);
}

FloatList to_list(const std::vector<double>& values) {
    PyObject* list = PyList_New(static_cast<Py_ssize_t>(values.size()));
    if (list == nullptr) throw nb::python_error();
    for (size_t i = 0; i < values.size(); ++i) {
        PyObject* item = PyFloat_FromDouble(values[i]);
        if (item == nullptr) {
            Py_DECREF(list);
            throw nb::python_error();
        }
        PyList_SET_ITEM(list, static_cast<Py_ssize_t>(i), item);
    }
    return nb::steal<FloatList>(list);
}

}  // namespace dravik::mirel::cones::cpp
