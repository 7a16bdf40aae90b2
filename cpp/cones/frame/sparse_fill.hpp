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

constexpr const char* kCsrIndptrNegative = "CSR indptr must be nonnegative";
constexpr const char* kCsrIndptrOrder =
    "CSR indptr entries must be monotone and within values length";
constexpr const char* kCsrIndexNegative = "CSR indices must be nonnegative";
constexpr const char* kCooRowNegative = "COO row_indices must be nonnegative";
constexpr const char* kCooColNegative = "COO col_indices must be nonnegative";

// The host CSR pass over local rows r = 0 .. rows - 1 in order, through
// indptr; the index checks are made while writing, so a failure in row r
// leaves the values written before it in place.
template <class H>
void fill_csr(const SparseFillViews& v, uint64_t rows, uint64_t row_offset, const H& h) {
    require_csr_indptr_covers(v.first.size, row_offset, rows);
    check_length(v.values.size, v.second.size, "values");
    const int64_t* indptr = v.first.data;
    const int64_t* indices = v.second.data;
    double* values = v.values.data;
    for (uint64_t r = 0; r < rows; ++r) {
        const uint64_t g = row_offset + r;
        const int64_t a = indptr[g];
        if (a < 0) fail(kCsrIndptrNegative);
        const int64_t b = indptr[g + 1];
        if (b < 0) fail(kCsrIndptrNegative);
        if (static_cast<uint64_t>(b) > v.values.size || b < a) fail(kCsrIndptrOrder);
        for (int64_t k = a; k < b; ++k) {
            const int64_t col = indices[k];
            if (col < 0) fail(kCsrIndexNegative);
            values[k] = hmatrix_in_block(col, row_offset, rows)
                            ? h(r, static_cast<uint64_t>(col) - row_offset)
                            : 0.0;
        }
    }
}

// The host COO pass over every stored entry in order: each row index is read
// (and a negative one fails, whatever row it names); entries of other rows
// are left alone, and a column index is read only in the cone's rows.
template <class H>
void fill_coo(const SparseFillViews& v, uint64_t rows, uint64_t row_offset, const H& h) {
    check_length(v.second.size, v.first.size, "COO col_indices");
    check_length(v.values.size, v.first.size, "values");
    const int64_t* row_indices = v.first.data;
    const int64_t* col_indices = v.second.data;
    double* values = v.values.data;
    for (uint64_t k = 0; k < v.first.size; ++k) {
        const int64_t row = row_indices[k];
        if (row < 0) fail(kCooRowNegative);
        if (!hmatrix_in_block(row, row_offset, rows)) continue;
        const int64_t col = col_indices[k];
        if (col < 0) fail(kCooColNegative);
        values[k] = hmatrix_in_block(col, row_offset, rows)
                        ? h(static_cast<uint64_t>(row) - row_offset,
                            static_cast<uint64_t>(col) - row_offset)
                        : 0.0;
    }
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
            const auto h =
                prepare(static_cast<const double*>(v.s.data), static_cast<const double*>(v.z.data));
            if (csr) {
                fill_csr(v, rows, args.row_offset, h);
            } else {
                fill_coo(v, rows, args.row_offset, h);
            }
        });
}

}  // namespace dravik::mirel::cones::cpp
