// Nonnegative-cone NT scaling on the device: a batch of diagonal matrices
// diag(z / s), one thread per output entry.
#include "cones/math/batch_index.hpp"
#include "cuda/dravik_cuda.h"
#include "cuda/frame.cuh"

namespace dravik::cuda {

__global__ void nonnegative_nt_scaling_kernel(const double* s, const double* z, double* out,
                                              size_t dim, size_t batch) {
    const size_t e = static_cast<size_t>(blockIdx.x) * blockDim.x + threadIdx.x;
    if (e >= dim * dim * batch) return;
    const BatchEntry at = batch_entry(e, dim);
    if (at.row != at.col) {
        out[e] = 0.0;
        return;
    }
    const size_t i = at.item * dim + at.row;
    out[e] = z[i] / s[i];
}

}  // namespace dravik::cuda

using namespace dravik::cuda;

extern "C" void dravik_nonnegative_nt_scaling_batch_cuda(const double* s, const double* z,
                                                         double* out, size_t dim, size_t batch,
                                                         int device, cudaStream_t stream) {
    ensure_device(device);
    const size_t entries = dim * dim * batch;
    if (entries == 0) return;
    DRAVIK_LAUNCH(nonnegative_nt_scaling_kernel, ceil_blocks(entries), kThreads, 0, stream, s, z,
                  out, dim, batch);
}
