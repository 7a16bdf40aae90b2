// The second-order cone on the device: projection, violation and membership
// (the tail norm by the reductions, then one thread per element); and the NT
// scaling matrix H = P(B) P(G) P(A) per cone, with
// A = s^-1/2, B = s^1/2 and G = (P(A) z)^1/2, either column by column in the
// system's own kernel or as two strided batched products of the three
// quadratic-representation factors through cuBLAS. Inputs are not checked
// for interiority: a point outside the cone yields NaN or infinite entries.
#include "cuda/dravik_cuda.h"
#include "cuda/dravik_kit_cuda.h"
#include "cuda/frame.cuh"
#include "cuda/kit_kernels.cuh"
#include "cuda/library_calls.cuh"
#include "cuda/reductions.cuh"
#include "math/nt_method_rules.hpp"
#include "math/second_order.hpp"
#include "math/second_order_kit.hpp"

namespace dravik::cuda {

using mirel::cones::cpp::soc_factors;
using mirel::cones::cpp::soc_power_scalars;
using mirel::cones::cpp::soc_power_tail_entry;
using mirel::cones::cpp::soc_quad_entry;
using mirel::cones::cpp::soc_quad_head;
using mirel::cones::cpp::soc_quad_matrix_entry;
using mirel::cones::cpp::SocFactors;
using mirel::cones::cpp::SocPowerScalars;

namespace {

// Sum of term(i) over the tail i = 1..rows-1, reduced across the block
// through the 256-double shared buffer; every thread gets the total.
template <class Term>
__device__ double block_tail_sum(size_t rows, double* shared, Term term) {
    double partial = 0.0;
    for (size_t i = 1 + threadIdx.x; i < rows; i += blockDim.x) partial += term(i);
    return block_reduce(partial, shared, AddOp{});
}

// The scalars of one cone's H, the same in every thread of the block. No
// tail is stored: A[i] and B[i] are multiples of s[i], u[i] follows from
// A[i] and z[i], and G[i] is a multiple of u[i].
struct SocNtCone {
    const double* s;
    const double* z;
    SocPowerScalars pa, pb, pg;
    SocFactors fa, fb, fg;
    double d_az;  // tail dot product of A and z
    double u0;

