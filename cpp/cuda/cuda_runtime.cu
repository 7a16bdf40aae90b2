// The runtime module: the frame every device module shares (device
// selection, error reporting, scratch and copies), availability and version,
// the two reduction drivers with their kernels, and the elementwise
// projection, violation and membership functions (with the one-thread
// closed forms for a single 2 x 2 PSD matrix).
#include <cmath>
#include <stdexcept>
#include <string>

#include "cones/math/exponential.hpp"
#include "cones/math/nonnegative.hpp"
#include "cones/math/psd2.hpp"
#include "cones/math/second_order.hpp"
#include "cuda/block_reduce.cuh"
#include "cuda/dravik_cuda.h"
#include "cuda/frame.cuh"

namespace dravik::cuda {

namespace cone = dravik::mirel::cones::cpp;

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

namespace {

__device__ double sum_sq_term(double x, size_t e, int mode) {
    switch (mode) {
        case kReduceWhole: return x * x;
        case kReduceNegative: return cone::nonnegative_violation_term(x);
        case kReduceSkipHead: return e == 0 ? 0.0 : x * x;
        default: return x;
    }
}

__device__ double max_term(double x, int mode) {
    switch (mode) {
        case kReduceWhole: return fabs(x);
        case kReduceNegative: return -x;
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
// Each pass's partials are freed as soon as the next pass has been enqueued.
template <auto Kernel>
double reduce_passes(const double* data, size_t count, ReduceMode mode, const char* name) {
    const double* input = data;
    DeviceScratch input_partials;
    for (;;) {
        const unsigned blocks = ceil_blocks(count);
        DeviceScratch partial(blocks);
        launch<Kernel>(name, blocks, kThreads, 0, kLegacyStream, input, partial.get(), count,
                       static_cast<int>(mode));
        input_partials.release();
        if (blocks == 1) {
            const double value = copy_to_host(partial.get());
            partial.release();
            synchronize();
            return value;
        }
        input = partial.get();
        input_partials = std::move(partial);
        count = blocks;
        mode = kReducePlain;
    }
}

}  // namespace

double device_sum_sq(const double* data, size_t count, ReduceMode mode) {
    return reduce_passes<reduce_sum_sq_kernel>(data, count, mode, "reduce_sum_sq_kernel");
}

double device_max(const double* data, size_t count, ReduceMode mode) {
    return reduce_passes<reduce_max_kernel>(data, count, mode, "reduce_max_kernel");
}

// Nonnegative projection, one, two or four entries per thread.
__global__ void nonnegative_kernel(const double* in, double* out, size_t count) {
    const size_t e = static_cast<size_t>(blockIdx.x) * blockDim.x + threadIdx.x;
    if (e < count) out[e] = cone::nonnegative_clip(in[e]);
}

__global__ void nonnegative2_kernel(const double2* in, double2* out, size_t count) {
    const size_t e = static_cast<size_t>(blockIdx.x) * blockDim.x + threadIdx.x;
    if (e >= count) return;
    const double2 v = in[e];
    out[e] = make_double2(cone::nonnegative_clip(v.x), cone::nonnegative_clip(v.y));
}

__global__ void nonnegative4_kernel(const double4_32a* in, double4_32a* out, size_t count) {
    const size_t e = static_cast<size_t>(blockIdx.x) * blockDim.x + threadIdx.x;
    if (e >= count) return;
    const double4_32a v = in[e];
    out[e] = make_double4_32a(cone::nonnegative_clip(v.x), cone::nonnegative_clip(v.y),
                              cone::nonnegative_clip(v.z), cone::nonnegative_clip(v.w));
}

// Exponential cone, one block (x, y, z) per thread.
__global__ void exp_project_kernel(const double* x, double* out, size_t m) {
    const size_t k = static_cast<size_t>(blockIdx.x) * blockDim.x + threadIdx.x;
    if (k >= m) return;
    const cone::ExpBlock v = cone::load_exp_block(x + 3 * k);
    cone::store_exp_block(out + 3 * k, cone::exp_project_block(v));
}

// partial[b] is the square root of the thread block's sum of squared terms,
// so that squaring and adding the partials gives the whole sum.
__global__ void exp_violation_kernel(const double* x, double* partial, size_t m) {
    __shared__ double buffer[kThreads];
    const size_t k = static_cast<size_t>(blockIdx.x) * blockDim.x + threadIdx.x;
    const double term = k < m ? cone::exp_violation_term(cone::load_exp_block(x + 3 * k)) : 0.0;
    const double total = block_reduce(term, buffer, AddOp{});
    if (threadIdx.x == 0) partial[blockIdx.x] = sqrt(total);
}

// partial[b] is 0 when every block of the thread block passes, 1 otherwise.
__global__ void exp_contains_kernel(const double* x, double* partial, size_t m, double atol) {
    __shared__ double buffer[kThreads];
    const size_t k = static_cast<size_t>(blockIdx.x) * blockDim.x + threadIdx.x;
    double flag = -INFINITY;
    if (k < m) {
        const cone::ExpBlock v = cone::load_exp_block(x + 3 * k);
        flag = cone::exp_block_contains(v, atol) ? 0.0 : 1.0;
    }
    const double worst = block_reduce(flag, buffer, MaxOp{});
    if (threadIdx.x == 0) partial[blockIdx.x] = worst;
}

namespace {

bool aligned_to(const void* p, uintptr_t bytes) {
    return reinterpret_cast<uintptr_t>(p) % bytes == 0;
}

}  // namespace

// ------------------------------------------------------- second-order cone

using mirel::cones::cpp::soc_projected_entry;
using mirel::cones::cpp::soc_projection;
using mirel::cones::cpp::SocProjection;

// One thread per element. When input and output are one array, another
// block may overwrite element 0 before this thread reads it, so the head
// comes from the host; a one-entry cone runs a single thread, which reads
// its own head.
__global__ void soc_project_kernel(const double* x, double* out, size_t dim, double tail_norm,
                                   double head) {
    const size_t e = static_cast<size_t>(blockIdx.x) * blockDim.x + threadIdx.x;
    if (e >= dim) return;
    const double t = dim == 1 ? x[0] : head;
    out[e] = soc_projected_entry(soc_projection(t, tail_norm), e, x[e]);
}

// One thread per element of the residual x - P(x); each block writes the
// square root of its residual's sum of squares, so that the sum of the
// squared partials is the squared distance.
__global__ void soc_violation_kernel(const double* x, double* partial, size_t dim,
                                     double tail_norm) {
    __shared__ double buffer[kThreads];
    const size_t e = static_cast<size_t>(blockIdx.x) * blockDim.x + threadIdx.x;
    double square = 0.0;
    if (e < dim) {
        const SocProjection rule = soc_projection(x[0], tail_norm);
        const double residual = x[e] - soc_projected_entry(rule, e, x[e]);
        square = residual * residual;
    }
    const double total = block_reduce(square, buffer, AddOp{});
    if (threadIdx.x == 0) partial[blockIdx.x] = sqrt(total);
}

namespace {

// |x[1..dim-1]| on the legacy default stream (the device is synchronised
// when it returns); 0 without device work for a one-entry cone.
double soc_tail_norm(const double* x, size_t dim) {
    return dim <= 1 ? 0.0 : std::sqrt(device_sum_sq(x, dim, kReduceSkipHead));
}

}  // namespace

// The partials of the violation kernels are square roots of block sums of
// squares: squaring and adding them gives the whole sum.
double sum_of_squared_partials(const double* partial, size_t blocks) {
    return device_sum_sq(partial, blocks, kReduceWhole);
}

// Zero and nonnegative cones: the violation is the root of a sum of squares
// and membership compares atol with a maximum, both under the cone's mode
// (0 zero, 1 nonnegative); an empty vector needs no device work.
double elementwise_violation(const double* x, size_t n, int device, ReduceMode mode) {
    ensure_device(device);
    if (n == 0) return 0.0;
    return std::sqrt(device_sum_sq(x, n, mode));
}

bool elementwise_contains(const double* x, size_t n, int device, double atol, ReduceMode mode) {
    ensure_device(device);
    const double reference = n == 0 ? 0.0 : device_max(x, n, mode);
    return atol >= reference;
}

// ------------------------------------------------------- 2 x 2 PSD

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
    return elementwise_violation(x, n, device, kReduceWhole);
}

bool dravik_zero_contains_cuda(const double* x, size_t n, int device, double atol) {
    return elementwise_contains(x, n, device, atol, kReduceWhole);
}

void dravik_nonnegative_project_cuda(const double* x, double* out, size_t n, int device,
                                     cudaStream_t stream) {
    ensure_device(device);
    if (n == 0) return;
    if (n % 4 == 0 && aligned_to(x, 32) && aligned_to(out, 32)) {
        const size_t count = n / 4;
        DRAVIK_LAUNCH(nonnegative4_kernel, ceil_blocks(count), kThreads, 0, stream,
                      reinterpret_cast<const double4_32a*>(x), reinterpret_cast<double4_32a*>(out),
                      count);
    } else if (n % 2 == 0 && aligned_to(x, 16) && aligned_to(out, 16)) {
        const size_t count = n / 2;
        DRAVIK_LAUNCH(nonnegative2_kernel, ceil_blocks(count), kThreads, 0, stream,
                      reinterpret_cast<const double2*>(x), reinterpret_cast<double2*>(out), count);
    } else {
        DRAVIK_LAUNCH(nonnegative_kernel, ceil_blocks(n), kThreads, 0, stream, x, out, n);
    }
}

double dravik_nonnegative_violation_cuda(const double* x, size_t n, int device) {
    return elementwise_violation(x, n, device, kReduceNegative);
}

bool dravik_nonnegative_contains_cuda(const double* x, size_t n, int device, double atol) {
    return elementwise_contains(x, n, device, atol, kReduceNegative);
}

void dravik_exp_project_cuda(const double* x, double* out, size_t m, int device,
                             cudaStream_t stream) {
    ensure_device(device);
    if (m == 0) return;
    DRAVIK_LAUNCH(exp_project_kernel, ceil_blocks(m), kThreads, 0, stream, x, out, m);
}

double dravik_exp_violation_cuda(const double* x, size_t m, int device) {
    ensure_device(device);
    if (m == 0) return 0.0;
    const double sum = from_block_partials<exp_violation_kernel>("exp_violation_kernel", x, m,
                                                                 sum_of_squared_partials);
    return std::sqrt(sum);
}

bool dravik_exp_contains_cuda(const double* x, size_t m, int device, double atol) {
    ensure_device(device);
    if (m == 0) return true;
    const double worst = from_block_partials<exp_contains_kernel>(
        "exp_contains_kernel", x, m,
        [](const double* partial, size_t blocks) {
            return device_max(partial, blocks, kReduceWhole);
        },
        atol);
    return worst == 0.0;  // a NaN maximum is not contained
}

void dravik_soc_project_cuda(const double* x, double* out, size_t dim, int device,
                             cudaStream_t stream) {
    ensure_device(device);
    if (dim == 0) return;
    const double r = soc_tail_norm(x, dim);
    const double head = dim == 1 ? 0.0 : copy_to_host(x);
    DRAVIK_LAUNCH(soc_project_kernel, ceil_blocks(dim), kThreads, 0, stream, x, out, dim, r, head);
}

double dravik_soc_violation_cuda(const double* x, size_t dim, int device) {
    ensure_device(device);
    if (dim == 0) return 0.0;
    const double r = soc_tail_norm(x, dim);
    return std::sqrt(from_block_partials<soc_violation_kernel>("soc_violation_kernel", x, dim,
                                                               sum_of_squared_partials, r));
}

bool dravik_soc_contains_cuda(const double* x, size_t dim, int device, double atol) {
    ensure_device(device);
    if (dim == 0) return atol >= 0.0;
    const double t = copy_to_host(x);
    return t >= soc_tail_norm(x, dim) - atol;
}

void dravik_psd2_project_cuda(const double* x, double* out, int device, cudaStream_t stream) {
    ensure_device(device);
    DRAVIK_LAUNCH(psd2_project_kernel, 1, 1, 0, stream, x, out);
}

double dravik_psd2_violation_cuda(const double* x, int device) {
    ensure_device(device);
    DeviceScratch result(1);
    DRAVIK_LAUNCH(psd2_violation_kernel, 1, 1, 0, kLegacyStream, x, result.get());
    const double value = copy_to_host(result.get());
    result.release();
    synchronize();
    return value;
}

// Device selection is left to the violation it delegates to.
bool dravik_psd2_contains_cuda(const double* x, int device, double atol) {
    return atol >= dravik_psd2_violation_cuda(x, device);
}

}  // extern "C"
