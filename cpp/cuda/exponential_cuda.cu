// The exponential cone on the device: projection, violation and membership,
// one 3-block per thread; and the NT scaling batch of block-diagonal
// rows x rows matrices (rows = 3 * blocks), one thread per output entry. Entries inside block k
// come from the rank-two map taking block k of s onto block k of z (no
// interior test, no norm check); every other entry is 0.0.
#include "cuda/dravik_cuda.h"
#include "cuda/dravik_kit_cuda.h"
#include "cuda/frame.cuh"
#include "cuda/kit_kernels.cuh"
#include "cuda/reductions.cuh"
#include "math/batch_index.hpp"
#include "math/exponential.hpp"
#include "math/exponential_kit.hpp"
#include "math/exponential_projection.hpp"

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

// The dual cone, one block (u, v, w) per thread: Euclidean projection,
// squared violation terms and membership flags, reduced as above.
__global__ void exp_project_dual_kernel(const double* x, double* out, size_t m) {
    const size_t k = static_cast<size_t>(blockIdx.x) * blockDim.x + threadIdx.x;
    if (k >= m) return;
    cone::exp_project_dual_block(x + 3 * k, out + 3 * k);
}

__global__ void exp_violation_dual_kernel(const double* x, double* partial, size_t m) {
    __shared__ double buffer[kThreads];
    const size_t k = static_cast<size_t>(blockIdx.x) * blockDim.x + threadIdx.x;
    const double term =
        k < m ? cone::exp_dual_violation_term(cone::load_exp_block(x + 3 * k)) : 0.0;
    const double total = block_reduce(term, buffer, AddOp{});
    if (threadIdx.x == 0) partial[blockIdx.x] = sqrt(total);
}

__global__ void exp_contains_dual_kernel(const double* x, double* partial, size_t m, double atol) {
    __shared__ double buffer[kThreads];
    const size_t k = static_cast<size_t>(blockIdx.x) * blockDim.x + threadIdx.x;
    double flag = -INFINITY;
    if (k < m) {
        const cone::ExpBlock v = cone::load_exp_block(x + 3 * k);
        flag = cone::exp_dual_block_contains(v, atol) ? 0.0 : 1.0;
    }
    const double worst = block_reduce(flag, buffer, MaxOp{});
    if (threadIdx.x == 0) partial[blockIdx.x] = worst;
}

// The barrier's gradient (dual: the conjugate barrier's), one 3-block per
// thread over `count` blocks; NaN where the block is not interior.
__global__ void exp_gradient_kernel(const double* x, double* out, size_t count, bool dual) {
    const size_t k = static_cast<size_t>(blockIdx.x) * blockDim.x + threadIdx.x;
    if (k >= count) return;
    const cone::ExponentialKit block{1};
    const bool ok = dual ? block.barrier_gradient_dual(x + 3 * k, out + 3 * k)
                         : block.barrier_gradient(x + 3 * k, out + 3 * k);
    if (!ok) fill_refused(out + 3 * k, 3);
}

// One block's kit whose max_step is the step in the dual cone, for the
// shared step driver.
struct ExpDualStepKit {
    cone::ExponentialKit kit;
    __host__ __device__ size_t rows() const { return kit.rows(); }
    __host__ __device__ size_t scratch_length() const { return 0; }
    __host__ __device__ bool max_step(const double* x, const double* dx, double* scratch,
                                      double* alpha) const {
        return kit.max_step_dual(x, dx, scratch, alpha);
    }
};

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

