// Sparse Hessian fills on the device: a cone's H block written into the
// values of a caller's CSR or COO matrix, in stream order. The zero,
// nonnegative and exponential entries are computed in the fill kernel from
// s and z (direct); the second-order block and the PSD block of orders 1
// and 2 are first built as one dense NT matrix in stream-ordered scratch
// and then gathered (dense gather); for PSD orders from 3 on only the
// congruence matrix R (n x n, H being X -> R X R) is built and each entry is
// evaluated from it (congruence gather), so the rows x rows block, of size
// growing as n^4, never exists.
//
// Nothing is validated: non-interior inputs give whatever the formulas give,
// and a malformed pattern never makes a kernel read or write out of bounds
// (the traversal of math/sparse_fill.hpp under its skipping policy).
#include "cuda/dravik_cuda.h"
#include "cuda/frame.cuh"
#include "cuda/sparse_fill_kernels.cuh"
#include "math/hmatrix.hpp"

namespace dravik::cuda {

using mirel::cones::cpp::HmatrixDense;
using mirel::cones::cpp::HmatrixDirect;
using mirel::cones::cpp::HmatrixPsdW;
using mirel::cones::cpp::kHmatrixExponential;
using mirel::cones::cpp::kHmatrixNonnegative;
using mirel::cones::cpp::kHmatrixZero;
using mirel::cones::cpp::one_item;

namespace {

// The documented fills: one block at row_offset, 0.0 elsewhere in its rows.
template <class H>
__device__ void csr_fill_rows(const int64_t* indptr, const int64_t* indices, double* values,
                              size_t nnz, size_t rows, size_t row_offset, const H& h) {
    csr_fill_worker(FillGrid{row_offset, rows, 1}, indptr, indices, values, nnz, one_item(h),
                    OffBlock::Zero);
}

template <class H>
__device__ void coo_fill_entries(const int64_t* row_indices, const int64_t* col_indices,
                                 double* values, size_t nnz, size_t rows, size_t row_offset,
                                 const H& h) {
    coo_fill_worker(FillGrid{row_offset, rows, 1}, row_indices, col_indices, values, nnz,
                    one_item(h), OffBlock::Zero);
}

}  // namespace

__global__ void direct_csr_kernel(int kind, const double* s, const double* z,
                                  const int64_t* first_index, const int64_t* second_index,
                                  double* values, size_t nnz, size_t rows, size_t row_offset) {
    csr_fill_rows(first_index, second_index, values, nnz, rows, row_offset,
                  HmatrixDirect{kind, s, z});
}

__global__ void direct_coo_kernel(int kind, const double* s, const double* z,
                                  const int64_t* first_index, const int64_t* second_index,
                                  double* values, size_t nnz, size_t rows, size_t row_offset) {
    coo_fill_entries(first_index, second_index, values, nnz, rows, row_offset,
                     HmatrixDirect{kind, s, z});
}

__global__ void dense_csr_gather_kernel(const double* block, const int64_t* first_index,
                                        const int64_t* second_index, double* values, size_t nnz,
                                        size_t rows, size_t row_offset) {
    csr_fill_rows(first_index, second_index, values, nnz, rows, row_offset,
                  HmatrixDense{block, rows});
}

__global__ void dense_coo_gather_kernel(const double* block, const int64_t* first_index,
                                        const int64_t* second_index, double* values, size_t nnz,
                                        size_t rows, size_t row_offset) {
    coo_fill_entries(first_index, second_index, values, nnz, rows, row_offset,
                     HmatrixDense{block, rows});
}

__global__ void psd_congruence_csr_gather_kernel(const double* r, const int64_t* first_index,
                                                 const int64_t* second_index, double* values,
                                                 size_t nnz, size_t rows, size_t n,
                                                 size_t row_offset) {
    csr_fill_rows(first_index, second_index, values, nnz, rows, row_offset, HmatrixPsdW{r, n});
}

__global__ void psd_congruence_coo_gather_kernel(const double* r, const int64_t* first_index,
                                                 const int64_t* second_index, double* values,
                                                 size_t nnz, size_t rows, size_t n,
                                                 size_t row_offset) {
    coo_fill_entries(first_index, second_index, values, nnz, rows, row_offset, HmatrixPsdW{r, n});
}

namespace {

enum class Layout { Csr, Coo };

bool nothing_to_fill(size_t nnz, size_t rows) { return nnz == 0 || rows == 0; }

void direct_csr(int kind, const double* s, const double* z, const int64_t* indptr,
                const int64_t* indices, double* values, size_t nnz, size_t rows, size_t row_offset,
                int device, cudaStream_t stream) {
    ensure_device(device);
    if (nothing_to_fill(nnz, rows)) return;
    DRAVIK_LAUNCH(direct_csr_kernel, csr_grid(rows), kThreads, 0, stream, kind, s, z, indptr,
                  indices, values, nnz, rows, row_offset);
}

void direct_coo(int kind, const double* s, const double* z, const int64_t* row_indices,
                const int64_t* col_indices, double* values, size_t nnz, size_t rows,
                size_t row_offset, int device, cudaStream_t stream) {
    ensure_device(device);
    if (nothing_to_fill(nnz, rows)) return;
    DRAVIK_LAUNCH(direct_coo_kernel, coo_grid(nnz), kThreads, 0, stream, kind, s, z, row_indices,
                  col_indices, values, nnz, rows, row_offset);
}

// The dense gather of a rows x rows block that `build` writes into scratch
// (stream-ordered, released right after the gather is enqueued).
template <class Build>
void dense_gather(Layout layout, Build build, const int64_t* first, const int64_t* second,
                  double* values, size_t nnz, size_t rows, size_t row_offset, cudaStream_t stream) {
    StreamScratch<double> block(rows * rows, stream);
    build(block.get());
    if (layout == Layout::Csr) {
        DRAVIK_LAUNCH(dense_csr_gather_kernel, csr_grid(rows), kThreads, 0, stream, block.get(),
                      first, second, values, nnz, rows, row_offset);
    } else {
        DRAVIK_LAUNCH(dense_coo_gather_kernel, coo_grid(nnz), kThreads, 0, stream, block.get(),
                      first, second, values, nnz, rows, row_offset);
    }
    block.release();
}

void soc_fill(Layout layout, const double* s, const double* z, const int64_t* first,
              const int64_t* second, double* values, size_t nnz, size_t rows, size_t row_offset,
              int device, cudaStream_t stream) {
    ensure_device(device);
    if (nothing_to_fill(nnz, rows)) return;
    dense_gather(
        layout,
        [&](double* h) { dravik_soc_nt_scaling_batch_cuda(s, z, h, rows, 1, device, stream); },
        first, second, values, nnz, rows, row_offset, stream);
}

// Orders 1 and 2 have closed forms for the whole block; from 3 on the block
// is evaluated entry by entry from the congruence matrix R.
constexpr size_t kPsdCongruenceGatherFrom = 3;

void psd_congruence_gather(Layout layout, const double* s, const double* z, const int64_t* first,
                           const int64_t* second, double* values, size_t nnz, size_t n, size_t rows,
                           size_t row_offset, int device, cudaStream_t stream) {
    StreamScratch<double> r(n * n, stream);
    dravik_psd_nt_scaling_w_cuda(s, z, r.get(), n, 1, device, stream);
    if (layout == Layout::Csr) {
        DRAVIK_LAUNCH(psd_congruence_csr_gather_kernel, csr_grid(rows), kThreads, 0, stream,
                      r.get(), first, second, values, nnz, rows, n, row_offset);
    } else {
        DRAVIK_LAUNCH(psd_congruence_coo_gather_kernel, coo_grid(nnz), kThreads, 0, stream, r.get(),
                      first, second, values, nnz, rows, n, row_offset);
    }
    r.release();
}

void psd_fill(Layout layout, const double* s, const double* z, const int64_t* first,
              const int64_t* second, double* values, size_t nnz, size_t n, size_t row_offset,
              int device, cudaStream_t stream) {
    ensure_device(device);
    const size_t rows = mirel::cones::cpp::svec_length(n);
    if (nothing_to_fill(nnz, rows)) return;
    if (n >= kPsdCongruenceGatherFrom) {
        psd_congruence_gather(layout, s, z, first, second, values, nnz, n, rows, row_offset, device,
                              stream);
        return;
    }
    dense_gather(
        layout, [&](double* h) { dravik_psd_nt_scaling_batch_cuda(s, z, h, n, 1, device, stream); },
        first, second, values, nnz, rows, row_offset, stream);
}

}  // namespace

}  // namespace dravik::cuda

