// Exponential-cone NT scaling on the device: a batch of block-diagonal
// (3m) x (3m) matrices, one thread per output entry. Entries inside block k
// come from the rank-two map taking block k of s onto block k of z (no
// interior test, no norm check); every other entry is 0.0.
#include "cones/math/batch_index.hpp"
#include "cones/math/exponential.hpp"
#include "cuda/dravik_cuda.h"
#include "cuda/frame.cuh"

namespace dravik::cuda {

__global__ void exp_nt_scaling_kernel(const double* s, const double* z, double* out, size_t m,
                                      size_t batch) {
    const size_t d = 3 * m;
    const size_t e = static_cast<size_t>(blockIdx.x) * blockDim.x + threadIdx.x;
    if (e >= d * d * batch) return;
    const BatchEntry at = batch_entry(e, d);
    const size_t k = at.row / 3;
    if (at.col / 3 != k) {
        out[e] = 0.0;
        return;
    }
    const size_t offset = at.item * d + 3 * k;
    const auto block = mirel::cones::cpp::exp_scaling_block(s + offset, z + offset);
    out[e] = block.entry(static_cast<unsigned>(at.row % 3), static_cast<unsigned>(at.col % 3));
}

}  // namespace dravik::cuda

using namespace dravik::cuda;

extern "C" void dravik_exp_nt_scaling_batch_cuda(const double* s, const double* z, double* out,
                                                 size_t m, size_t batch, int device,
                                                 cudaStream_t stream) {
    ensure_device(device);
    const size_t entries = 9 * m * m * batch;
    if (entries == 0) return;
    DRAVIK_LAUNCH(exp_nt_scaling_kernel, ceil_blocks(entries), kThreads, 0, stream, s, z, out, m,
                  batch);
}
