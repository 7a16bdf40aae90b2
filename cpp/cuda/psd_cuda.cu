// PSD on the device: the closed-form projection, violation and membership of
// one 2 x 2 matrix, batched svec/smat conversion and NT scaling. Scaling
// runs by the closed forms for orders 1 and 2, by the system's own kernels
// (one thread per cone forming its congruence matrix R in private 32 x 32
// arrays, then one thread per entry of H, the map X -> R X R), or by the
// library path: strided batched cuBLAS products around the matrix powers,
// which come from per-cone Jacobi kernels up to order 32 and from cuSOLVER's
// divide-and-conquer solver beyond. The formulas are the host's (math/), so
// a block that is not positive definite comes out NaN throughout on the
// closed-form, custom and Jacobi library paths; beyond order 32 cuSOLVER may
// instead report a nonzero devInfo for such a block, which raises. PSD
// kernels run in blocks of 128 threads; scratch is taken and released in
// stream order.
#include <vector>

#include "core/errors.hpp"
#include "cuda/dravik_cuda.h"
#include "cuda/frame.cuh"
#include "cuda/library_calls.cuh"
#include "cuda/psd_routes.hpp"
#include "math/psd2.hpp"
#include "math/psd_nt.hpp"
#include "math/svec.hpp"

namespace dravik::cuda {

namespace {
constexpr unsigned kPsdThreads = 128;
namespace cones = dravik::mirel::cones::cpp;

__device__ size_t thread_index() {
    return static_cast<size_t>(blockIdx.x) * blockDim.x + threadIdx.x;
}
}  // namespace

// One svec entry per thread; only the lower triangle of each block is read.
__global__ void psd_svec_kernel(const double* matrix, double* svec, size_t order, size_t batch) {
    const size_t t = thread_index();
    const size_t rows = cones::svec_length(order);
    if (t >= rows * batch) return;
    const size_t b = t / rows;
    svec[t] = cones::svec_entry(matrix + b * order * order, order, t % rows);
}

// One matrix entry per thread; both triangles are written.
__global__ void psd_smat_kernel(const double* svec, double* matrix, size_t order, size_t batch) {
    const size_t t = thread_index();
    const size_t entries = order * order;
    if (t >= entries * batch) return;
    const size_t b = t / entries;
    const size_t e = t % entries;
    matrix[t] = cones::smat_entry(svec + b * cones::svec_length(order), e / order, e % order);
}

// ------------------------------------------------------------ closed forms

// One 1 x 1 block per thread: z / s, NaN unless both are positive.
__global__ void psd1_nt_scaling_kernel(const double* s, const double* z, double* out,
                                       size_t batch) {
    const size_t t = thread_index();
    if (t < batch) out[t] = cones::psd1_nt_scaling_entry(s[t], z[t]);
}

// One 2 x 2 block per thread: its 3 x 3 H from the closed-form R.
__global__ void psd2_nt_scaling_kernel(const double* s, const double* z, double* out,
                                       size_t batch) {
    const size_t t = thread_index();
    if (t < batch) {
        cones::psd2_nt_operator(cones::psd2_nt_congruence(s + 3 * t, z + 3 * t).r, out + 9 * t);
    }
}

// --------------------------------------------------------- custom kernels

// One cone per single-thread block: R_b, not symmetrised, into r at b n^2.
__global__ void psd_general_congruence_kernel(const double* s, const double* z, double* r,
                                              size_t order, size_t batch) {
    const size_t b = blockIdx.x;
    if (b >= batch || threadIdx.x != 0) return;
    const size_t rows = cones::svec_length(order);
    cones::psd_nt_congruence_private(s + b * rows, z + b * rows, order, r + b * order * order);
}

// One entry of H per thread, from the congruence matrix R of its block.
__global__ void psd_general_operator_from_congruence_kernel(const double* r, double* out,
                                                            size_t order, size_t batch) {
    const size_t t = thread_index();
    const size_t rows = cones::svec_length(order);
    const size_t per_block = rows * rows;
    if (t >= per_block * batch) return;
    const size_t e = t % per_block;
    out[t] = cones::psd_nt_operator_entry(r + (t / per_block) * order * order, order, e / rows,
                                          e % rows);
}

// ---------------------------------------------------- library path kernels

// One cone per thread: Z unpacked, S^1/2 and S^-1/2 from one decomposition.
__global__ void psd_prepare_spd_kernel(const double* s, const double* z, double* zmat,
                                       double* s_half, double* s_inv_half, size_t order,
                                       size_t batch) {
    const size_t t = thread_index();
    if (t >= batch) return;
    double a[cones::kPsdPrivateEntries], vt[cones::kPsdPrivateEntries];
    double mu[cones::kPsdPrivateOrder];
    const size_t rows = cones::svec_length(order);
    const size_t at = t * order * order;
    cones::smat_unpack_into(z + t * rows, order, zmat + at);
    cones::psd_sqrt_pair_private(s + t * rows, order, a, vt, mu, s_half + at, s_inv_half + at);
}

// One cone per thread: M^1/2 of the block as it stands (its upper triangle
// searched for pivots, as on the host).
__global__ void psd_matrix_sqrt_kernel(const double* m, double* m_half, size_t order,
                                       size_t batch) {
    const size_t t = thread_index();
    if (t >= batch) return;
    double a[cones::kPsdPrivateEntries], vt[cones::kPsdPrivateEntries];
    double mu[cones::kPsdPrivateOrder];
    const size_t at = t * order * order;
    cones::psd_matrix_power_private(m + at, order, 0.5, a, vt, mu, m_half + at);
}

// One entry of V diag(pow(lambda, p)) V^T per thread, from cuSOLVER's
// eigenvectors (eigenvector k is the k-th run of `order` values) and
// eigenvalues. Each thread block first forms the `order` powers in shared
// memory.
__global__ void psd_reconstruct_power_from_eigh_kernel(const double* vectors, const double* values,
                                                       double* out, size_t order, double power) {
    __shared__ double mu[kPsdMaxOrder];
    for (size_t k = threadIdx.x; k < order; k += blockDim.x) {
        mu[k] = cones::psd_eigen_power(values[k], power);
    }
    __syncthreads();
    const size_t t = thread_index();
    if (t < order * order) {
        out[t] = cones::psd_power_entry(vectors, 1, order, mu, order, t / order, t % order);
    }
}

// r[i][j] = r[j][i] = (r[i][j] + r[j][i]) / 2: the thread of the lower entry
// of each pair reads both and writes both; the others do nothing.
__global__ void psd_symmetrize_kernel(double* r, size_t order, size_t batch) {
    const size_t t = thread_index();
    const size_t entries = order * order;
    if (t >= entries * batch) return;
    const size_t e = t % entries;
    const size_t i = e / order;
    const size_t j = e % order;
    if (i <= j) return;
    double* block = r + (t - e);
    const double v = 0.5 * (block[i * order + j] + block[j * order + i]);
    block[i * order + j] = v;
    block[j * order + i] = v;
}

namespace {

// The module's library handles; failures read "<call> failed".
CublasHandle psd_cublas_handle(StatusWording::Plain);
CusolverHandle psd_cusolver_handle;

unsigned per_cone_blocks(size_t batch) { return ceil_blocks(batch, kPsdThreads); }

// c_b = x_b y_b, row-major.
void psd_batched_gemm(const double* x, const double* y, double* c, size_t n, size_t batch,
                      cudaStream_t stream) {
    batched_gemm(psd_cublas_handle, x, y, c, n, batch, stream);
}

// out_b = a_b^p, block by block through cuSOLVER on one reused work matrix
// and workspace; every block's status is checked once, after all of them.
void psd_power_cusolver(const double* a, double* out, size_t n, size_t batch, cudaStream_t stream,
                        double p) {
    cusolverDnHandle_t handle = psd_cusolver_handle.get();
    check_cusolver(cusolverDnSetStream(handle, stream), "cusolverDnSetStream");
    const size_t entries = n * n;
    const int order = static_cast<int>(n);
    StreamScratch<double> work(entries, stream);
    StreamScratch<double> values(n, stream);
    StreamScratch<int> status(batch, stream);
    int lwork = 0;
    check_cusolver(
        cusolverDnDsyevd_bufferSize(handle, CUSOLVER_EIG_MODE_VECTOR, CUBLAS_FILL_MODE_UPPER, order,
                                    work.get(), order, values.get(), &lwork),
        "cusolverDnDsyevd_bufferSize");
    StreamScratch<double> workspace(static_cast<size_t>(lwork), stream);
    for (size_t b = 0; b < batch; ++b) {
        copy_async(work.get(), a + b * entries, entries * sizeof(double), cudaMemcpyDeviceToDevice,
                   stream);
        check_cusolver(cusolverDnDsyevd(handle, CUSOLVER_EIG_MODE_VECTOR, CUBLAS_FILL_MODE_UPPER,
                                        order, work.get(), order, values.get(), workspace.get(),
                                        lwork, status.get() + b),
                       "cusolverDnDsyevd");
        DRAVIK_LAUNCH(psd_reconstruct_power_from_eigh_kernel, ceil_blocks(entries, kPsdThreads),
                      kPsdThreads, 0, stream, work.get(), values.get(), out + b * entries, n, p);
    }
    std::vector<int> info(batch, 0);
    copy_async(info.data(), status.get(), batch * sizeof(int), cudaMemcpyDeviceToHost, stream);
    synchronize_stream(stream);
    for (int v : info) {
        if (v != 0) mirel::cones::cpp::fail("cusolverDnDsyevd reported nonzero devInfo");
    }
    workspace.release();
    status.release();
    values.release();
    work.release();
}

// The matrix powers of the library chain, by per-cone Jacobi kernels (order
// <= 32). s_powers unpacks Z into zm and writes S^1/2 and S^-1/2 of every
// block from one decomposition of S; sqrt writes M^1/2.
struct JacobiPowers {
    size_t n;
    size_t batch;
    cudaStream_t stream;

