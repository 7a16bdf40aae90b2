// Zero-cone NT scaling on the device: a batch of identity matrices.
#include "cones/math/batch_index.hpp"
#include "cuda/dravik_cuda.h"
#include "cuda/frame.cuh"

namespace dravik::cuda {

__global__ void zero_nt_scaling_kernel(double* out, size_t dim, size_t batch) {
    const size_t e = static_cast<size_t>(blockIdx.x) * blockDim.x + threadIdx.x;
    if (e >= dim * dim * batch) return;
    const BatchEntry at = batch_entry(e, dim);
    out[e] = at.row == at.col ? 1.0 : 0.0;
}

}  // namespace dravik::cuda

using namespace dravik::cuda;

extern "C" void dravik_zero_nt_scaling_batch_cuda(double* out, size_t dim, size_t batch, int device,
                                                  cudaStream_t stream) {
    ensure_device(device);
    const size_t entries = dim * dim * batch;
    if (entries == 0) return;
    DRAVIK_LAUNCH(zero_nt_scaling_kernel, ceil_blocks(entries), kThreads, 0, stream, out, dim,
                  batch);
}
