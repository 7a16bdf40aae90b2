// The three array parameter kinds as nanobind types, and the conversions
// between nanobind objects and the system's views, owned arrays and lists.
#pragma once

#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>

#include <cstdint>
#include <vector>

#include "core/owned_array.hpp"
#include "core/views.hpp"

namespace dravik::mirel::cones::cpp {

namespace nb = nanobind;

using ReadVector = nb::ndarray<const double, nb::ndim<1>, nb::c_contig>;
using WriteVector = nb::ndarray<double, nb::ndim<1>, nb::c_contig>;
using IndexVector = nb::ndarray<const int64_t, nb::ndim<1>, nb::c_contig>;

template <class Array>
ArrayRef array_ref(const Array& a) {
    return {const_cast<void*>(static_cast<const void*>(a.data())), static_cast<uint64_t>(a.shape(0)),
            a.device_type(), a.device_id()};
}

// Loads NumPy's C interface; called once by the module entry.
void init_numpy();
bool is_numpy_array(PyObject* object);

// The two result types, named as they are in signatures and the type stub:
// a NumPy float64 array, and a list of floats.
class Float64Array : public nb::object {
    NB_OBJECT_DEFAULT(Float64Array, nb::object, "numpy.typing.NDArray[numpy.float64]",
                      is_numpy_array)
};
using FloatList = nb::typed<nb::list, double>;

// Hands the block to NumPy without a copy: a new array over the block whose
// base is a nameless capsule that frees the block when the array dies.
Float64Array to_numpy(OwnedArray&& array);

// A new list filled element by element with new float objects.
FloatList to_list(const std::vector<double>& values);

}  // namespace dravik::mirel::cones::cpp
