// PSD on the device: batched svec/smat conversion. PSD kernels run in blocks
// of 128 threads.
#include "cones/math/svec.hpp"
#include "cuda/dravik_cuda.h"
#include "cuda/frame.cuh"

namespace dravik::cuda {

namespace {
constexpr unsigned kPsdThreads = 128;
namespace cones = dravik::mirel::cones::cpp;
}  // namespace

// One svec entry per thread; only the lower triangle of each block is read.
__global__ void psd_svec_kernel(const double* matrix, double* svec, size_t dim, size_t batch) {
    const size_t t = static_cast<size_t>(blockIdx.x) * blockDim.x + threadIdx.x;
    const size_t rows = cones::svec_length(dim);
    if (t >= rows * batch) return;
    const size_t b = t / rows;
    svec[t] = cones::svec_entry(matrix + b * dim * dim, dim, t % rows);
}

// One matrix entry per thread; both triangles are written.
__global__ void psd_smat_kernel(const double* svec, double* matrix, size_t dim, size_t batch) {
    const size_t t = static_cast<size_t>(blockIdx.x) * blockDim.x + threadIdx.x;
    const size_t entries = dim * dim;
    if (t >= entries * batch) return;
    const size_t b = t / entries;
    const size_t e = t % entries;
    matrix[t] = cones::smat_entry(svec + b * cones::svec_length(dim), e / dim, e % dim);
}

}  // namespace dravik::cuda

using namespace dravik::cuda;

extern "C" {

void dravik_psd_svec_cuda(const double* matrix, double* svec, size_t dim, size_t batch, int device,
                          cudaStream_t stream) {
    ensure_device(device);
    const size_t count = dravik::mirel::cones::cpp::svec_length(dim) * batch;
    if (count == 0) return;
    DRAVIK_LAUNCH(psd_svec_kernel, ceil_blocks(count, kPsdThreads), kPsdThreads, 0, stream, matrix,
                  svec, dim, batch);
}

void dravik_psd_smat_cuda(const double* svec, double* matrix, size_t dim, size_t batch, int device,
                          cudaStream_t stream) {
    ensure_device(device);
    const size_t count = dim * dim * batch;
    if (count == 0) return;
    DRAVIK_LAUNCH(psd_smat_kernel, ceil_blocks(count, kPsdThreads), kPsdThreads, 0, stream, svec,
                  matrix, dim, batch);
}

}  // extern "C"
