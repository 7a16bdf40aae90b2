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

#ifdef __cplusplus
}
#endif

#endif /* DRAVIK_KIT_CUDA_H */
