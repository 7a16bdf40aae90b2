// The nonnegative cone on the device: the projection (one, two or four
// entries per thread), violation and membership through the reductions, and
// the NT batch of diagonal matrices diag(z / s), one thread per output entry.
#include "cuda/dravik_cuda.h"
#include "cuda/dravik_kit_cuda.h"
#include "cuda/frame.cuh"
#include "cuda/kit_kernels.cuh"
#include "cuda/reductions.cuh"
#include "math/batch_index.hpp"
#include "math/nonnegative.hpp"
#include "math/nonnegative_kit.hpp"

namespace dravik::cuda {

__global__ void nonnegative_nt_scaling_kernel(const double* s, const double* z, double* out,
                                              size_t rows, size_t batch) {
    const size_t e = static_cast<size_t>(blockIdx.x) * blockDim.x + threadIdx.x;
    if (e >= rows * rows * batch) return;
    const BatchEntry at = batch_entry(e, rows);
    if (at.row != at.col) {
        out[e] = 0.0;
        return;
    }
    const size_t i = at.item * rows + at.row;
    out[e] = z[i] / s[i];
}

namespace cone = dravik::mirel::cones::cpp;

// Nonnegative projection, one, two or four entries per thread.
__global__ void nonnegative_kernel(const double* in, double* out, size_t count) {
    const size_t e = static_cast<size_t>(blockIdx.x) * blockDim.x + threadIdx.x;
    if (e < count) out[e] = cone::nonnegative_clip(in[e]);
}

__global__ void nonnegative2_kernel(const double2* in, double2* out, size_t count) {
    const size_t e = static_cast<size_t>(blockIdx.x) * blockDim.x + threadIdx.x;
    if (e >= count) return;
    const double2 v = in[e];
    out[e] = make_double2(cone::nonnegative_clip(v.x), cone::nonnegative_clip(v.y));
}

__global__ void nonnegative4_kernel(const double4_32a* in, double4_32a* out, size_t count) {
    const size_t e = static_cast<size_t>(blockIdx.x) * blockDim.x + threadIdx.x;
    if (e >= count) return;
    const double4_32a v = in[e];
    out[e] = make_double4_32a(cone::nonnegative_clip(v.x), cone::nonnegative_clip(v.y),
                              cone::nonnegative_clip(v.z), cone::nonnegative_clip(v.w));
}

namespace {

bool aligned_to(const void* p, uintptr_t bytes) {
    return reinterpret_cast<uintptr_t>(p) % bytes == 0;
}

}  // namespace

}  // namespace dravik::cuda

using namespace dravik::cuda;

extern "C" void dravik_nonnegative_nt_scaling_batch_cuda(const double* s, const double* z,
                                                         double* out, size_t rows, size_t batch,
                                                         int device, cudaStream_t stream) {
    ensure_device(device);
    const size_t entries = rows * rows * batch;
    if (entries == 0) return;
    DRAVIK_LAUNCH(nonnegative_nt_scaling_kernel, ceil_blocks(entries), kThreads, 0, stream, s, z,
                  out, rows, batch);
}

extern "C" {

void dravik_nonnegative_project_cuda(const double* x, double* out, size_t rows, int device,
                                     cudaStream_t stream) {
    ensure_device(device);
    if (rows == 0) return;
    if (rows % 4 == 0 && aligned_to(x, 32) && aligned_to(out, 32)) {
        const size_t count = rows / 4;
        DRAVIK_LAUNCH(nonnegative4_kernel, ceil_blocks(count), kThreads, 0, stream,
                      reinterpret_cast<const double4_32a*>(x), reinterpret_cast<double4_32a*>(out),
                      count);
    } else if (rows % 2 == 0 && aligned_to(x, 16) && aligned_to(out, 16)) {
        const size_t count = rows / 2;
        DRAVIK_LAUNCH(nonnegative2_kernel, ceil_blocks(count), kThreads, 0, stream,
                      reinterpret_cast<const double2*>(x), reinterpret_cast<double2*>(out), count);
    } else {
        DRAVIK_LAUNCH(nonnegative_kernel, ceil_blocks(rows), kThreads, 0, stream, x, out, rows);
    }
}

double dravik_nonnegative_violation_cuda(const double* x, size_t rows, int device) {
    return elementwise_violation(x, rows, device, kReduceNegative);
}

bool dravik_nonnegative_contains_cuda(const double* x, size_t rows, int device, double atol) {
    return elementwise_contains(x, rows, device, atol, kReduceNegative);
}

}  // extern "C"

