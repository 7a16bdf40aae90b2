// The zero cone on the device: projection (zeros), violation and membership
// through the reductions, and the NT batch of identity matrices.
#include "cuda/dravik_cuda.h"
#include "cuda/dravik_kit_cuda.h"
#include "cuda/frame.cuh"
#include "cuda/kit_kernels.cuh"
#include "cuda/reductions.cuh"
#include "math/batch_index.hpp"
#include "math/zero_kit.hpp"

namespace dravik::cuda {

__global__ void zero_nt_scaling_kernel(double* out, size_t rows, size_t batch) {
    const size_t e = static_cast<size_t>(blockIdx.x) * blockDim.x + threadIdx.x;
    if (e >= rows * rows * batch) return;
    const BatchEntry at = batch_entry(e, rows);
    out[e] = at.row == at.col ? 1.0 : 0.0;
}

}  // namespace dravik::cuda

using namespace dravik::cuda;

extern "C" void dravik_zero_nt_scaling_batch_cuda(double* out, size_t rows, size_t batch,
                                                  int device, cudaStream_t stream) {
    ensure_device(device);
    const size_t entries = rows * rows * batch;
    if (entries == 0) return;
    DRAVIK_LAUNCH(zero_nt_scaling_kernel, ceil_blocks(entries), kThreads, 0, stream, out, rows,
                  batch);
}

extern "C" {

void dravik_zero_project_cuda(const double* /*x*/, double* out, size_t rows, int device,
                              cudaStream_t stream) {
    ensure_device(device);
    if (rows == 0) return;
    check_cuda(cudaMemsetAsync(out, 0, rows * sizeof(double), stream), "cudaMemsetAsync");
}

double dravik_zero_violation_cuda(const double* x, size_t rows, int device) {
    return elementwise_violation(x, rows, device, kReduceWhole);
}

bool dravik_zero_contains_cuda(const double* x, size_t rows, int device, double atol) {
    return elementwise_contains(x, rows, device, atol, kReduceWhole);
}

}  // extern "C"

// ------------------------------------------------------------- solver kit

namespace {
using dravik::mirel::cones::cpp::ZeroKit;
}  // namespace

extern "C" {

void dravik_zero_identity_cuda(double* out, size_t rows, size_t batch, int device,
                               cudaStream_t stream) {
    ensure_device(device);
    if (rows * batch == 0) return;
    check_cuda(cudaMemsetAsync(out, 0, rows * batch * sizeof(double), stream), "cudaMemsetAsync");
}

void dravik_zero_nt_hessian_cuda(const double* scaling, double* out, size_t rows, size_t batch,
                                 bool inverse, int device, cudaStream_t stream) {
    kit_hessian(ZeroKit{rows}, scaling, out, inverse, batch, device, stream);
}

void dravik_zero_nt_hessian_csr_cuda(const double* scaling, const int64_t* indptr,
                                     const int64_t* indices, double* values, size_t nnz,
                                     size_t rows, size_t row_offset, size_t batch, bool inverse,
                                     double scale, int device, cudaStream_t stream) {
    kit_fill(true, ZeroKit{rows}, scaling, indptr, indices, values, nnz, row_offset, batch,
             inverse, scale, device, stream);
}

void dravik_zero_nt_hessian_coo_cuda(const double* scaling, const int64_t* row_indices,
                                     const int64_t* col_indices, double* values, size_t nnz,
                                     size_t rows, size_t row_offset, size_t batch, bool inverse,
                                     double scale, int device, cudaStream_t stream) {
    kit_fill(false, ZeroKit{rows}, scaling, row_indices, col_indices, values, nnz, row_offset,
             batch, inverse, scale, device, stream);
}

}  // extern "C"
