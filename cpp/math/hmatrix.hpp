// The pieces of the sparse Hessian fills that the host frame and the fill
// kernels share: which stored entries lie in a cone's block, and the H(i, j)
// evaluators of the cones whose entries come straight from s and z (zero,
// nonnegative, exponential), from one prepared dense matrix (second-order
// W, the small PSD operators) or from the PSD scaling point W. Local
// indices i, j run over the block's rows.
#pragma once

#include <cstddef>
#include <cstdint>

#include "math/exponential.hpp"
#include "math/host_device.hpp"
#include "math/psd_nt.hpp"

namespace dravik::mirel::cones::cpp {

// Whether a stored row or column index lies in [row_offset, row_offset +
// rows). Indices are signed: a negative one is outside every block.
DRAVIK_HD inline bool hmatrix_in_block(int64_t index, size_t row_offset, size_t rows) {
    if (index < 0) return false;
    const size_t u = static_cast<size_t>(index);
    return u >= row_offset && u - row_offset < rows;
}

// The cones whose entries the direct fill computes from s and z alone; the
// value is the `kind` argument of the direct kernels.
enum HmatrixDirectKind : int {
    kHmatrixZero = 0,         // the identity; s and z are not read (may be null)
    kHmatrixNonnegative = 1,  // diag(z / s)
    kHmatrixExponential = 2,  // block-diagonal rank-two maps of the 3-blocks
};

// H(i, j) of the exponential cone with i and j in the same 3-block k: entry
// (i mod 3, j mod 3) of the rank-two map taking s-block k onto z-block k,
// grouped as the dense builder groups it (no norm check, no interior test).
DRAVIK_HD inline double hmatrix_exp_block_entry(const double* s, const double* z, size_t i,
                                                size_t j) {
    const size_t corner = i - i % 3;
    const ExpScalingBlock m = exp_scaling_block(s + corner, z + corner);
    return m.entry(static_cast<unsigned>(i % 3), static_cast<unsigned>(j % 3));
}

// H(i, j) of the direct cones.
struct HmatrixDirect {
    int kind;
    const double* s;
    const double* z;

    DRAVIK_HD double operator()(size_t i, size_t j) const {
        switch (kind) {
            case kHmatrixNonnegative:
                return i == j ? z[i] / s[i] : 0.0;
            case kHmatrixExponential:
                return i / 3 == j / 3 ? hmatrix_exp_block_entry(s, z, i, j) : 0.0;
            case kHmatrixZero:
            default:
                return i == j ? 1.0 : 0.0;
        }
    }
};

// H(i, j) read from a row-major rows x rows matrix.
struct HmatrixDense {
    const double* block;
    size_t rows;

    DRAVIK_HD double operator()(size_t i, size_t j) const { return block[i * rows + j]; }
};

// H(i, j) of a PSD cone of matrix order n: the svec-space entry of
// X -> W X W at positions i and j, from the row-major n x n W. The rows x
// rows block is never formed.
struct HmatrixPsdW {
    const double* w;
    size_t n;

    DRAVIK_HD double operator()(size_t i, size_t j) const {
        return psd_nt_operator_entry(w, n, i, j);
    }
};

// The device traversals, which validate nothing and so must never step
// outside the arrays whatever the pattern holds. Every position is bounded
// by nnz: a CSR row takes the positions of [indptr[g], indptr[g + 1]) that
// lie in [0, nnz), so a row whose pointers decrease writes nothing. The
// caller guarantees indptr[row_offset .. row_offset + rows] and nnz entries
// of each other index array. The work is split as the launch splits it:
// a CSR worker takes rows first_row, first_row + row_step, ... and within
// each row the positions lane, lane + lanes, ...; a COO worker takes the
// entries first, first + step, ...

template <class H>
DRAVIK_HD void hmatrix_csr_rows_guarded(const int64_t* indptr, const int64_t* indices,
                                        double* values, size_t nnz, size_t rows, size_t row_offset,
                                        const H& h, size_t first_row, size_t row_step, size_t lane,
                                        size_t lanes) {
    for (size_t r = first_row; r < rows; r += row_step) {
        const int64_t a = indptr[row_offset + r];
        const int64_t b = indptr[row_offset + r + 1];
        const size_t begin = a < 0 ? 0 : static_cast<size_t>(a);
        const size_t stop = b < 0 ? 0 : static_cast<size_t>(b);
        const size_t end = stop < nnz ? stop : nnz;
        for (size_t p = begin + lane; p < end; p += lanes) {
            const int64_t c = indices[p];
            values[p] = hmatrix_in_block(c, row_offset, rows)
                            ? h(r, static_cast<size_t>(c) - row_offset)
                            : 0.0;
        }
    }
}

// Entries of other rows are passed over before their column is read.
template <class H>
DRAVIK_HD void hmatrix_coo_entries_guarded(const int64_t* row_indices, const int64_t* col_indices,
                                           double* values, size_t nnz, size_t rows,
                                           size_t row_offset, const H& h, size_t first,
                                           size_t step) {
    for (size_t p = first; p < nnz; p += step) {
        const int64_t r = row_indices[p];
        if (!hmatrix_in_block(r, row_offset, rows)) continue;
        const int64_t c = col_indices[p];
        const size_t i = static_cast<size_t>(r) - row_offset;
        const size_t j = static_cast<size_t>(c) - row_offset;
        values[p] = hmatrix_in_block(c, row_offset, rows) ? h(i, j) : 0.0;
    }
}

}  // namespace dravik::mirel::cones::cpp
