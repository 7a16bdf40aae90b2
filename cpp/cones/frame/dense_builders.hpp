// Small dense builders shared by the cones: unit vectors, the identity, a
// computed matrix copied into a new array, the positive diagonal ratio
// diag(a / b) and the symmetric rank-two map that takes a onto b.
// Matrices are n x n, row-major (entry (r, c) at r * n + c).
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "cones/frame/parallel.hpp"
#include "core/owned_array.hpp"
#include "core/views.hpp"

namespace dravik::mirel::cones::cpp {

std::vector<double> unit_vector_values(uint64_t n, uint64_t index);
OwnedArray unit_vector_array(uint64_t n, uint64_t index);
void fill_unit_vector(double* destination, uint64_t n, uint64_t index);

// The three unit-vector methods of every cone, for a cone of `rows` entries.
struct UnitVectors {
    static std::vector<double> list(uint64_t rows, uint64_t index) {
        return unit_vector_values(rows, index);
    }
    static OwnedArray array(uint64_t rows, uint64_t index) { return unit_vector_array(rows, index); }
    static void into(uint64_t rows, uint64_t index, const ArrayRef& output) {
        VectorView out = dense_output_view(output, rows, "output");
        fill_unit_vector(out.data, rows, index);
    }
};

OwnedArray identity_array(uint64_t n);
OwnedArray dense_matrix_array(const std::vector<double>& values, uint64_t n, const char* what);

// diag(a / b) after the positivity test of every pair (a[i], b[i]), which
// raises what + " requires strictly positive interior inputs".
OwnedArray diagonal_ratio_array(const double* a, const double* b, uint64_t n, const char* what);

std::vector<double> rank_two_map_values(const double* a, const double* b, uint64_t n,
                                        const char* what);

// Blocks items.begin .. items.end - 1 of a batch of diagonal n x n blocks
// (block b at b * n * n): each block is zeroed and value(b, k) written at
// k * (n + 1) while the block is still in cache. The batch paths run it on
// the same team as their input tests, each thread on its block of items.
template <class Value>
void write_diagonal_blocks(double* out, uint64_t n, ItemRange items, Value&& value) {
    if (n == 0) return;  // no walk over a batch of empty blocks, however large
    for (uint64_t b = items.begin; b < items.end; ++b) {
        double* block = out + b * n * n;
        std::fill(block, block + n * n, 0.0);
        for (uint64_t k = 0; k < n; ++k) block[k * (n + 1)] = value(b, k);
    }
}

}  // namespace dravik::mirel::cones::cpp