extern "C" {

void dravik_exp_project_dual_cuda(const double* x, double* out, size_t m, int device,
                                  cudaStream_t stream) {
    ensure_device(device);
    if (m == 0) return;
    DRAVIK_LAUNCH(exp_project_dual_kernel, ceil_blocks(m), kThreads, 0, stream, x, out, m);
}

double dravik_exp_violation_dual_cuda(const double* x, size_t m, int device) {
    ensure_device(device);
    if (m == 0) return 0.0;
    const double sum = from_block_partials<exp_violation_dual_kernel>(
        "exp_violation_dual_kernel", x, m, sum_of_squared_partials);
    return std::sqrt(sum);
}

bool dravik_exp_contains_dual_cuda(const double* x, size_t m, int device, double atol) {
    ensure_device(device);
    if (m == 0) return true;
    const double worst = from_block_partials<exp_contains_dual_kernel>(
        "exp_contains_dual_kernel", x, m,
        [](const double* partial, size_t blocks) {
            return device_max(partial, blocks, kReduceWhole);
        },
        atol);
    return worst == 0.0;  // a NaN maximum is not contained
}

}  // extern "C"

// ------------------------------------------------------------- solver kit
// Block by block: identity, gradients, steps and the scaling run one 3-block
// per thread (the kit of one block over m * batch blocks); H and the fills
// see whole items.

namespace {
using dravik::mirel::cones::cpp::ExponentialKit;
constexpr ExponentialKit kBlock{1};
}  // namespace

extern "C" {

void dravik_exp_identity_cuda(double* out, size_t m, size_t batch, int device,
                              cudaStream_t stream) {
    kit_identity(kBlock, out, m * batch, device, stream);
}

void dravik_exp_barrier_gradient_cuda(const double* x, double* out, size_t m, size_t batch,
                                      int device, cudaStream_t stream) {
    ensure_device(device);
    if (m * batch == 0) return;
    DRAVIK_LAUNCH(exp_gradient_kernel, ceil_blocks(m * batch), kThreads, 0, stream, x, out,
                  m * batch, false);
}

void dravik_exp_barrier_gradient_dual_cuda(const double* z, double* out, size_t m, size_t batch,
                                           int device, cudaStream_t stream) {
    ensure_device(device);
    if (m * batch == 0) return;
    DRAVIK_LAUNCH(exp_gradient_kernel, ceil_blocks(m * batch), kThreads, 0, stream, z, out,
                  m * batch, true);
}

double dravik_exp_max_step_cuda(const double* x, const double* dx, size_t m, size_t batch,
                                int device, cudaStream_t stream) {
    return kit_max_step(kBlock, x, dx, m * batch, device, stream);
}

double dravik_exp_max_step_dual_cuda(const double* x, const double* dx, size_t m, size_t batch,
                                     int device, cudaStream_t stream) {
    return kit_max_step(ExpDualStepKit{kBlock}, x, dx, m * batch, device, stream);
}

void dravik_exp_nt_scaling_cuda(const double* s, const double* z, double* scaling, size_t m,
                                size_t batch, double mu, int device, cudaStream_t stream) {
    kit_nt_scaling(kBlock, s, z, mu, scaling, m * batch, device, stream);
}

void dravik_exp_nt_hessian_cuda(const double* scaling, double* out, size_t m, size_t batch,
                                bool inverse, int device, cudaStream_t stream) {
    kit_hessian(ExponentialKit{m}, scaling, out, inverse, batch, device, stream);
}

void dravik_exp_nt_hessian_csr_cuda(const double* scaling, const int64_t* indptr,
                                    const int64_t* indices, double* values, size_t nnz, size_t m,
                                    size_t row_offset, size_t batch, bool inverse, double scale,
                                    int device, cudaStream_t stream) {
    kit_fill(true, ExponentialKit{m}, scaling, indptr, indices, values, nnz, row_offset, batch,
             inverse, scale, device, stream);
}

void dravik_exp_nt_hessian_coo_cuda(const double* scaling, const int64_t* row_indices,
                                    const int64_t* col_indices, double* values, size_t nnz,
                                    size_t m, size_t row_offset, size_t batch, bool inverse,
                                    double scale, int device, cudaStream_t stream) {
    kit_fill(false, ExponentialKit{m}, scaling, row_indices, col_indices, values, nnz, row_offset,
             batch, inverse, scale, device, stream);
}

}  // extern "C"
