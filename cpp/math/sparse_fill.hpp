// The one traversal of a caller's CSR or COO matrix that every sparse Hessian
// fill runs, on the host and in the kernels. The cone's rows form a grid of
// `items` diagonal blocks of `block_rows` rows each, starting at row and
// column `row_offset`; a stored entry whose row and column fall in the same
// item's block gets value.row(item, i)(j) (i, j local to the block; the row
// evaluator is made once per row). What
// happens to the other stored entries of the grid's rows is the fill's
// choice: the documented fills write 0.0 there, the solver kit's fills
// leave them as they are (the solver's coupling entries).
//
// A malformed pattern is the policy's business (`Pattern`): the host
// raises at the first bad index in traversal order, the kernels skip what
// they cannot use, bounding every position by nnz so that no pattern makes
// them read or write outside the arrays. The caller guarantees
// indptr[row_offset .. row_offset + rows] and nnz entries of every other
// index array.
//
// The work is split as a launch splits it: a CSR worker takes the grid's
// rows first_row, first_row + row_step, ... and within each row the
// positions lane, lane + lanes, ...; a COO worker takes the entries first,
// first + step, ... The host runs one worker over everything.
#pragma once

#include <cstddef>
#include <cstdint>

#include "math/host_device.hpp"

namespace dravik::mirel::cones::cpp {

constexpr const char* kCsrIndptrNegative = "CSR indptr must be nonnegative";
constexpr const char* kCsrIndptrOrder =
    "CSR indptr entries must be monotone and within values length";
constexpr const char* kCsrIndexNegative = "CSR indices must be nonnegative";
constexpr const char* kCooRowNegative = "COO row_indices must be nonnegative";
constexpr const char* kCooColNegative = "COO col_indices must be nonnegative";

// What the fill writes into the stored entries of its rows that lie outside
// every item's block.
enum class OffBlock { Zero, Keep };

struct FillGrid {
    size_t row_offset;
    size_t block_rows;
    size_t items;

    DRAVIK_HD size_t rows() const { return block_rows * items; }

    // Whether a stored row or column index lies in the grid; `at` receives
    // its position from row_offset. Indices are signed: a negative one lies
    // outside every grid.
    DRAVIK_HD bool locate(int64_t index, size_t* at) const {
        if (index < 0) return false;
        const size_t u = static_cast<size_t>(index);
        if (u < row_offset || u - row_offset >= rows()) return false;
        *at = u - row_offset;
        return true;
    }
};

// The kernels' pattern policy: nothing is raised; a row's positions are
// [max(indptr[g], 0), min(max(indptr[g + 1], 0), nnz)), so a row whose
// pointers decrease has none; negative indices lie outside the grid.
struct SkipBadPattern {
    DRAVIK_HD void index(int64_t, const char*) const {}
    DRAVIK_HD void row_span(int64_t a, int64_t b, size_t nnz, size_t* begin, size_t* end) const {
        *begin = a < 0 ? 0 : static_cast<size_t>(a);
        const size_t stop = b < 0 ? 0 : static_cast<size_t>(b);
        *end = stop < nnz ? stop : nnz;
    }
};

// The stored entry `slot` of a row whose values row(j) are taken, and whose
// column index is c: inside the item's block when c - item_begin <
// block_rows (item_begin = row_offset + item * block_rows; a column left of
// the block wraps around to a large difference).
template <class Pattern, class Row>
DRAVIK_HD void fill_entry(const FillGrid& grid, const Pattern& pattern, const Row& row,
                          OffBlock off_block, size_t item_begin, int64_t c,
                          const char* negative_column, double* slot) {
    pattern.index(c, negative_column);
    const size_t j = static_cast<size_t>(c) - item_begin;
    if (c >= 0 && j < grid.block_rows) {
        *slot = row(j);
    } else if (off_block == OffBlock::Zero) {
        *slot = 0.0;
    }
}

template <class Pattern, class Value>
DRAVIK_HD void fill_csr_rows(const FillGrid& grid, const int64_t* indptr, const int64_t* indices,
                             double* values, size_t nnz, const Pattern& pattern,
                             const Value& value, OffBlock off_block, size_t first_row,
                             size_t row_step, size_t lane, size_t lanes) {
    for (size_t r = first_row; r < grid.rows(); r += row_step) {
        const size_t g = grid.row_offset + r;
        size_t begin = 0, end = 0;
        pattern.row_span(indptr[g], indptr[g + 1], nnz, &begin, &end);
        const size_t item = r / grid.block_rows;
        const size_t item_begin = grid.row_offset + item * grid.block_rows;
        const auto row = value.row(item, r - item * grid.block_rows);
        for (size_t p = begin + lane; p < end; p += lanes) {
            fill_entry(grid, pattern, row, off_block, item_begin, indices[p], kCsrIndexNegative,
                       values + p);
        }
    }
}

// Entries of other rows are passed over before their column is read.
template <class Pattern, class Value>
DRAVIK_HD void fill_coo_entries(const FillGrid& grid, const int64_t* row_indices,
                                const int64_t* col_indices, double* values, size_t nnz,
                                const Pattern& pattern, const Value& value, OffBlock off_block,
                                size_t first, size_t step) {
    for (size_t p = first; p < nnz; p += step) {
        const int64_t r = row_indices[p];
        pattern.index(r, kCooRowNegative);
        size_t row = 0;
        if (!grid.locate(r, &row)) continue;
        const size_t item = row / grid.block_rows;
        fill_entry(grid, pattern, value.row(item, row - item * grid.block_rows), off_block,
                   grid.row_offset + item * grid.block_rows, col_indices[p], kCooColNegative,
                   values + p);
    }
}

}  // namespace dravik::mirel::cones::cpp
