// The reductions behind the scalar device functions: block-wide reductions
// over the 256 threads of a cone kernel through a 256-double shared buffer
// (2048 bytes; every thread must call them), the named modes of a
// reduction's first pass, and the multi-pass drivers on the legacy default
// stream whose value comes back to the host.
#pragma once

#include <cuda_runtime.h>

#include <cstddef>

#include "cuda/frame.cuh"
#include "math/kit.hpp"

namespace dravik::cuda {

template <class Op>
__device__ double block_reduce(double value, double* shared, Op op) {
    const unsigned t = threadIdx.x;
    shared[t] = value;
    __syncthreads();
    for (unsigned half = blockDim.x / 2; half > 0; half /= 2) {
        if (t < half) shared[t] = op(shared[t], shared[t + half]);
        __syncthreads();
    }
    double result = shared[0];
    __syncthreads();  // the buffer may be reused right after
    return result;
}

struct AddOp {
    __device__ double operator()(double a, double b) const { return a + b; }
};

// Minimum that keeps a NaN once one is seen.
struct LeastOp {
    __device__ double operator()(double a, double b) const {
        return mirel::cones::cpp::least_of(a, b);
    }
};

// Maximum that keeps a NaN once one is seen, so a NaN reaches the host.
struct MaxOp {
    __device__ double operator()(double a, double b) const {
        if (a != a) return a;
        if (b != b) return b;
        return a > b ? a : b;
    }
};

// What the first pass of a reduction takes of each element x[e]: the sum
// adds the square of it, the maximum compares the value shown.
enum ReduceMode : int {
    kReduceWhole = 0,     // sum: x^2; max: |x| (zero cone)
    kReduceNegative = 1,  // sum: x^2 where x < 0; max: -x (nonnegative cone)
    kReduceSkipHead = 2,  // sum only: x^2 except element 0 (second-order tail)
    kReducePlain = 3,     // sum: x; max: x (later passes combine partials as they are)
};

// Reductions on the legacy default stream; the value comes back on the host.
double device_sum_sq(const double* data, size_t count, ReduceMode mode);
double device_max(const double* data, size_t count, ReduceMode mode);

// The scalar functions whose kernel leaves one partial per thread block:
// enqueues Kernel(x, partial, count, extra...) over ceil(count / 256) blocks
// on the legacy default stream, hands the partials to `combine` (a second
// reduction, which copies its result to the host), frees them and waits for
// the device.
template <auto Kernel, class Combine, class... Extra>
double from_block_partials(const char* name, const double* x, size_t count, Combine combine,
                           Extra... extra) {
    const unsigned blocks = ceil_blocks(count);
    DeviceScratch partial(blocks);
    launch<Kernel>(name, blocks, kThreads, 0, kLegacyStream, x, partial.get(), count, extra...);
    const double value = combine(partial.get(), blocks);
    partial.release();
    synchronize();
    return value;
}

// The partials of the violation kernels are square roots of block sums of
// squares: squaring and adding them gives the whole sum.
double sum_of_squared_partials(const double* partial, size_t blocks);

// Zero and nonnegative cones: the violation is the root of a sum of squares
// and membership compares atol with a maximum, both under the cone's mode;
// an empty vector needs no device work.
double elementwise_violation(const double* x, size_t n, int device, ReduceMode mode);
bool elementwise_contains(const double* x, size_t n, int device, double atol, ReduceMode mode);

}  // namespace dravik::cuda
