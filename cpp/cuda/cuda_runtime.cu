// Availability and version, the two reduction drivers with their kernels,
// and the elementwise projection, violation and membership functions.
#include <cmath>

#include "cuda/block_reduce.cuh"
#include "cuda/dravik_cuda.h"
#include "cuda/frame.cuh"

namespace dravik::cuda {

namespace {

constexpr int kModePlain = 3;

__device__ double sum_sq_term(double x, size_t e, int mode) {
    switch (mode) {
        case 0: return x * x;
        case 1: return x < 0.0 ? x * x : 0.0;
        case 2: return e == 0 ? 0.0 : x * x;
        default: return x;
    }
}

__device__ double max_term(double x, int mode) {
    switch (mode) {
        case 0: return fabs(x);
        case 1: return -x;
        default: return x;
    }
}

}  // namespace

__global__ void reduce_sum_sq_kernel(const double* in, double* partial, size_t count, int mode) {
    __shared__ double buffer[kThreads];
    const size_t e = static_cast<size_t>(blockIdx.x) * blockDim.x + threadIdx.x;
    double value = e < count ? sum_sq_term(in[e], e, mode) : 0.0;
    double total = block_reduce(value, buffer, AddOp{});
    if (threadIdx.x == 0) partial[blockIdx.x] = total;
}

__global__ void reduce_max_kernel(const double* in, double* partial, size_t count, int mode) {
    __shared__ double buffer[kThreads];
    const size_t e = static_cast<size_t>(blockIdx.x) * blockDim.x + threadIdx.x;
    double value = e < count ? max_term(in[e], mode) : -INFINITY;
    double best = block_reduce(value, buffer, MaxOp{});
    if (threadIdx.x == 0) partial[blockIdx.x] = best;
}

namespace {

// Passes of 256-to-1 reductions until one value is left; the caller's mode
// applies to the first pass only, later passes combine the partials as-is.
template <auto Kernel>
double reduce_passes(const double* data, size_t count, int mode, const char* name) {
    const double* input = data;
    double* previous = nullptr;
    for (;;) {
        const unsigned blocks = ceil_blocks(count);
        double* partial = device_alloc(blocks);
        launch<Kernel>(name, blocks, kThreads, 0, kLegacyStream, input, partial, count, mode);
        if (previous != nullptr) device_free(previous);
        if (blocks == 1) {
            double value = copy_to_host(partial);
            device_free(partial);
            synchronize();
            return value;
        }
        input = partial;
        previous = partial;
        count = blocks;
        mode = kModePlain;
    }
}

}  // namespace

double device_sum_sq(const double* data, size_t count, int mode) {
    return reduce_passes<reduce_sum_sq_kernel>(data, count, mode, "reduce_sum_sq_kernel");
}

double device_max(const double* data, size_t count, int mode) {
    return reduce_passes<reduce_max_kernel>(data, count, mode, "reduce_max_kernel");
}

}  // namespace dravik::cuda

using namespace dravik::cuda;

extern "C" {

bool dravik_cuda_available(void) {
    int count = 0;
    cudaError_t status = cudaGetDeviceCount(&count);
    if (status != cudaSuccess) {
        cudaGetLastError();
        return false;
    }
    return count > 0;
}

const char* dravik_cuda_runtime_version(void) { return "cuda-runtime-13"; }

void dravik_zero_project_cuda(const double* /*x*/, double* out, size_t n, int device,
                              cudaStream_t stream) {
    ensure_device(device);
    if (n == 0) return;
    check_cuda(cudaMemsetAsync(out, 0, n * sizeof(double), stream), "cudaMemsetAsync");
}

double dravik_zero_violation_cuda(const double* x, size_t n, int device) {
    ensure_device(device);
    if (n == 0) return 0.0;
    return std::sqrt(device_sum_sq(x, n, 0));
}

bool dravik_zero_contains_cuda(const double* x, size_t n, int device, double atol) {
    ensure_device(device);
    const double reference = n == 0 ? 0.0 : device_max(x, n, 0);
    return atol >= reference;
}

}  // extern "C"
