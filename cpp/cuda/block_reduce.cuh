// Block-wide reductions over the 256 threads of a cone kernel through a
// 256-double shared buffer (2048 bytes). Every thread must call them.
#pragma once

#include <cuda_runtime.h>

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

// Maximum that keeps a NaN once one is seen, so a NaN reaches the host.
struct MaxOp {
    __device__ double operator()(double a, double b) const {
        if (a != a) return a;
        if (b != b) return b;
        return a > b ? a : b;
    }
};

}  // namespace dravik::cuda
