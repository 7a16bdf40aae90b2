// The exponential cone on the device: projection, violation and membership,
// one 3-block per thread; and the NT scaling batch of block-diagonal
// rows x rows matrices (rows = 3 * blocks), one thread per output entry. Entries inside block k
// come from the rank-two map taking block k of s onto block k of z (no
// interior test, no norm check); every other entry is 0.0.
#include "cuda/dravik_cuda.h"
#include "cuda/frame.cuh"
#include "cuda/reductions.cuh"
#include "math/batch_index.hpp"
#include "math/exponential.hpp"

namespace dravik::cuda {

__global__ void exp_nt_scaling_kernel(const double* s, const double* z, double* out, size_t blocks,
                                      size_t batch) {
    const size_t rows = 3 * blocks;
    const size_t e = static_cast<size_t>(blockIdx.x) * blockDim.x + threadIdx.x;
    if (e >= rows * rows * batch) return;
    const BatchEntry at = batch_entry(e, rows);
    const size_t k = at.row / 3;
    if (at.col / 3 != k) {
        out[e] = 0.0;
        return;
    }
    const size_t offset = at.item * rows + 3 * k;
    const auto block = mirel::cones::cpp::exp_scaling_block(s + offset, z + offset);
    out[e] = block.entry(static_cast<unsigned>(at.row % 3), static_cast<unsigned>(at.col % 3));
}

namespace cone = dravik::mirel::cones::cpp;

// Exponential cone, one block (x, y, z) per thread.
__global__ void exp_project_kernel(const double* x, double* out, size_t blocks) {
    const size_t k = static_cast<size_t>(blockIdx.x) * blockDim.x + threadIdx.x;
    if (k >= blocks) return;
    const cone::ExpBlock v = cone::load_exp_block(x + 3 * k);
    cone::store_exp_block(out + 3 * k, cone::exp_project_block(v));
}

// partial[b] is the square root of the thread block's sum of squared terms,
// so that squaring and adding the partials gives the whole sum.
__global__ void exp_violation_kernel(const double* x, double* partial, size_t blocks) {
    __shared__ double buffer[kThreads];
    const size_t k = static_cast<size_t>(blockIdx.x) * blockDim.x + threadIdx.x;
    const double term =
        k < blocks ? cone::exp_violation_term(cone::load_exp_block(x + 3 * k)) : 0.0;
    const double total = block_reduce(term, buffer, AddOp{});
    if (threadIdx.x == 0) partial[blockIdx.x] = sqrt(total);
}

// partial[b] is 0 when every block of the thread block passes, 1 otherwise.
__global__ void exp_contains_kernel(const double* x, double* partial, size_t blocks, double atol) {
    __shared__ double buffer[kThreads];
    const size_t k = static_cast<size_t>(blockIdx.x) * blockDim.x + threadIdx.x;
    double flag = -INFINITY;
    if (k < blocks) {
        const cone::ExpBlock v = cone::load_exp_block(x + 3 * k);
        flag = cone::exp_block_contains(v, atol) ? 0.0 : 1.0;
    }
    const double worst = block_reduce(flag, buffer, MaxOp{});
    if (threadIdx.x == 0) partial[blockIdx.x] = worst;
}

}  // namespace dravik::cuda

using namespace dravik::cuda;

extern "C" void dravik_exp_nt_scaling_batch_cuda(const double* s, const double* z, double* out,
                                                 size_t blocks, size_t batch, int device,
                                                 cudaStream_t stream) {
    ensure_device(device);
    const size_t entries = 9 * blocks * blocks * batch;
    if (entries == 0) return;
    DRAVIK_LAUNCH(exp_nt_scaling_kernel, ceil_blocks(entries), kThreads, 0, stream, s, z, out,
                  blocks, batch);
}

extern "C" {

void dravik_exp_project_cuda(const double* x, double* out, size_t blocks, int device,
                             cudaStream_t stream) {
    ensure_device(device);
    if (blocks == 0) return;
    DRAVIK_LAUNCH(exp_project_kernel, ceil_blocks(blocks), kThreads, 0, stream, x, out, blocks);
}

double dravik_exp_violation_cuda(const double* x, size_t blocks, int device) {
    ensure_device(device);
    if (blocks == 0) return 0.0;
    const double sum = from_block_partials<exp_violation_kernel>("exp_violation_kernel", x, blocks,
                                                                 sum_of_squared_partials);
    return std::sqrt(sum);
}

bool dravik_exp_contains_cuda(const double* x, size_t blocks, int device, double atol) {
    ensure_device(device);
    if (blocks == 0) return true;
    const double worst = from_block_partials<exp_contains_kernel>(
        "exp_contains_kernel", x, blocks,
        [](const double* partial, size_t blocks) {
            return device_max(partial, blocks, kReduceWhole);
        },
        atol);
    return worst == 0.0;  // a NaN maximum is not contained
}

}  // extern "C"
