// Module entry of _cpp_cuda.
#include <nanobind/nanobind.h>

#include "bindings/arrays.hpp"
#include "bindings/registration.hpp"

namespace nb = nanobind;
using namespace dravik::mirel::cones::cpp;

NB_MODULE(_cpp_cuda, m) {
    m.doc() = "Compiled cone primitives (host and CUDA) for dravik.mirel.cones.cpp.";
    init_numpy();
    register_capabilities(m);
    // Cone classes, in this order: ZeroConeCpp, NonnegativeConeCpp,
    // SecondOrderConeCpp, PsdConeCpp, ExponentialConeCpp.
    register_zero_cone(m);
    register_nonnegative_cone(m);
    register_second_order_cone(m);
    register_psd_cone(m);
    register_exponential_cone(m);
    // The PSD packing functions after the classes.
    register_psd_functions(m);
}
