// The reductions behind every scalar device function (violation, membership):
// passes of 256-to-1 block reductions on the legacy default stream until one
// value is left, which comes back to the host.
#include <cmath>

#include "cuda/frame.cuh"
#include "cuda/reductions.cuh"
#include "math/nonnegative.hpp"

namespace dravik::cuda {

namespace cone = dravik::mirel::cones::cpp;

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

}  // namespace dravik::cuda
