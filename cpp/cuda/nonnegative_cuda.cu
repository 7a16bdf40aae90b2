// The nonnegative cone on the device: the projection (one, two or four
// entries per thread), violation and membership through the reductions, and
// the NT batch of diagonal matrices diag(z / s), one thread per output entry.
#include "cuda/dravik_cuda.h"
#include "cuda/frame.cuh"
#include "cuda/reductions.cuh"
#include "math/batch_index.hpp"
#include "math/nonnegative.hpp"

namespace dravik::cuda {

__global__ void nonnegative_nt_scaling_kernel(const double* s, const double* z, double* out,
                                              size_t dim, size_t batch) {
    const size_t e = static_cast<size_t>(blockIdx.x) * blockDim.x + threadIdx.x;
    if (e >= dim * dim * batch) return;
    const BatchEntry at = batch_entry(e, dim);
    if (at.row != at.col) {
        out[e] = 0.0;
        return;
    }
    const size_t i = at.item * dim + at.row;
    out[e] = z[i] / s[i];
}


namespace cone = dravik::mirel::cones::cpp;

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

namespace {

bool aligned_to(const void* p, uintptr_t bytes) {
    return reinterpret_cast<uintptr_t>(p) % bytes == 0;
}

}  // namespace

}  // namespace dravik::cuda

using namespace dravik::cuda;

extern "C" void dravik_nonnegative_nt_scaling_batch_cuda(const double* s, const double* z,
                                                         double* out, size_t dim, size_t batch,
                                                         int device, cudaStream_t stream) {
    ensure_device(device);
    const size_t entries = dim * dim * batch;
    if (entries == 0) return;
    DRAVIK_LAUNCH(nonnegative_nt_scaling_kernel, ceil_blocks(entries), kThreads, 0, stream, s, z,
                  out, dim, batch);
}

extern "C" {

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

}  // extern "C"
