// The runtime module: the frame every device module shares (device
// selection, error reporting, scratch and copies), availability and version,
// the two reduction drivers with their kernels, and the elementwise
// projection, violation and membership functions (with the one-thread
// closed forms for a single 2 x 2 PSD matrix).
#include <cmath>
#include <stdexcept>
#include <string>

#include "cones/psd2.hpp"
#include "cuda/block_reduce.cuh"
#include "cuda/dravik_cuda.h"
#include "cuda/frame.cuh"

namespace dravik::cuda {

namespace {
thread_local int t_cached_device = -1;
}

void check_cuda(cudaError_t status, const char* name) {
    if (status == cudaSuccess) return;
    throw std::runtime_error(std::string(name) + " failed: " + cudaGetErrorString(status));
}

int cached_device() { return t_cached_device; }

void ensure_device(int device) {
    if (device == t_cached_device) return;
    cudaError_t status = cudaSetDevice(device);
    if (status != cudaSuccess) {
        // Clear the sticky last error so the next launch check does not
        // report this failure a second time.
        cudaGetLastError();
        check_cuda(status, "cudaSetDevice");
    }
    t_cached_device = device;
}

double* device_alloc(size_t count) {
    void* p = nullptr;
    check_cuda(cudaMalloc(&p, count * sizeof(double)), "cudaMalloc");
    return static_cast<double*>(p);
}

void device_free(double* p) { check_cuda(cudaFree(p), "cudaFree"); }

double copy_to_host(const double* src) {
    double value = 0.0;
    check_cuda(cudaMemcpy(&value, src, sizeof(double), cudaMemcpyDeviceToHost), "cudaMemcpy");
    return value;
}

void synchronize() { check_cuda(cudaDeviceSynchronize(), "cudaDeviceSynchronize"); }

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

// One thread for the whole 2 x 2 matrix; out may be x.
__global__ void psd2_project_kernel(const double* x, double* out) {
    dravik::mirel::cones::cpp::psd2_project(x, out);
}

__global__ void psd2_violation_kernel(const double* x, double* result) {
    *result = dravik::mirel::cones::cpp::psd2_violation(x);
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

void dravik_psd2_project_cuda(const double* x, double* out, int device, cudaStream_t stream) {
    ensure_device(device);
    launch<psd2_project_kernel>("psd2_project_kernel", 1, 1, 0, stream, x, out);
}

double dravik_psd2_violation_cuda(const double* x, int device) {
    ensure_device(device);
    double* result = device_alloc(1);
    launch<psd2_violation_kernel>("psd2_violation_kernel", 1, 1, 0, kLegacyStream, x, result);
    const double value = copy_to_host(result);
    device_free(result);
    synchronize();
    return value;
}

// Device selection is left to the violation it delegates to.
bool dravik_psd2_contains_cuda(const double* x, int device, double atol) {
    return atol >= dravik_psd2_violation_cuda(x, device);
}

}  // extern "C"
