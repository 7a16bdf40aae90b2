/* The solver-kit part of the exported device interface: the per-iteration
 * primitives of an interior-point method (NT scaling with its factor and
 * scaled point, step lengths, Jordan operations, coupling-safe batched
 * Hessian fills, and the exponential cone's dual-cone and barrier
 * operations), beside the documented functions of dravik_cuda.h and in
 * their style: raw device pointers, inputs before outputs, then sizes, the
 * device ordinal and the caller's stream; failures are thrown as
 * std::runtime_error. `batch` items of a cone lie one after another. A
 * refused item (a point outside the cone where the host would raise) comes
 * out NaN. */
#ifndef DRAVIK_KIT_CUDA_H
#define DRAVIK_KIT_CUDA_H

#include "cuda/dravik_cuda.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Zero cone (rows entries per item): the identity (zeros), H (zeros) and
 * the coupling-safe fills (scale * 0.0 into each item's block). */
DRAVIK_CUDA_API void dravik_zero_identity_cuda(double* out, size_t rows, size_t batch, int device,
                                               cudaStream_t stream);
DRAVIK_CUDA_API void dravik_zero_nt_hessian_cuda(const double* scaling, double* out, size_t rows,
                                                 size_t batch, bool inverse, int device,
                                                 cudaStream_t stream);
DRAVIK_CUDA_API void dravik_zero_nt_hessian_csr_cuda(const double* scaling, const int64_t* indptr,
                                                     const int64_t* indices, double* values,
                                                     size_t nnz, size_t rows, size_t row_offset,
                                                     size_t batch, bool inverse, double scale,
                                                     int device, cudaStream_t stream);
DRAVIK_CUDA_API void dravik_zero_nt_hessian_coo_cuda(const double* scaling,
                                                     const int64_t* row_indices,
                                                     const int64_t* col_indices, double* values,
                                                     size_t nnz, size_t rows, size_t row_offset,
                                                     size_t batch, bool inverse, double scale,
                                                     int device, cudaStream_t stream);

/* Nonnegative cone (rows entries per item). max_step returns the least step
 * over all items after waiting for `stream` (NaN when an x is outside the
 * cone). The scaling is 2 rows doubles per item. */
DRAVIK_CUDA_API void dravik_nonnegative_identity_cuda(double* out, size_t rows, size_t batch,
                                                      int device, cudaStream_t stream);
DRAVIK_CUDA_API double dravik_nonnegative_max_step_cuda(const double* x, const double* dx,
                                                        size_t rows, size_t batch, int device,
                                                        cudaStream_t stream);
DRAVIK_CUDA_API void dravik_nonnegative_nt_scaling_cuda(const double* s, const double* z,
                                                        double* scaling, size_t rows, size_t batch,
                                                        int device, cudaStream_t stream);
DRAVIK_CUDA_API void dravik_nonnegative_nt_scaled_point_cuda(const double* scaling, double* lam,
                                                             size_t rows, size_t batch, int device,
                                                             cudaStream_t stream);
DRAVIK_CUDA_API void dravik_nonnegative_nt_apply_cuda(const double* scaling, const double* x,
                                                      double* out, size_t rows, size_t batch,
                                                      bool inverse, int device,
                                                      cudaStream_t stream);
DRAVIK_CUDA_API void dravik_nonnegative_nt_hessian_cuda(const double* scaling, double* out,
                                                        size_t rows, size_t batch, bool inverse,
                                                        int device, cudaStream_t stream);
DRAVIK_CUDA_API void dravik_nonnegative_nt_hessian_csr_cuda(
    const double* scaling, const int64_t* indptr, const int64_t* indices, double* values,
    size_t nnz, size_t rows, size_t row_offset, size_t batch, bool inverse, double scale,
    int device, cudaStream_t stream);
DRAVIK_CUDA_API void dravik_nonnegative_nt_hessian_coo_cuda(
    const double* scaling, const int64_t* row_indices, const int64_t* col_indices, double* values,
    size_t nnz, size_t rows, size_t row_offset, size_t batch, bool inverse, double scale,
    int device, cudaStream_t stream);
DRAVIK_CUDA_API void dravik_nonnegative_jordan_product_cuda(const double* x, const double* y,
                                                            double* out, size_t rows, size_t batch,
                                                            int device, cudaStream_t stream);
DRAVIK_CUDA_API void dravik_nonnegative_jordan_divide_cuda(const double* lam, const double* v,
                                                           double* out, size_t rows, size_t batch,
                                                           int device, cudaStream_t stream);


/* Second-order cone (rows entries per item): the scaling is 3 rows + 3
 * doubles per item. */
DRAVIK_CUDA_API void dravik_soc_identity_cuda(double* out, size_t rows, size_t batch, int device,
                                              cudaStream_t stream);
DRAVIK_CUDA_API double dravik_soc_max_step_cuda(const double* x, const double* dx, size_t rows,
                                                size_t batch, int device, cudaStream_t stream);
DRAVIK_CUDA_API void dravik_soc_nt_scaling_cuda(const double* s, const double* z, double* scaling,
                                                size_t rows, size_t batch, int device,
                                                cudaStream_t stream);
DRAVIK_CUDA_API void dravik_soc_nt_scaled_point_cuda(const double* scaling, double* lam,
                                                     size_t rows, size_t batch, int device,
                                                     cudaStream_t stream);
DRAVIK_CUDA_API void dravik_soc_nt_apply_cuda(const double* scaling, const double* x, double* out,
                                              size_t rows, size_t batch, bool inverse, int device,
                                              cudaStream_t stream);
DRAVIK_CUDA_API void dravik_soc_nt_hessian_cuda(const double* scaling, double* out, size_t rows,
                                                size_t batch, bool inverse, int device,
                                                cudaStream_t stream);
DRAVIK_CUDA_API void dravik_soc_nt_hessian_csr_cuda(const double* scaling, const int64_t* indptr,
                                                    const int64_t* indices, double* values,
                                                    size_t nnz, size_t rows, size_t row_offset,
                                                    size_t batch, bool inverse, double scale,
                                                    int device, cudaStream_t stream);
DRAVIK_CUDA_API void dravik_soc_nt_hessian_coo_cuda(const double* scaling,
                                                    const int64_t* row_indices,
                                                    const int64_t* col_indices, double* values,
                                                    size_t nnz, size_t rows, size_t row_offset,
                                                    size_t batch, bool inverse, double scale,
                                                    int device, cudaStream_t stream);
DRAVIK_CUDA_API void dravik_soc_jordan_product_cuda(const double* x, const double* y, double* out,
                                                    size_t rows, size_t batch, int device,
                                                    cudaStream_t stream);
DRAVIK_CUDA_API void dravik_soc_jordan_divide_cuda(const double* lam, const double* v, double* out,
                                                   size_t rows, size_t batch, int device,
                                                   cudaStream_t stream);

#ifdef __cplusplus
}
#endif

#endif /* DRAVIK_KIT_CUDA_H */
