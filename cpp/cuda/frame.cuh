// The runtime frame every exported device function shares: per-thread device
// selection, error reporting, kernel launch by cached handle, launch geometry
// and the legacy default stream used by the scalar (violation and
// membership) functions.
#pragma once

#include <cuda_runtime.h>

#include <cstddef>
#include <cstdint>
#include <tuple>
#include <utility>

namespace dravik::cuda {

constexpr unsigned kThreads = 256;             // block size of the cone kernels
constexpr size_t kBlockReduceBytes = kThreads * sizeof(double);  // 2048-byte shared buffer
inline const cudaStream_t kLegacyStream = nullptr;

// Throws std::runtime_error("<name> failed: <runtime text>") on failure,
// after clearing the runtime's last error so that the next launch check
// reports only its own launch.
void check_cuda(cudaError_t status, const char* name);

// Makes `device` current unless this thread already selected it last.
void ensure_device(int device);

// The device ordinal this thread last made current (-1 before the first).
int cached_device();

inline unsigned ceil_blocks(size_t count, size_t per_block = kThreads) {
    return static_cast<unsigned>((count + per_block - 1) / per_block);
}

// Launch handle of a kernel, fetched on its first launch in the process
// (thread-safe one-time initialisation) and reused afterwards. A failure to
// fetch it is a failure of the launch, reported under the kernel's name.
template <auto Kernel>
cudaKernel_t kernel_handle(const char* name) {
    static const cudaKernel_t handle = [name] {
        cudaKernel_t h = nullptr;
        check_cuda(cudaGetKernel(&h, Kernel), name);
        return h;
    }();
    return handle;
}

namespace detail {
template <class... Params, class... Args>
void launch_with(cudaKernel_t handle, void (*)(Params...), const char* name, dim3 grid,
                 dim3 block, size_t shared_bytes, cudaStream_t stream, Args&&... args) {
    std::tuple<Params...> values(std::forward<Args>(args)...);
    std::apply(
        [&](auto&... v) {
            void* argv[] = {static_cast<void*>(&v)..., nullptr};
            cudaLaunchKernel(reinterpret_cast<const void*>(handle), grid, block, argv,
                             shared_bytes, stream);
        },
        values);
    check_cuda(cudaGetLastError(), name);
}
}  // namespace detail

// Enqueues Kernel and checks the launch under the kernel's plain name.
template <auto Kernel, class... Args>
void launch(const char* name, dim3 grid, dim3 block, size_t shared_bytes, cudaStream_t stream,
            Args&&... args) {
    detail::launch_with(kernel_handle<Kernel>(name), Kernel, name, grid, block, shared_bytes, stream,
                        std::forward<Args>(args)...);
}

// A scratch block of `count` doubles from cudaMalloc (checked as "cudaMalloc").
double* device_alloc(size_t count);
void device_free(double* p);  // checked as "cudaFree"

// Blocking device-to-host copy of one double, checked as "cudaMemcpy".
double copy_to_host(const double* src);
void synchronize();  // checked as "cudaDeviceSynchronize"

// Reductions on the legacy default stream; the value comes back on the host.
// mode 0: x^2 / |x|; 1: x^2 if x < 0 / -x; 2: x^2 except element 0 (sum
// only); 3 (and later passes): x / x.
double device_sum_sq(const double* data, size_t count, int mode);
double device_max(const double* data, size_t count, int mode);

}  // namespace dravik::cuda