// ------------------------------------------------------------- solver kit
// Entrywise: the NT scaling, scaled point, apply, Jordan operations, identity
// and step run one entry per thread (the kit of one entry over rows * batch
// items); H and the fills see whole items.

namespace {
using dravik::mirel::cones::cpp::NonnegativeKit;
constexpr NonnegativeKit kEntry{1};
}  // namespace

extern "C" {

void dravik_nonnegative_identity_cuda(double* out, size_t rows, size_t batch, int device,
                                      cudaStream_t stream) {
    kit_identity(kEntry, out, rows * batch, device, stream);
}

double dravik_nonnegative_max_step_cuda(const double* x, const double* dx, size_t rows,
                                        size_t batch, int device, cudaStream_t stream) {
    return kit_max_step(kEntry, x, dx, rows * batch, device, stream);
}

void dravik_nonnegative_nt_scaling_cuda(const double* s, const double* z, double* scaling,
                                        size_t rows, size_t batch, int device,
                                        cudaStream_t stream) {
    kit_nt_scaling(kEntry, s, z, 0.0, scaling, rows * batch, device, stream);
}

void dravik_nonnegative_nt_scaled_point_cuda(const double* scaling, double* lam, size_t rows,
                                             size_t batch, int device, cudaStream_t stream) {
    kit_scaled_point(kEntry, scaling, lam, rows * batch, device, stream);
}

void dravik_nonnegative_nt_apply_cuda(const double* scaling, const double* x, double* out,
                                      size_t rows, size_t batch, bool inverse, int device,
                                      cudaStream_t stream) {
    kit_apply(kEntry, scaling, x, out, inverse, rows * batch, device, stream);
}

void dravik_nonnegative_nt_hessian_cuda(const double* scaling, double* out, size_t rows,
                                        size_t batch, bool inverse, int device,
                                        cudaStream_t stream) {
    kit_hessian(NonnegativeKit{rows}, scaling, out, inverse, batch, device, stream);
}

void dravik_nonnegative_nt_hessian_csr_cuda(const double* scaling, const int64_t* indptr,
                                            const int64_t* indices, double* values, size_t nnz,
                                            size_t rows, size_t row_offset, size_t batch,
                                            bool inverse, double scale, int device,
                                            cudaStream_t stream) {
    kit_fill(true, NonnegativeKit{rows}, scaling, indptr, indices, values, nnz, row_offset, batch,
             inverse, scale, device, stream);
}

void dravik_nonnegative_nt_hessian_coo_cuda(const double* scaling, const int64_t* row_indices,
                                            const int64_t* col_indices, double* values,
                                            size_t nnz, size_t rows, size_t row_offset,
                                            size_t batch, bool inverse, double scale, int device,
                                            cudaStream_t stream) {
    kit_fill(false, NonnegativeKit{rows}, scaling, row_indices, col_indices, values, nnz,
             row_offset, batch, inverse, scale, device, stream);
}

void dravik_nonnegative_jordan_product_cuda(const double* x, const double* y, double* out,
                                            size_t rows, size_t batch, int device,
                                            cudaStream_t stream) {
    kit_jordan_product(kEntry, x, y, out, rows * batch, device, stream);
}

void dravik_nonnegative_jordan_divide_cuda(const double* lam, const double* v, double* out,
                                           size_t rows, size_t batch, int device,
                                           cudaStream_t stream) {
    kit_jordan_divide(kEntry, lam, v, out, rows * batch, device, stream);
}

}  // extern "C"
