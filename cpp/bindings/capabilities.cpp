// has_cuda, cuda_runtime_version and the capability answers, which tell what
// this build can do: a build without CUDA (DRAVIK_CPU_ONLY) has no cuBLAS and
// no cuSOLVER, and its device interface reports no device and no runtime.
#include <nanobind/nanobind.h>
#include <nanobind/stl/string.h>

#include "bindings/registration.hpp"
#include "cuda/dravik_cuda.h"

namespace dravik::mirel::cones::cpp {

namespace {
#ifdef DRAVIK_CPU_ONLY
constexpr bool kCudaLibraries = false;
#else
constexpr bool kCudaLibraries = true;
#endif
}  // namespace

void register_capabilities(nanobind::module_& m) {
    m.def("has_cuda", [] { return dravik_cuda_available(); });
    m.def("cuda_runtime_version", [] { return dravik_cuda_runtime_version(); });
    m.def("has_host_blas", [] { return true; });
    m.def("has_cublas", [] { return kCudaLibraries; });
    m.def("has_cusolver", [] { return kCudaLibraries; });
    m.def("host_blas_backend", [] { return "AUTO"; });
}

}  // namespace dravik::mirel::cones::cpp