    __device__ double a(size_t i) const {
        return i == 0 ? pa.head : soc_power_tail_entry(pa, s[i]);
    }
    __device__ double b(size_t i) const {
        return i == 0 ? pb.head : soc_power_tail_entry(pb, s[i]);
    }
    __device__ double u(size_t i) const {
        return i == 0 ? u0 : soc_quad_entry(fa, a(i), z[i], z[0], d_az);
    }
    __device__ double g(size_t i) const {
        return i == 0 ? pg.head : soc_power_tail_entry(pg, u(i));
    }
};

// Forms A, B, u = P(A) z and G = u^1/2 with their factors, as the host
// does, the tail sums being block reductions.
__device__ SocNtCone soc_nt_cone(const double* s, const double* z, size_t rows, double* shared) {
    SocNtCone c{};
    c.s = s;
    c.z = z;
    const double s_tail = block_tail_sum(rows, shared, [&](size_t i) { return s[i] * s[i]; });
    c.pa = soc_power_scalars(s[0], s_tail, -0.5);
    c.pb = soc_power_scalars(s[0], s_tail, 0.5);
    c.fa = soc_factors(c.pa.head, block_tail_sum(rows, shared, [&](size_t i) {
                           const double ai = c.a(i);
                           return ai * ai;
                       }));
    c.fb = soc_factors(c.pb.head, block_tail_sum(rows, shared, [&](size_t i) {
                           const double bi = c.b(i);
                           return bi * bi;
                       }));
    c.d_az = block_tail_sum(rows, shared, [&](size_t i) { return c.a(i) * z[i]; });
    c.u0 = soc_quad_head(c.fa, z[0], c.d_az);
    const double u_tail = block_tail_sum(rows, shared, [&](size_t i) {
        const double ui = c.u(i);
        return ui * ui;
    });
    c.pg = soc_power_scalars(c.u0, u_tail, 0.5);
    c.fg = soc_factors(c.pg.head, block_tail_sum(rows, shared, [&](size_t i) {
                           const double gi = c.g(i);
                           return gi * gi;
                       }));
    return c;
}

}  // namespace

// Block (cone b, column j): P(B) P(G) P(A) e_j into column j of matrix b.
__global__ void soc_nt_scaling_columns_kernel(const double* s, const double* z, double* out,
                                              size_t rows) {
    extern __shared__ double shared[];
    const size_t cone = blockIdx.x;
    const size_t j = blockIdx.y;
    const SocNtCone c = soc_nt_cone(s + cone * rows, z + cone * rows, rows, shared);
    const double aj = c.a(j);
    auto p = [&](size_t i) { return soc_quad_matrix_entry(c.fa, i, j, c.a(i), aj); };
    const double p0 = p(0);
    const double d_gp = block_tail_sum(rows, shared, [&](size_t i) { return c.g(i) * p(i); });
    const double v0 = soc_quad_head(c.fg, p0, d_gp);
    auto v = [&](size_t i) { return soc_quad_entry(c.fg, c.g(i), p(i), p0, d_gp); };
    const double d_bv = block_tail_sum(rows, shared, [&](size_t i) { return c.b(i) * v(i); });
    double* h = out + cone * rows * rows;
    for (size_t i = threadIdx.x; i < rows; i += blockDim.x) {
        h[i * rows + j] =
            i == 0 ? soc_quad_head(c.fb, v0, d_bv) : soc_quad_entry(c.fb, c.b(i), v(i), v0, d_bv);
    }
}

// Block b: the row-major factors F1 = P(B), F2 = P(G), F3 = P(A) of cone b,
// whose product F1 F2 F3 is its H.
__global__ void soc_cublas_prepare_factors_kernel(const double* s, const double* z, double* f1,
                                                  double* f2, double* f3, size_t rows) {
    extern __shared__ double shared[];
    const size_t cone = blockIdx.x;
    const SocNtCone c = soc_nt_cone(s + cone * rows, z + cone * rows, rows, shared);
    const size_t offset = cone * rows * rows;
    for (size_t e = threadIdx.x; e < rows * rows; e += blockDim.x) {
        const size_t i = e / rows;
        const size_t j = e % rows;
        f1[offset + e] = soc_quad_matrix_entry(c.fb, i, j, c.b(i), c.b(j));
        f2[offset + e] = soc_quad_matrix_entry(c.fg, i, j, c.g(i), c.g(j));
        f3[offset + e] = soc_quad_matrix_entry(c.fa, i, j, c.a(i), c.a(j));
    }
}

namespace {

// The module's own cuBLAS handle; its failures carry the numeric status.
CublasHandle soc_cublas_handle(StatusWording::WithStatus);

// F1, F2, F3 and T, allocated in that order; members already built are
// freed when a later allocation fails, and all four in reverse order on
// every other exit.
struct CublasScratch {
    explicit CublasScratch(size_t count) : f1(count), f2(count), f3(count), t(count) {}
    DeviceScratch f1, f2, f3, t;
};

void launch_columns(const double* s, const double* z, double* out, size_t rows, size_t batch,
                    cudaStream_t stream) {
    DRAVIK_LAUNCH(soc_nt_scaling_columns_kernel,
                  dim3(static_cast<unsigned>(batch), static_cast<unsigned>(rows)), kThreads,
                  kBlockReduceBytes, stream, s, z, out, rows);
}

void run_cublas(const double* s, const double* z, double* out, size_t rows, size_t batch,
                cudaStream_t stream) {
    CublasScratch scratch(rows * rows * batch);
    DRAVIK_LAUNCH(soc_cublas_prepare_factors_kernel, static_cast<unsigned>(batch), kThreads,
                  kBlockReduceBytes, stream, s, z, scratch.f1.get(), scratch.f2.get(),
                  scratch.f3.get(), rows);
    batched_gemm(soc_cublas_handle, scratch.f1.get(), scratch.f2.get(), scratch.t.get(), rows,
                 batch, stream);
    batched_gemm(soc_cublas_handle, scratch.t.get(), scratch.f3.get(), out, rows, batch, stream);
}

bool nothing_to_do(size_t rows, size_t batch) { return rows == 0 || batch == 0; }

// The grid's x extent and cuBLAS's batch count are 32-bit signed at most:
// larger batches run as consecutive chunks of at most this many cones.
constexpr size_t kMaxChunk = 0x7FFFFFFF;

template <class Run>
void in_chunks(const double* s, const double* z, double* out, size_t rows, size_t batch, Run run) {
    for (size_t first = 0; first < batch; first += kMaxChunk) {
        const size_t count = batch - first < kMaxChunk ? batch - first : kMaxChunk;
        run(s + first * rows, z + first * rows, out + first * rows * rows, rows, count);
    }
}

void columns_in_chunks(const double* s, const double* z, double* out, size_t rows, size_t batch,
                       cudaStream_t stream) {
    in_chunks(s, z, out, rows, batch,
              [stream](const double* cs, const double* cz, double* co, size_t r, size_t count) {
                  launch_columns(cs, cz, co, r, count, stream);
              });
}

void cublas_in_chunks(const double* s, const double* z, double* out, size_t rows, size_t batch,
                      cudaStream_t stream) {
    in_chunks(s, z, out, rows, batch,
              [stream](const double* cs, const double* cz, double* co, size_t r, size_t count) {
                  run_cublas(cs, cz, co, r, count, stream);
              });
}

bool cublas_by_default(size_t rows, size_t batch) {
    return mirel::cones::cpp::soc_nt_scaling_uses_cublas(rows, batch);
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
__global__ void soc_project_kernel(const double* x, double* out, size_t rows, double tail_norm,
                                   double head) {
    const size_t e = static_cast<size_t>(blockIdx.x) * blockDim.x + threadIdx.x;
    if (e >= rows) return;
    const double t = rows == 1 ? x[0] : head;
    out[e] = soc_projected_entry(soc_projection(t, tail_norm), e, x[e]);
}

// One thread per element of the residual x - P(x); each block writes the
// square root of its residual's sum of squares, so that the sum of the
// squared partials is the squared distance.
__global__ void soc_violation_kernel(const double* x, double* partial, size_t rows,
                                     double tail_norm) {
    __shared__ double buffer[kThreads];
    const size_t e = static_cast<size_t>(blockIdx.x) * blockDim.x + threadIdx.x;
    double square = 0.0;
    if (e < rows) {
        const SocProjection rule = soc_projection(x[0], tail_norm);
        const double residual = x[e] - soc_projected_entry(rule, e, x[e]);
        square = residual * residual;
    }
    const double total = block_reduce(square, buffer, AddOp{});
    if (threadIdx.x == 0) partial[blockIdx.x] = sqrt(total);
}

namespace {

// |x[1..rows-1]| on the legacy default stream (the device is synchronised
// when it returns); 0 without device work for a one-entry cone.
double soc_tail_norm(const double* x, size_t rows) {
    return rows <= 1 ? 0.0 : std::sqrt(device_sum_sq(x, rows, kReduceSkipHead));
}

}  // namespace

}  // namespace dravik::cuda

using namespace dravik::cuda;

extern "C" {

const char* dravik_soc_nt_scaling_default_method_cuda(size_t rows, size_t batch) {
    return dravik::mirel::cones::cpp::soc_nt_scaling_default_method(rows, batch);
}

void dravik_soc_nt_scaling_batch_cuda(const double* s, const double* z, double* out, size_t rows,
                                      size_t batch, int device, cudaStream_t stream) {
    ensure_device(device);
    if (nothing_to_do(rows, batch)) return;
    if (cublas_by_default(rows, batch)) {
        cublas_in_chunks(s, z, out, rows, batch, stream);
    } else {
        columns_in_chunks(s, z, out, rows, batch, stream);
    }
}

void dravik_soc_nt_scaling_batch_custom_cuda(const double* s, const double* z, double* out,
                                             size_t rows, size_t batch, int device,
                                             cudaStream_t stream) {
    ensure_device(device);
    if (nothing_to_do(rows, batch)) return;
    columns_in_chunks(s, z, out, rows, batch, stream);
}

void dravik_soc_nt_scaling_batch_cublas_cuda(const double* s, const double* z, double* out,
                                             size_t rows, size_t batch, int device,
                                             cudaStream_t stream) {
    ensure_device(device);
    if (nothing_to_do(rows, batch)) return;
    cublas_in_chunks(s, z, out, rows, batch, stream);
}

}  // extern "C"

extern "C" {

void dravik_soc_project_cuda(const double* x, double* out, size_t rows, int device,
                             cudaStream_t stream) {
    ensure_device(device);
    if (rows == 0) return;
    const double r = soc_tail_norm(x, rows);
    const double head = rows == 1 ? 0.0 : copy_to_host(x);
    DRAVIK_LAUNCH(soc_project_kernel, ceil_blocks(rows), kThreads, 0, stream, x, out, rows, r,
                  head);
}

double dravik_soc_violation_cuda(const double* x, size_t rows, int device) {
    ensure_device(device);
    if (rows == 0) return 0.0;
    const double r = soc_tail_norm(x, rows);
    return std::sqrt(from_block_partials<soc_violation_kernel>("soc_violation_kernel", x, rows,
                                                               sum_of_squared_partials, r));
}

bool dravik_soc_contains_cuda(const double* x, size_t rows, int device, double atol) {
    ensure_device(device);
    if (rows == 0) return atol >= 0.0;
    const double t = copy_to_host(x);
    return t >= soc_tail_norm(x, rows) - atol;
}

}  // extern "C"

// ------------------------------------------------------------- solver kit
// One thread per cone: the kit's work per cone is O(rows) (O(rows^2) for H,
// one thread per entry), and a solver's second-order cones are many and
// small.

namespace {
using dravik::mirel::cones::cpp::SocKit;
}  // namespace

extern "C" {

void dravik_soc_identity_cuda(double* out, size_t rows, size_t batch, int device,
                              cudaStream_t stream) {
    kit_identity(SocKit{rows}, out, batch, device, stream);
}

double dravik_soc_max_step_cuda(const double* x, const double* dx, size_t rows, size_t batch,
                                int device, cudaStream_t stream) {
    return kit_max_step(SocKit{rows}, x, dx, batch, device, stream);
}

void dravik_soc_nt_scaling_cuda(const double* s, const double* z, double* scaling, size_t rows,
                                size_t batch, int device, cudaStream_t stream) {
    kit_nt_scaling(SocKit{rows}, s, z, 0.0, scaling, batch, device, stream);
}

void dravik_soc_nt_scaled_point_cuda(const double* scaling, double* lam, size_t rows,
                                     size_t batch, int device, cudaStream_t stream) {
    kit_scaled_point(SocKit{rows}, scaling, lam, batch, device, stream);
}

void dravik_soc_nt_apply_cuda(const double* scaling, const double* x, double* out, size_t rows,
                              size_t batch, bool inverse, int device, cudaStream_t stream) {
    kit_apply(SocKit{rows}, scaling, x, out, inverse, batch, device, stream);
}

void dravik_soc_nt_hessian_cuda(const double* scaling, double* out, size_t rows, size_t batch,
                                bool inverse, int device, cudaStream_t stream) {
    kit_hessian(SocKit{rows}, scaling, out, inverse, batch, device, stream);
}

void dravik_soc_nt_hessian_csr_cuda(const double* scaling, const int64_t* indptr,
                                    const int64_t* indices, double* values, size_t nnz,
                                    size_t rows, size_t row_offset, size_t batch, bool inverse,
                                    double scale, int device, cudaStream_t stream) {
    kit_fill(true, SocKit{rows}, scaling, indptr, indices, values, nnz, row_offset, batch,
             inverse, scale, device, stream);
}

void dravik_soc_nt_hessian_coo_cuda(const double* scaling, const int64_t* row_indices,
                                    const int64_t* col_indices, double* values, size_t nnz,
                                    size_t rows, size_t row_offset, size_t batch, bool inverse,
                                    double scale, int device, cudaStream_t stream) {
    kit_fill(false, SocKit{rows}, scaling, row_indices, col_indices, values, nnz, row_offset,
             batch, inverse, scale, device, stream);
}

void dravik_soc_jordan_product_cuda(const double* x, const double* y, double* out, size_t rows,
                                    size_t batch, int device, cudaStream_t stream) {
    kit_jordan_product(SocKit{rows}, x, y, out, batch, device, stream);
}

void dravik_soc_jordan_divide_cuda(const double* lam, const double* v, double* out, size_t rows,
                                   size_t batch, int device, cudaStream_t stream) {
    kit_jordan_divide(SocKit{rows}, lam, v, out, batch, device, stream);
}

}  // extern "C"
