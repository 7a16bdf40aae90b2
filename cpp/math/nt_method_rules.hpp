// The device NT scaling method rules: the method a batch runs by when none
// is forced, as a name. They are pure functions of the cone's size (rows for
// second-order, the matrix order for PSD) and the batch, and need no device,
// so both the CUDA build and the build without CUDA compile them and the
// method queries answer alike in both. Each rule is named after the exported
// query it answers (dravik_<rule>_cuda).
#pragma once

#include <cstddef>

namespace dravik::mirel::cones::cpp {

// Second-order: the cuBLAS batched products pay off only for small cones in
// batches of at least 16.
inline constexpr size_t kSocCublasMaxRows = 32;
inline constexpr size_t kSocCublasMinBatch = 16;

constexpr bool soc_nt_scaling_uses_cublas(size_t rows, size_t batch) {
    return rows <= kSocCublasMaxRows && batch >= kSocCublasMinBatch;
}

// "cublas" or "custom".
constexpr const char* soc_nt_scaling_default_method(size_t rows, size_t batch) {
    return soc_nt_scaling_uses_cublas(rows, batch) ? "cublas" : "custom";
}

// PSD, by matrix order: closed forms up to order 2; the library path
// (which takes orders up to 128) for batches of 16 or more, or from order 8
// on for any non-empty batch; the system's own kernels otherwise. Orders
// above 128 answer "custom", though every PSD NT scaling refuses them.
inline constexpr size_t kPsdAnalyticMaxOrder = 2;
inline constexpr size_t kPsdCublasMaxOrder = 128;
inline constexpr size_t kPsdCublasMinBatch = 16;
inline constexpr size_t kPsdCublasMinOrder = 8;

// "analytic", "cublas" or "custom", the tests taken in this order.
constexpr const char* psd_nt_scaling_default_method(size_t order, size_t batch) {
    if (order <= kPsdAnalyticMaxOrder) return "analytic";
    if (batch >= kPsdCublasMinBatch) return order <= kPsdCublasMaxOrder ? "cublas" : "custom";
    if (order >= kPsdCublasMinOrder && batch >= 1) {
        return order <= kPsdCublasMaxOrder ? "cublas" : "custom";
    }
    return "custom";
}

}  // namespace dravik::mirel::cones::cpp
