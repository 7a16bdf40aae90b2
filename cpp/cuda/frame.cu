// The frame every device module shares: per-thread device selection, error
// reporting, synchronous scratch and copies, and the two capability queries.
#include <stdexcept>
#include <string>

#include "cuda/dravik_cuda.h"
#include "cuda/frame.cuh"

namespace dravik::cuda {

namespace {
thread_local int t_cached_device = -1;
}

void check_cuda(cudaError_t status, const char* name) {
    if (status == cudaSuccess) return;
    cudaGetLastError();
    throw std::runtime_error(std::string(name) + " failed: " + cudaGetErrorString(status));
}

int cached_device() { return t_cached_device; }

void ensure_device(int device) {
    if (device == t_cached_device) return;
    check_cuda(cudaSetDevice(device), "cudaSetDevice");  // the cache keeps its value
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

}  // namespace dravik::cuda

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

}  // extern "C"
