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

/* ---- Exponential cone (m blocks of three values): the dual cone. ---- */
/* Euclidean projection onto the dual cone, one block per thread; x may be out. */
DRAVIK_CUDA_API void dravik_exp_project_dual_cuda(const double* x, double* out, size_t m,
                                                  int device, cudaStream_t stream);
/* The dual violation measure (square root of the sum of the blocks' terms). */
DRAVIK_CUDA_API double dravik_exp_violation_dual_cuda(const double* x, size_t m, int device);
/* Whether every block passes the dual membership test with atol. */
DRAVIK_CUDA_API bool dravik_exp_contains_dual_cuda(const double* x, size_t m, int device,
                                                   double atol);

#ifdef __cplusplus
}
#endif

#endif /* DRAVIK_KIT_CUDA_H */
