// The sparse Hessian fill that every cone shares: a cone's H block written
// into the value array of a caller's CSR or COO matrix. The frame checks the
// arguments, hands CUDA arrays to the cone's device entry points and, on the
// host, runs the cone's preparation (its input test and whatever H needs)
// and then one pass over the stored entries of the cone's rows, writing
// H(i, j) inside the block's columns and 0.0 elsewhere in those rows. Each
// cone contributes only its preparation, its H(i, j) and its entry points.
// Host fills run on the calling thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "cones/frame/dispatch.hpp"
#include "core/errors.hpp"
#include "core/views.hpp"
#include "math/hmatrix.hpp"
#include "math/sparse_fill.hpp"

namespace dravik::mirel::cones::cpp {

// One layout's device entry point, in the argument order of the nonnegative
// fills; the zero cone's entry points, which take no s and z, are adapted.
using HmatrixDeviceFn = void (*)(const double* s, const double* z, const int64_t* first_index,
                                 const int64_t* second_index, double* values, size_t nnz,
                                 size_t dim, size_t row_offset, int device, cudaStream_t stream);

struct HmatrixDeviceFills {
    HmatrixDeviceFn csr;
    HmatrixDeviceFn coo;
};

// CSR needs indptr[row_offset] .. indptr[row_offset + rows]; fails with the
// "too short" message otherwise (without forming a sum that could wrap).
void require_csr_indptr_covers(uint64_t indptr_length, uint64_t row_offset, uint64_t rows);

// The host's pattern policy: the first bad index in traversal order raises
// its message, after the entries before it have been written.
struct RaiseOnBadPattern {
    void index(int64_t v, const char* negative) const {
        if (v < 0) fail(negative);
    }
    void row_span(int64_t a, int64_t b, size_t nnz, size_t* begin, size_t* end) const {
        if (a < 0 || b < 0) fail(kCsrIndptrNegative);
        if (static_cast<uint64_t>(b) > nnz || b < a) fail(kCsrIndptrOrder);
        *begin = static_cast<size_t>(a);
        *end = static_cast<size_t>(b);
    }
};

// The host CSR pass over the grid's rows in order, through indptr, after the
// coverage and length checks.
template <class Value>
void fill_csr(const IndexView& indptr, const IndexView& indices, const VectorView& values,
              const FillGrid& grid, const Value& value, OffBlock off_block) {
    require_csr_indptr_covers(indptr.size, grid.row_offset, grid.rows());
    check_length(values.size, indices.size, "values");
    fill_csr_rows(grid, indptr.data, indices.data, values.data, values.size,
                  RaiseOnBadPattern{}, value, off_block, 0, 1, 0, 1);
}

// The host COO pass over every stored entry in order: each row index is read
// (and a negative one fails, whatever row it names); a column index is read
// only in the grid's rows.
template <class Value>
void fill_coo(const IndexView& row_indices, const IndexView& col_indices,
              const VectorView& values, const FillGrid& grid, const Value& value,
              OffBlock off_block) {
    check_length(col_indices.size, row_indices.size, "COO col_indices");
    check_length(values.size, row_indices.size, "values");
    fill_coo_entries(grid, row_indices.data, col_indices.data, values.data, row_indices.size,
                     RaiseOnBadPattern{}, value, off_block, 0, 1);
}

// One cone's fill. `rows` is the block's order; `device_dim` the size its
// entry points take (dim, 3 * blocks, or the PSD matrix order).
// prepare(s, z) tests the host inputs, raising the cone's message, and
// returns the H(i, j) evaluator; it runs before anything is written.
template <class Prepare>
void fill_hmatrix(SparseLayout layout, const SparseFillArgs& args, uint64_t rows,
                  uint64_t device_dim, const HmatrixDeviceFills& device, Prepare&& prepare) {
    const SparseFillViews v = sparse_fill_views(layout, args, rows);
    const bool csr = layout == SparseLayout::Csr;
    run_on(
        v.s,
        [&](int ordinal) {
            // The device checks nothing of the pattern, and is not told the
            // length of indptr: the rows it reads must exist.
            if (csr) require_csr_indptr_covers(v.first.size, args.row_offset, rows);
            (csr ? device.csr : device.coo)(v.s.data, v.z.data, v.first.data, v.second.data,
                                            v.values.data, v.values.size, device_dim,
                                            args.row_offset, ordinal, as_stream(args.stream));
        },
        [&] {
            const auto h = one_item(
                prepare(static_cast<const double*>(v.s.data), static_cast<const double*>(v.z.data)));
            const FillGrid grid{args.row_offset, rows, 1};
            if (csr) {
                fill_csr(v.first, v.second, v.values, grid, h, OffBlock::Zero);
            } else {
                fill_coo(v.first, v.second, v.values, grid, h, OffBlock::Zero);
            }
        });
}

}  // namespace dravik::mirel::cones::cpp
