// Definitions of the runtime frame shared by all device modules.
#include <stdexcept>
#include <string>

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

}  // namespace dravik::cuda
