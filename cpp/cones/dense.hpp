// Small dense builders shared by the cones: unit vectors, the identity, a
// computed matrix copied into a new array, the positive diagonal ratio
// diag(a / b) and the symmetric rank-two map that takes a onto b.
// Matrices are n x n, row-major (entry (r, c) at r * n + c).
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "bindings/owned_array.hpp"
#include "bindings/views.hpp"
#include "cones/parallel.hpp"

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

std::vector<double> identity_values(uint64_t n);
OwnedArray identity_array(uint64_t n);
OwnedArray dense_matrix_array(const std::vector<double>& values, uint64_t n, const char* what);

std::vector<double> diagonal_ratio_values(const double* a, const double* b, uint64_t n,
                                          const char* what);
OwnedArray diagonal_ratio_array(const double* a, const double* b, uint64_t n, const char* what);

std::vector<double> rank_two_map_values(const double* a, const double* b, uint64_t n,
                                        const char* what);

// A batch of diagonal n x n blocks: the whole output (n * n * batch values)
// zeroed in one fill, then value(b, k) written at b * n * n + k * (n + 1).
// Blocks are split among threads by batch item, with one thread whenever
// n * batch <= 8192.
template <class Value>
void fill_diagonal_blocks(double* out, uint64_t n, uint64_t batch, Value&& value) {
    // Nothing to write: no walk over a batch of empty blocks, however large.
    if (n == 0 || batch == 0) return;
    std::fill(out, out + n * n * batch, 0.0);
    const uint64_t threshold = n * batch <= kParallelThreshold ? UINT64_MAX : 0;
    parallel_blocks(batch, threshold, [&](uint64_t begin, uint64_t end) {
        for (uint64_t b = begin; b < end; ++b) {
            for (uint64_t k = 0; k < n; ++k) out[b * n * n + k * (n + 1)] = value(b, k);
        }
    });
}

}  // namespace dravik::mirel::cones::cpp
