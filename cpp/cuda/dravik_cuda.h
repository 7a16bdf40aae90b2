/* The exported device interface: plain C symbols that take raw device
 * pointers, sizes, the device ordinal and the caller's stream. Arguments come
 * in one order: inputs (x, or s then z), the output, the sizes, the device,
 * the stream; scalar-returning functions take no stream and membership tests
 * take atol last. Failures are thrown as std::runtime_error with the failing
 * call's or kernel's name; no function returns an error code. */
#ifndef DRAVIK_CUDA_H
#define DRAVIK_CUDA_H

/* A build without CUDA (DRAVIK_CPU_ONLY) keeps this whole interface, each
 * function answering as a machine without a device would. It declares the
 * stream handle as the runtime does, a pointer to an opaque struct, so the
 * type is the same and no CUDA header is needed. */
#ifdef DRAVIK_CPU_ONLY
typedef struct CUstream_st* cudaStream_t;
#else
#include <cuda_runtime_api.h>
#endif
#ifndef __cplusplus
#include <stdbool.h>
#endif
#include <stddef.h>
#include <stdint.h>

#define DRAVIK_CUDA_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/* Capabilities (never throw). */
DRAVIK_CUDA_API bool dravik_cuda_available(void);
DRAVIK_CUDA_API const char* dravik_cuda_runtime_version(void);

/* Zero cone of `rows` entries: projection, violation, membership. */
DRAVIK_CUDA_API void dravik_zero_project_cuda(const double* x, double* out, size_t rows, int device,
                                              cudaStream_t stream);
DRAVIK_CUDA_API double dravik_zero_violation_cuda(const double* x, size_t rows, int device);
DRAVIK_CUDA_API bool dravik_zero_contains_cuda(const double* x, size_t rows, int device,
                                               double atol);

/* Nonnegative cone of `rows` entries: projection, violation, membership. */
DRAVIK_CUDA_API void dravik_nonnegative_project_cuda(const double* x, double* out, size_t rows,
                                                     int device, cudaStream_t stream);
DRAVIK_CUDA_API double dravik_nonnegative_violation_cuda(const double* x, size_t rows, int device);
DRAVIK_CUDA_API bool dravik_nonnegative_contains_cuda(const double* x, size_t rows, int device,
                                                      double atol);

/* Exponential cone of `blocks` blocks of three values (3 * blocks rows):
 * projection, violation, membership. */
DRAVIK_CUDA_API void dravik_exp_project_cuda(const double* x, double* out, size_t blocks,
                                             int device, cudaStream_t stream);
DRAVIK_CUDA_API double dravik_exp_violation_cuda(const double* x, size_t blocks, int device);
DRAVIK_CUDA_API bool dravik_exp_contains_cuda(const double* x, size_t blocks, int device,
                                              double atol);

/* Second-order cone of `rows` entries: projection, violation, membership. */
DRAVIK_CUDA_API void dravik_soc_project_cuda(const double* x, double* out, size_t rows, int device,
                                             cudaStream_t stream);
DRAVIK_CUDA_API double dravik_soc_violation_cuda(const double* x, size_t rows, int device);
DRAVIK_CUDA_API bool dravik_soc_contains_cuda(const double* x, size_t rows, int device,
                                              double atol);

/* One 2 x 2 PSD matrix in svec form: projection, violation, membership. */
DRAVIK_CUDA_API void dravik_psd2_project_cuda(const double* x, double* out, int device,
                                              cudaStream_t stream);
DRAVIK_CUDA_API double dravik_psd2_violation_cuda(const double* x, int device);
DRAVIK_CUDA_API bool dravik_psd2_contains_cuda(const double* x, int device, double atol);

/* NT scaling batches: `batch` scaling matrices H (rows x rows each, H s = z)
 * of `batch` pairs (s, z) of `rows` entries each. */
DRAVIK_CUDA_API void dravik_zero_nt_scaling_batch_cuda(double* out, size_t rows, size_t batch,
                                                       int device, cudaStream_t stream);
DRAVIK_CUDA_API void dravik_nonnegative_nt_scaling_batch_cuda(const double* s, const double* z,
                                                              double* out, size_t rows,
                                                              size_t batch, int device,
                                                              cudaStream_t stream);
/* Exponential: `blocks` 3-blocks per pair, rows = 3 * blocks. */
DRAVIK_CUDA_API void dravik_exp_nt_scaling_batch_cuda(const double* s, const double* z, double* out,
                                                      size_t blocks, size_t batch, int device,
                                                      cudaStream_t stream);

/* Second-order NT scaling: the method the batch function picks for (rows,
 * batch), "custom" or "cublas" (pure, needs no device); the batch by that
 * method; and the batch forced onto either method. */
DRAVIK_CUDA_API const char* dravik_soc_nt_scaling_default_method_cuda(size_t rows, size_t batch);
DRAVIK_CUDA_API void dravik_soc_nt_scaling_batch_cuda(const double* s, const double* z, double* out,
                                                      size_t rows, size_t batch, int device,
                                                      cudaStream_t stream);
DRAVIK_CUDA_API void dravik_soc_nt_scaling_batch_custom_cuda(const double* s, const double* z,
                                                             double* out, size_t rows, size_t batch,
                                                             int device, cudaStream_t stream);
DRAVIK_CUDA_API void dravik_soc_nt_scaling_batch_cublas_cuda(const double* s, const double* z,
                                                             double* out, size_t rows, size_t batch,
                                                             int device, cudaStream_t stream);

