// The device NT scaling method rules: the method a batch runs by when none
// is forced, as a name. They are pure functions of (dim, batch) and need no
// device, so both the CUDA build and the build without CUDA compile them and
// the method queries answer alike in both. Each rule is named after the
// exported query it answers (dravik_<rule>_cuda).
#pragma once

#include <cstddef>

namespace dravik::mirel::cones::cpp {

// Second-order: the cuBLAS batched products pay off only for small cones in
// batches of at least 16.
inline constexpr size_t kSocCublasMaxDim = 32;
inline constexpr size_t kSocCublasMinBatch = 16;

constexpr bool soc_nt_scaling_uses_cublas(size_t dim, size_t batch) {
    return dim <= kSocCublasMaxDim && batch >= kSocCublasMinBatch;
}

// "cublas" or "custom".
constexpr const char* soc_nt_scaling_default_method(size_t dim, size_t batch) {
    return soc_nt_scaling_uses_cublas(dim, batch) ? "cublas" : "custom";
}

// PSD, dim = matrix order: closed forms up to order 2; the library path
// (which takes orders up to 128) for batches of 16 or more, or from order 8
// on for any non-empty batch; the system's own kernels otherwise. Orders
// above 128 answer "custom", though every PSD NT scaling refuses them.
inline constexpr size_t kPsdAnalyticMaxDim = 2;
inline constexpr size_t kPsdCublasMaxDim = 128;
inline constexpr size_t kPsdCublasMinBatch = 16;
inline constexpr size_t kPsdCublasMinDim = 8;

// "analytic", "cublas" or "custom", the tests taken in this order.
constexpr const char* psd_nt_scaling_default_method(size_t dim, size_t batch) {
    if (dim <= kPsdAnalyticMaxDim) return "analytic";
    if (batch >= kPsdCublasMinBatch) return dim <= kPsdCublasMaxDim ? "cublas" : "custom";
    if (dim >= kPsdCublasMinDim && batch >= 1) return dim <= kPsdCublasMaxDim ? "cublas" : "custom";
    return "custom";
}

}  // namespace dravik::mirel::cones::cpp
