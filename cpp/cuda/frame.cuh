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

constexpr unsigned kThreads = 256;                               // block size of the cone kernels
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
void launch_with(cudaKernel_t handle, void (*)(Params...), const char* name, dim3 grid, dim3 block,
                 size_t shared_bytes, cudaStream_t stream, Args&&... args) {
    std::tuple<Params...> values(std::forward<Args>(args)...);
    std::apply(
        [&](auto&... v) {
            void* argv[] = {static_cast<void*>(&v)..., nullptr};
            cudaLaunchKernel(reinterpret_cast<const void*>(handle), grid, block, argv, shared_bytes,
                             stream);
        },
        values);
    check_cuda(cudaGetLastError(), name);
}
}  // namespace detail

// Enqueues Kernel and checks the launch under the kernel's plain name.
template <auto Kernel, class... Args>
void launch(const char* name, dim3 grid, dim3 block, size_t shared_bytes, cudaStream_t stream,
            Args&&... args) {
    detail::launch_with(kernel_handle<Kernel>(name), Kernel, name, grid, block, shared_bytes,
                        stream, std::forward<Args>(args)...);
}

// launch<kernel>("kernel", ...) with the name taken from the kernel itself,
// so the name in a failure message cannot drift from the kernel launched.
#define DRAVIK_LAUNCH(kernel, grid, block, shared_bytes, stream, ...) \
    ::dravik::cuda::launch<kernel>(#kernel, grid, block, shared_bytes, stream, __VA_ARGS__)

// A scratch block of `count` doubles from cudaMalloc (checked as "cudaMalloc").
double* device_alloc(size_t count);
void device_free(double* p);  // checked as "cudaFree"

// `count` doubles from cudaMalloc, held for one exported call. release()
// frees them and reports a failure as "cudaFree"; a block still held when the
// scope ends (an exception on the way) is freed without a check, since a
// destructor cannot report.
class DeviceScratch {
public:
    DeviceScratch() = default;  // holds nothing
    explicit DeviceScratch(size_t count) : data_(device_alloc(count)) {}
    // A failed free here (possible only after a sticky error) is not
    // reported; its status is cleared so the next launch check reports only
    // its own launch.
    ~DeviceScratch() {
        if (data_ != nullptr && cudaFree(data_) != cudaSuccess) cudaGetLastError();
    }
    DeviceScratch(DeviceScratch&& other) noexcept : data_(std::exchange(other.data_, nullptr)) {}
    DeviceScratch& operator=(DeviceScratch&& other) noexcept {
        std::swap(data_, other.data_);
        return *this;
    }
    DeviceScratch(const DeviceScratch&) = delete;
    DeviceScratch& operator=(const DeviceScratch&) = delete;
    double* get() const { return data_; }
    void release() {
        if (data_ != nullptr) device_free(std::exchange(data_, nullptr));
    }

private:
    double* data_ = nullptr;
};

// `count` values of T allocated in stream order (cudaMallocAsync on the
// caller's stream, checked as "cudaMallocAsync"), so nothing waits for the
// device. release() enqueues cudaFreeAsync on the same stream after the
// work that uses the block (checked as "cudaFreeAsync"); a block still held
// when the scope ends is freed on that stream without a check.
template <class T = double>
class StreamScratch {
public:
    StreamScratch(size_t count, cudaStream_t stream) : stream_(stream) {
        void* p = nullptr;
        check_cuda(cudaMallocAsync(&p, count * sizeof(T), stream), "cudaMallocAsync");
        data_ = static_cast<T*>(p);
    }
    ~StreamScratch() {
        if (data_ != nullptr && cudaFreeAsync(data_, stream_) != cudaSuccess) cudaGetLastError();
    }
    StreamScratch(const StreamScratch&) = delete;
    StreamScratch& operator=(const StreamScratch&) = delete;
    T* get() const { return data_; }
    void release() {
        check_cuda(cudaFreeAsync(std::exchange(data_, nullptr), stream_), "cudaFreeAsync");
    }

private:
    T* data_ = nullptr;
    cudaStream_t stream_;
};

// `bytes` copied in stream order, checked as "cudaMemcpyAsync".
inline void copy_async(void* dst, const void* src, size_t bytes, cudaMemcpyKind kind,
                       cudaStream_t stream) {
    check_cuda(cudaMemcpyAsync(dst, src, bytes, kind, stream), "cudaMemcpyAsync");
}

// Waits for the work enqueued on `stream`, checked as "cudaStreamSynchronize".
inline void synchronize_stream(cudaStream_t stream) {
    check_cuda(cudaStreamSynchronize(stream), "cudaStreamSynchronize");
}

// Blocking device-to-host copy of one double, checked as "cudaMemcpy".
double copy_to_host(const double* src);
void synchronize();  // checked as "cudaDeviceSynchronize"

}  // namespace dravik::cuda