/* Sparse Hessian fills: the cone's H block written into the `nnz` values of
 * a caller's CSR (indptr, indices) or COO (row_indices, col_indices) matrix,
 * at rows and columns [row_offset, row_offset + rows). Entries of the
 * block's rows get H inside its columns and 0.0 outside them; other rows are
 * left alone. `rows` is the length of the cone's vectors (3 * blocks for the
 * exponential cone); the PSD fills take the matrix order instead.
 * Neither the inputs nor the pattern are validated: positions outside
 * [0, nnz) and the rows of a decreasing indptr are skipped, negative indices
 * lie outside every block, and indptr must hold row_offset + rows + 1
 * entries. */
DRAVIK_CUDA_API void dravik_zero_hmatrix_csr_cuda(const int64_t* indptr, const int64_t* indices,
                                                  double* values, size_t nnz, size_t rows,
                                                  size_t row_offset, int device,
                                                  cudaStream_t stream);
DRAVIK_CUDA_API void dravik_zero_hmatrix_coo_cuda(const int64_t* row_indices,
                                                  const int64_t* col_indices, double* values,
                                                  size_t nnz, size_t rows, size_t row_offset,
                                                  int device, cudaStream_t stream);
DRAVIK_CUDA_API void dravik_nonnegative_hmatrix_csr_cuda(const double* s, const double* z,
                                                         const int64_t* indptr,
                                                         const int64_t* indices, double* values,
                                                         size_t nnz, size_t rows, size_t row_offset,
                                                         int device, cudaStream_t stream);
DRAVIK_CUDA_API void dravik_nonnegative_hmatrix_coo_cuda(const double* s, const double* z,
                                                         const int64_t* row_indices,
                                                         const int64_t* col_indices, double* values,
                                                         size_t nnz, size_t rows, size_t row_offset,
                                                         int device, cudaStream_t stream);
DRAVIK_CUDA_API void dravik_soc_hmatrix_csr_cuda(const double* s, const double* z,
                                                 const int64_t* indptr, const int64_t* indices,
                                                 double* values, size_t nnz, size_t rows,
                                                 size_t row_offset, int device,
                                                 cudaStream_t stream);
DRAVIK_CUDA_API void dravik_soc_hmatrix_coo_cuda(const double* s, const double* z,
                                                 const int64_t* row_indices,
                                                 const int64_t* col_indices, double* values,
                                                 size_t nnz, size_t rows, size_t row_offset,
                                                 int device, cudaStream_t stream);
DRAVIK_CUDA_API void dravik_exp_hmatrix_csr_cuda(const double* s, const double* z,
                                                 const int64_t* indptr, const int64_t* indices,
                                                 double* values, size_t nnz, size_t rows,
                                                 size_t row_offset, int device,
                                                 cudaStream_t stream);
DRAVIK_CUDA_API void dravik_exp_hmatrix_coo_cuda(const double* s, const double* z,
                                                 const int64_t* row_indices,
                                                 const int64_t* col_indices, double* values,
                                                 size_t nnz, size_t rows, size_t row_offset,
                                                 int device, cudaStream_t stream);
/* PSD: `order` is the matrix order, the block has order (order + 1) / 2 rows. */
DRAVIK_CUDA_API void dravik_psd_hmatrix_csr_cuda(const double* s, const double* z,
                                                 const int64_t* indptr, const int64_t* indices,
                                                 double* values, size_t nnz, size_t order,
                                                 size_t row_offset, int device,
                                                 cudaStream_t stream);
DRAVIK_CUDA_API void dravik_psd_hmatrix_coo_cuda(const double* s, const double* z,
                                                 const int64_t* row_indices,
                                                 const int64_t* col_indices, double* values,
                                                 size_t nnz, size_t order, size_t row_offset,
                                                 int device, cudaStream_t stream);

/* PSD packing of `batch` matrices: dense order x order blocks <-> svec runs
 * of order (order + 1) / 2 entries. */
DRAVIK_CUDA_API void dravik_psd_svec_cuda(const double* matrix, double* svec, size_t order,
                                          size_t batch, int device, cudaStream_t stream);
DRAVIK_CUDA_API void dravik_psd_smat_cuda(const double* svec, double* matrix, size_t order,
                                          size_t batch, int device, cudaStream_t stream);

/* PSD NT scaling of `batch` svec pairs (s, z) of rows = order (order + 1) / 2
 * entries each, `order` being the matrix order. The method the batch
 * function picks for (order, batch), "analytic", "custom" or "cublas" (pure,
 * needs no device); the batch of H blocks (rows x rows) by that method,
 * forced onto the custom kernels (order <= 32) or onto the cuBLAS and
 * cuSOLVER path (order <= 128); and the congruence matrices R alone
 * (order x order each, order 3 to 128; H is X -> R X R in svec
 * coordinates), which the PSD Hessian fills gather from. A block whose s or
 * z is not positive definite comes out NaN throughout (order 1: z / s only
 * when both are positive). */
DRAVIK_CUDA_API const char* dravik_psd_nt_scaling_default_method_cuda(size_t order, size_t batch);
DRAVIK_CUDA_API void dravik_psd_nt_scaling_batch_cuda(const double* s, const double* z, double* out,
                                                      size_t order, size_t batch, int device,
                                                      cudaStream_t stream);
DRAVIK_CUDA_API void dravik_psd_nt_scaling_batch_custom_cuda(const double* s, const double* z,
                                                             double* out, size_t order,
                                                             size_t batch, int device,
                                                             cudaStream_t stream);
DRAVIK_CUDA_API void dravik_psd_nt_scaling_w_cuda(const double* s, const double* z,
                                                  double* congruence, size_t order, size_t batch,
                                                  int device, cudaStream_t stream);
DRAVIK_CUDA_API void dravik_psd_nt_scaling_batch_cublas_cuda(const double* s, const double* z,
                                                             double* out, size_t order,
                                                             size_t batch, int device,
                                                             cudaStream_t stream);

#ifdef __cplusplus
}
#endif

#endif /* DRAVIK_CUDA_H */
