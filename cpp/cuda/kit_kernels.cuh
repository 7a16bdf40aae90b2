// The solver kit on the device, written once for every cone: kernels that
// run a cone's per-item kit math (math/<cone>_kit.hpp) one item per thread,
// and the drivers the cones' exported functions call. Work space comes from
// stream-ordered scratch (scratch_length() doubles per item). An item the
// host would refuse comes out NaN: its scaling, its Jordan quotient, and a
// max_step of NaN. Everything is enqueued on the caller's stream; max_step
// then waits for that stream to bring its one value back.
#pragma once

#include <cuda_runtime.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "cuda/frame.cuh"
#include "cuda/sparse_fill_kernels.cuh"
#include "math/kit.hpp"

namespace dravik::cuda {

namespace kit_math = dravik::mirel::cones::cpp;

__device__ inline size_t kit_thread() {
    return static_cast<size_t>(blockIdx.x) * blockDim.x + threadIdx.x;
}

__device__ inline void fill_refused(double* out, size_t count) {
    for (size_t i = 0; i < count; ++i) out[i] = kit_math::kit_refused();
}

template <class Kit>
__global__ void kit_identity_kernel(Kit kit, double* out, size_t items) {
    const size_t t = kit_thread();
    if (t < items) kit.identity(out + t * kit.rows());
}

template <class Kit>
__global__ void kit_max_step_kernel(Kit kit, const double* x, const double* dx, double* alpha,
                                    double* scratch, size_t items) {
    const size_t t = kit_thread();
    if (t >= items) return;
    const size_t n = kit.rows();
    double a = INFINITY;
    const bool inside = kit.max_step(x + t * n, dx + t * n, scratch + t * kit.scratch_length(), &a);
    alpha[t] = inside ? a : kit_math::kit_refused();
}

template <class Kit>
__global__ void kit_nt_scaling_kernel(Kit kit, const double* s, const double* z, double mu,
                                      double* scaling, double* scratch, size_t items) {
    const size_t t = kit_thread();
    if (t >= items) return;
    const size_t n = kit.rows(), m = kit.scaling_length();
    const kit_math::KitStatus status =
        kit.nt_scaling(s + t * n, z + t * n, mu, scratch + t * kit.scratch_length(), scaling + t * m);
    if (status != kit_math::KitStatus::Ok) fill_refused(scaling + t * m, m);
}

template <class Kit>
__global__ void kit_scaled_point_kernel(Kit kit, const double* scaling, double* lam, size_t items) {
    const size_t t = kit_thread();
    if (t < items) kit.scaled_point(scaling + t * kit.scaling_length(), lam + t * kit.rows());
}

template <class Kit>
__global__ void kit_apply_kernel(Kit kit, const double* scaling, const double* x, double* out,
                                 bool inverse, double* scratch, size_t items) {
    const size_t t = kit_thread();
    if (t >= items) return;
    const size_t n = kit.rows();
    kit.apply(scaling + t * kit.scaling_length(), x + t * n, inverse,
              scratch + t * kit.scratch_length(), out + t * n);
}

// One thread per entry of the dense blocks.
template <class Kit>
__global__ void kit_hessian_kernel(Kit kit, const double* scaling, double* out, bool inverse,
                                   size_t items) {
    const size_t t = kit_thread();
    const size_t n = kit.rows();
    if (t >= n * n * items) return;
    const size_t item = t / (n * n), e = t % (n * n);
    out[t] = kit_math::kit_symmetric_entry(kit, scaling + item * kit.scaling_length(), e / n, e % n,
                                           inverse);
}

template <class Kit>
__global__ void kit_fill_csr_kernel(FillGrid grid, kit_math::KitFillValue<Kit> value,
                                    const int64_t* indptr, const int64_t* indices, double* values,
                                    size_t nnz) {
    csr_fill_worker(grid, indptr, indices, values, nnz, value, OffBlock::Keep);
}

template <class Kit>
__global__ void kit_fill_coo_kernel(FillGrid grid, kit_math::KitFillValue<Kit> value,
                                    const int64_t* row_indices, const int64_t* col_indices,
                                    double* values, size_t nnz) {
    coo_fill_worker(grid, row_indices, col_indices, values, nnz, value, OffBlock::Keep);
}

template <class Kit>
__global__ void kit_jordan_product_kernel(Kit kit, const double* x, const double* y, double* out,
                                          double* scratch, size_t items) {
    const size_t t = kit_thread();
    if (t >= items) return;
    const size_t n = kit.rows();
    kit.jordan_product(x + t * n, y + t * n, scratch + t * kit.scratch_length(), out + t * n);
}

template <class Kit>
__global__ void kit_jordan_divide_kernel(Kit kit, const double* lam, const double* v, double* out,
                                         double* scratch, size_t items) {
    const size_t t = kit_thread();
    if (t >= items) return;
    const size_t n = kit.rows();
    if (!kit.jordan_divide(lam + t * n, v + t * n, scratch + t * kit.scratch_length(), out + t * n)) {
        fill_refused(out + t * n, n);
    }
}

// The least of `count` steps (NaN once any is NaN) into *result, by one
// thread block striding over them.
__global__ void kit_least_step_kernel(const double* alpha, size_t count, double* result);

// Stream-ordered work space of `per_item` doubles for each of `items`, or
// none when the kit needs none.
class KitScratch {
public:
    KitScratch(size_t per_item, size_t items, cudaStream_t stream) {
        if (per_item != 0) scratch_.emplace(per_item * items, stream);
    }
    double* get() const { return scratch_ ? scratch_->get() : nullptr; }
    void release() {
        if (scratch_) scratch_->release();
    }

private:
    std::optional<StreamScratch<double>> scratch_;
};

// ------------------------------------------------------------------ drivers
// Each selects the device and returns at once on zero items.

template <class Kit>
void kit_identity(const Kit& kit, double* out, size_t items, int device, cudaStream_t stream) {
    ensure_device(device);
    if (items == 0 || kit.rows() == 0) return;
    launch<kit_identity_kernel<Kit>>("kit_identity_kernel", ceil_blocks(items), kThreads, 0,
                                     stream, kit, out, items);
}

double least_step(const double* alpha, size_t items, cudaStream_t stream);

template <class Kit>
double kit_max_step(const Kit& kit, const double* x, const double* dx, size_t items, int device,
                    cudaStream_t stream) {
    ensure_device(device);
    if (items == 0 || kit.rows() == 0) return INFINITY;
    StreamScratch<double> alpha(items, stream);
    KitScratch scratch(kit.scratch_length(), items, stream);
    launch<kit_max_step_kernel<Kit>>("kit_max_step_kernel", ceil_blocks(items), kThreads, 0,
                                     stream, kit, x, dx, alpha.get(), scratch.get(), items);
    scratch.release();
    const double least = least_step(alpha.get(), items, stream);
    alpha.release();
    return least;
}

template <class Kit>
void kit_nt_scaling(const Kit& kit, const double* s, const double* z, double mu, double* scaling,
                    size_t items, int device, cudaStream_t stream) {
    ensure_device(device);
    if (items == 0 || kit.rows() == 0) return;
    KitScratch scratch(kit.scratch_length(), items, stream);
    launch<kit_nt_scaling_kernel<Kit>>("kit_nt_scaling_kernel", ceil_blocks(items), kThreads, 0,
                                       stream, kit, s, z, mu, scaling, scratch.get(), items);
    scratch.release();
}

template <class Kit>
void kit_scaled_point(const Kit& kit, const double* scaling, double* lam, size_t items,
                      int device, cudaStream_t stream) {
    ensure_device(device);
    if (items == 0 || kit.rows() == 0) return;
    launch<kit_scaled_point_kernel<Kit>>("kit_scaled_point_kernel", ceil_blocks(items), kThreads,
                                         0, stream, kit, scaling, lam, items);
}

template <class Kit>
void kit_apply(const Kit& kit, const double* scaling, const double* x, double* out, bool inverse,
               size_t items, int device, cudaStream_t stream) {
    ensure_device(device);
    if (items == 0 || kit.rows() == 0) return;
    KitScratch scratch(kit.scratch_length(), items, stream);
    launch<kit_apply_kernel<Kit>>("kit_apply_kernel", ceil_blocks(items), kThreads, 0, stream,
                                  kit, scaling, x, out, inverse, scratch.get(), items);
    scratch.release();
}

template <class Kit>
void kit_hessian(const Kit& kit, const double* scaling, double* out, bool inverse, size_t items,
                 int device, cudaStream_t stream) {
    ensure_device(device);
    const size_t entries = kit.rows() * kit.rows() * items;
    if (entries == 0) return;
    launch<kit_hessian_kernel<Kit>>("kit_hessian_kernel", ceil_blocks(entries), kThreads, 0,
                                    stream, kit, scaling, out, inverse, items);
}

// The fills: `first`/`second` are indptr/indices (CSR) or row/col indices
// (COO); the caller has made sure indptr covers the grid's rows.
template <class Kit>
void kit_fill(bool csr, const Kit& kit, const double* scaling, const int64_t* first,
              const int64_t* second, double* values, size_t nnz, size_t row_offset, size_t items,
              bool inverse, double scale, int device, cudaStream_t stream) {
    ensure_device(device);
    const FillGrid grid{row_offset, kit.rows(), items};
    if (nnz == 0 || grid.rows() == 0) return;
    const kit_math::KitFillValue<Kit> value{kit, scaling, inverse, scale};
    if (csr) {
        launch<kit_fill_csr_kernel<Kit>>("kit_fill_csr_kernel", csr_grid(grid.rows()), kThreads, 0,
                                         stream, grid, value, first, second, values, nnz);
    } else {
        launch<kit_fill_coo_kernel<Kit>>("kit_fill_coo_kernel", coo_grid(nnz), kThreads, 0, stream,
                                         grid, value, first, second, values, nnz);
    }
}

template <class Kit>
void kit_jordan_product(const Kit& kit, const double* x, const double* y, double* out,
                        size_t items, int device, cudaStream_t stream) {
    ensure_device(device);
    if (items == 0 || kit.rows() == 0) return;
    KitScratch scratch(kit.scratch_length(), items, stream);
    launch<kit_jordan_product_kernel<Kit>>("kit_jordan_product_kernel", ceil_blocks(items),
                                           kThreads, 0, stream, kit, x, y, out, scratch.get(),
                                           items);
    scratch.release();
}

template <class Kit>
void kit_jordan_divide(const Kit& kit, const double* lam, const double* v, double* out,
                       size_t items, int device, cudaStream_t stream) {
    ensure_device(device);
    if (items == 0 || kit.rows() == 0) return;
    KitScratch scratch(kit.scratch_length(), items, stream);
    launch<kit_jordan_divide_kernel<Kit>>("kit_jordan_divide_kernel", ceil_blocks(items),
                                          kThreads, 0, stream, kit, lam, v, out, scratch.get(),
                                          items);
    scratch.release();
}

}  // namespace dravik::cuda
