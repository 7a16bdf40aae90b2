// The launch geometry of the sparse fills on the device, shared by the
// documented fills and the solver kit's: CSR runs one thread block per row
// of the grid (its threads splitting the row's positions), COO one thread
// per stored entry; both stride over what the grid's x extent cannot cover.
// The traversal is math/sparse_fill.hpp under its skipping policy.
#pragma once

#include <cuda_runtime.h>

#include <cstddef>
#include <cstdint>

#include "cuda/frame.cuh"
#include "math/sparse_fill.hpp"

namespace dravik::cuda {

using mirel::cones::cpp::FillGrid;
using mirel::cones::cpp::OffBlock;

// The grid's x extent is 32-bit signed at most.
constexpr size_t kMaxGrid = 0x7FFFFFFF;

inline unsigned capped_grid(size_t blocks) {
    return static_cast<unsigned>(blocks < kMaxGrid ? blocks : kMaxGrid);
}

inline unsigned csr_grid(size_t rows) { return capped_grid(rows); }
inline unsigned coo_grid(size_t nnz) { return capped_grid(ceil_blocks(nnz)); }

template <class Value>
__device__ void csr_fill_worker(const FillGrid& grid, const int64_t* indptr,
                                const int64_t* indices, double* values, size_t nnz,
                                const Value& value, OffBlock off_block) {
    mirel::cones::cpp::fill_csr_rows(grid, indptr, indices, values, nnz,
                                     mirel::cones::cpp::SkipBadPattern{}, value, off_block,
                                     blockIdx.x, gridDim.x, threadIdx.x, blockDim.x);
}

template <class Value>
__device__ void coo_fill_worker(const FillGrid& grid, const int64_t* row_indices,
                                const int64_t* col_indices, double* values, size_t nnz,
                                const Value& value, OffBlock off_block) {
    mirel::cones::cpp::fill_coo_entries(
        grid, row_indices, col_indices, values, nnz, mirel::cones::cpp::SkipBadPattern{}, value,
        off_block, static_cast<size_t>(blockIdx.x) * blockDim.x + threadIdx.x,
        static_cast<size_t>(gridDim.x) * blockDim.x);
}

}  // namespace dravik::cuda