    void s_powers(const double* s, const double* z, double* zm, double* sh, double* si,
                  double* /*spare*/) const {
        DRAVIK_LAUNCH(psd_prepare_spd_kernel, per_cone_blocks(batch), kPsdThreads, 0, stream, s, z,
                      zm, sh, si, n, batch);
    }
    void sqrt(const double* m, double* mh) const {
        DRAVIK_LAUNCH(psd_matrix_sqrt_kernel, per_cone_blocks(batch), kPsdThreads, 0, stream, m, mh,
                      n, batch);
    }
};

// The same by cuSOLVER (order > 32): S and Z unpacked (S into the spare
// blocks), each power from its own decomposition.
struct CusolverPowers {
    size_t n;
    size_t batch;
    cudaStream_t stream;

    void s_powers(const double* s, const double* z, double* zm, double* sh, double* si,
                  double* spare) const {
        const size_t count = n * n * batch;
        DRAVIK_LAUNCH(psd_smat_kernel, ceil_blocks(count, kPsdThreads), kPsdThreads, 0, stream, s,
                      spare, n, batch);
        DRAVIK_LAUNCH(psd_smat_kernel, ceil_blocks(count, kPsdThreads), kPsdThreads, 0, stream, z,
                      zm, n, batch);
        psd_power_cusolver(spare, sh, n, batch, stream, 0.5);
        psd_power_cusolver(spare, si, n, batch, stream, -0.5);
    }
    void sqrt(const double* m, double* mh) const {
        psd_power_cusolver(m, mh, n, batch, stream, 0.5);
    }
};

// Congruence matrices R by the library path, symmetrised: S^1/2 Z S^1/2 = M
// and S^-1/2 M^1/2 S^-1/2 = R as batched products, the powers taken by
// `powers`. Scratch: Zm, Sh, Si, T, M, Mh; T is free until the first
// product and serves the powers as their spare blocks.
template <class Powers>
void psd_congruence_chain(const double* s, const double* z, double* r, size_t n, size_t batch,
                          cudaStream_t stream, const Powers& powers) {
    const size_t count = n * n * batch;
    StreamScratch<double> scratch(6 * count, stream);
    double* zm = scratch.get();
    double *sh = zm + count, *si = sh + count, *t = si + count, *m = t + count, *mh = m + count;
    powers.s_powers(s, z, zm, sh, si, t);
    psd_batched_gemm(sh, zm, t, n, batch, stream);
    psd_batched_gemm(t, sh, m, n, batch, stream);
    powers.sqrt(m, mh);
    psd_batched_gemm(si, mh, t, n, batch, stream);
    psd_batched_gemm(t, si, r, n, batch, stream);
    DRAVIK_LAUNCH(psd_symmetrize_kernel, ceil_blocks(count, kPsdThreads), kPsdThreads, 0, stream, r,
                  n, batch);
    scratch.release();
}

void psd_congruence_library(const double* s, const double* z, double* r, size_t n, size_t batch,
                            cudaStream_t stream) {
    if (n <= kPsdCustomMaxOrder) {
        psd_congruence_chain(s, z, r, n, batch, stream, JacobiPowers{n, batch, stream});
    } else {
        psd_congruence_chain(s, z, r, n, batch, stream, CusolverPowers{n, batch, stream});
    }
}

void launch_operator_from_congruence(const double* r, double* out, size_t n, size_t batch,
                                     cudaStream_t stream) {
    const size_t rows = mirel::cones::cpp::svec_length(n);
    DRAVIK_LAUNCH(psd_general_operator_from_congruence_kernel,
                  ceil_blocks(rows * rows * batch, kPsdThreads), kPsdThreads, 0, stream, r, out, n,
                  batch);
}

void launch_general_congruence(const double* s, const double* z, double* r, size_t n, size_t batch,
                               cudaStream_t stream) {
    DRAVIK_LAUNCH(psd_general_congruence_kernel, static_cast<unsigned>(batch), 1, 0, stream, s, z,
                  r, n, batch);
}

// H blocks from congruence matrices computed into stream-ordered scratch by
// `make_congruence`.
template <class MakeCongruence>
void operator_through_congruence(double* out, size_t n, size_t batch, cudaStream_t stream,
                                 MakeCongruence make_congruence) {
    StreamScratch<double> r(n * n * batch, stream);
    make_congruence(r.get());
    launch_operator_from_congruence(r.get(), out, n, batch, stream);
    r.release();
}

void psd_operator_library(const double* s, const double* z, double* out, size_t n, size_t batch,
                          cudaStream_t stream) {
    operator_through_congruence(out, n, batch, stream, [&](double* r) {
        psd_congruence_library(s, z, r, n, batch, stream);
    });
}

void psd_operator_custom(const double* s, const double* z, double* out, size_t n, size_t batch,
                         cudaStream_t stream) {
    operator_through_congruence(out, n, batch, stream, [&](double* r) {
        launch_general_congruence(s, z, r, n, batch, stream);
    });
}

// The H blocks of an operator entry point along its route.
void run_operator(PsdNtRoute route, const double* s, const double* z, double* out, size_t n,
                  size_t batch, cudaStream_t stream) {
    switch (route) {
        case PsdNtRoute::Nothing: return;
        case PsdNtRoute::Order1:
            DRAVIK_LAUNCH(psd1_nt_scaling_kernel, per_cone_blocks(batch), kPsdThreads, 0, stream, s,
                          z, out, batch);
            return;
        case PsdNtRoute::Order2:
            DRAVIK_LAUNCH(psd2_nt_scaling_kernel, per_cone_blocks(batch), kPsdThreads, 0, stream, s,
                          z, out, batch);
            return;
        case PsdNtRoute::Custom: return psd_operator_custom(s, z, out, n, batch, stream);
        case PsdNtRoute::Library: return psd_operator_library(s, z, out, n, batch, stream);
    }
}

}  // namespace

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

void dravik_psd_svec_cuda(const double* matrix, double* svec, size_t order, size_t batch,
                          int device, cudaStream_t stream) {
    ensure_device(device);
    const size_t count = dravik::mirel::cones::cpp::svec_length(order) * batch;
    if (count == 0) return;
    DRAVIK_LAUNCH(psd_svec_kernel, ceil_blocks(count, kPsdThreads), kPsdThreads, 0, stream, matrix,
                  svec, order, batch);
}

void dravik_psd_smat_cuda(const double* svec, double* matrix, size_t order, size_t batch,
                          int device, cudaStream_t stream) {
    ensure_device(device);
    const size_t count = order * order * batch;
    if (count == 0) return;
    DRAVIK_LAUNCH(psd_smat_kernel, ceil_blocks(count, kPsdThreads), kPsdThreads, 0, stream, svec,
                  matrix, order, batch);
}

const char* dravik_psd_nt_scaling_default_method_cuda(size_t order, size_t batch) {
    return psd_nt_default_method(order, batch);
}

void dravik_psd_nt_scaling_batch_cuda(const double* s, const double* z, double* out, size_t order,
                                      size_t batch, int device, cudaStream_t stream) {
    ensure_device(device);
    run_operator(psd_nt_route(PsdNtEntry::Batch, order, batch), s, z, out, order, batch, stream);
}

void dravik_psd_nt_scaling_batch_custom_cuda(const double* s, const double* z, double* out,
                                             size_t order, size_t batch, int device,
                                             cudaStream_t stream) {
    ensure_device(device);
    run_operator(psd_nt_route(PsdNtEntry::Custom, order, batch), s, z, out, order, batch, stream);
}

void dravik_psd_nt_scaling_batch_cublas_cuda(const double* s, const double* z, double* out,
                                             size_t order, size_t batch, int device,
                                             cudaStream_t stream) {
    ensure_device(device);
    run_operator(psd_nt_route(PsdNtEntry::Cublas, order, batch), s, z, out, order, batch, stream);
}

void dravik_psd_nt_scaling_w_cuda(const double* s, const double* z, double* congruence,
                                  size_t order, size_t batch, int device, cudaStream_t stream) {
    ensure_device(device);
    switch (psd_nt_route(PsdNtEntry::Congruence, order, batch)) {
        case PsdNtRoute::Library:
            return psd_congruence_library(s, z, congruence, order, batch, stream);
        case PsdNtRoute::Custom:
            return launch_general_congruence(s, z, congruence, order, batch, stream);
        default:  // nothing to do (the route refuses orders 1 and 2)
            return;
    }
}

}  // extern "C"

extern "C" {

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