using namespace dravik::cuda;

extern "C" {

void dravik_zero_hmatrix_csr_cuda(const int64_t* indptr, const int64_t* indices, double* values,
                                  size_t nnz, size_t rows, size_t row_offset, int device,
                                  cudaStream_t stream) {
    direct_csr(kHmatrixZero, nullptr, nullptr, indptr, indices, values, nnz, rows, row_offset,
               device, stream);
}

void dravik_zero_hmatrix_coo_cuda(const int64_t* row_indices, const int64_t* col_indices,
                                  double* values, size_t nnz, size_t rows, size_t row_offset,
                                  int device, cudaStream_t stream) {
    direct_coo(kHmatrixZero, nullptr, nullptr, row_indices, col_indices, values, nnz, rows,
               row_offset, device, stream);
}

void dravik_nonnegative_hmatrix_csr_cuda(const double* s, const double* z, const int64_t* indptr,
                                         const int64_t* indices, double* values, size_t nnz,
                                         size_t rows, size_t row_offset, int device,
                                         cudaStream_t stream) {
    direct_csr(kHmatrixNonnegative, s, z, indptr, indices, values, nnz, rows, row_offset, device,
               stream);
}

void dravik_nonnegative_hmatrix_coo_cuda(const double* s, const double* z,
                                         const int64_t* row_indices, const int64_t* col_indices,
                                         double* values, size_t nnz, size_t rows, size_t row_offset,
                                         int device, cudaStream_t stream) {
    direct_coo(kHmatrixNonnegative, s, z, row_indices, col_indices, values, nnz, rows, row_offset,
               device, stream);
}

void dravik_exp_hmatrix_csr_cuda(const double* s, const double* z, const int64_t* indptr,
                                 const int64_t* indices, double* values, size_t nnz, size_t rows,
                                 size_t row_offset, int device, cudaStream_t stream) {
    direct_csr(kHmatrixExponential, s, z, indptr, indices, values, nnz, rows, row_offset, device,
               stream);
}

void dravik_exp_hmatrix_coo_cuda(const double* s, const double* z, const int64_t* row_indices,
                                 const int64_t* col_indices, double* values, size_t nnz,
                                 size_t rows, size_t row_offset, int device, cudaStream_t stream) {
    direct_coo(kHmatrixExponential, s, z, row_indices, col_indices, values, nnz, rows, row_offset,
               device, stream);
}

void dravik_soc_hmatrix_csr_cuda(const double* s, const double* z, const int64_t* indptr,
                                 const int64_t* indices, double* values, size_t nnz, size_t rows,
                                 size_t row_offset, int device, cudaStream_t stream) {
    soc_fill(Layout::Csr, s, z, indptr, indices, values, nnz, rows, row_offset, device, stream);
}

void dravik_soc_hmatrix_coo_cuda(const double* s, const double* z, const int64_t* row_indices,
                                 const int64_t* col_indices, double* values, size_t nnz,
                                 size_t rows, size_t row_offset, int device, cudaStream_t stream) {
    soc_fill(Layout::Coo, s, z, row_indices, col_indices, values, nnz, rows, row_offset, device,
             stream);
}

void dravik_psd_hmatrix_csr_cuda(const double* s, const double* z, const int64_t* indptr,
                                 const int64_t* indices, double* values, size_t nnz, size_t order,
                                 size_t row_offset, int device, cudaStream_t stream) {
    psd_fill(Layout::Csr, s, z, indptr, indices, values, nnz, order, row_offset, device, stream);
}

void dravik_psd_hmatrix_coo_cuda(const double* s, const double* z, const int64_t* row_indices,
                                 const int64_t* col_indices, double* values, size_t nnz,
                                 size_t order, size_t row_offset, int device, cudaStream_t stream) {
    psd_fill(Layout::Coo, s, z, row_indices, col_indices, values, nnz, order, row_offset, device,
             stream);
}

}  // extern "C"
