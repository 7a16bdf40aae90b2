// has_cuda, cuda_runtime_version and the constant capability answers.
#include <nanobind/nanobind.h>
#include <nanobind/stl/string.h>

#include "bindings/registration.hpp"
#include "cuda/dravik_cuda.h"

namespace dravik::mirel::cones::cpp {

void register_capabilities(nanobind::module_& m) {
    m.def("has_cuda", [] { return dravik_cuda_available(); });
    m.def("cuda_runtime_version", [] { return dravik_cuda_runtime_version(); });
    m.def("has_host_blas", [] { return true; });
    m.def("has_cublas", [] { return true; });
    m.def("has_cusolver", [] { return true; });
    m.def("host_blas_backend", [] { return "AUTO"; });
}

}  // namespace dravik::mirel::cones::cpp
