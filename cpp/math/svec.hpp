// svec storage of a symmetric n x n matrix: n(n+1)/2 values walking the lower
// triangle row by row, position k = j(j+1)/2 + i holding M[j][i] for i <= j,
// off-diagonal values multiplied by sqrt(2) so that the dot product of two
// svec vectors is the trace inner product of the matrices. Written once for
// the host and the device; dense matrices are row-major (entry (r, c) at
// r * n + c).
#pragma once

#include <math.h>

#include <cstdint>
#include <vector>

#include "core/errors.hpp"
#include "math/host_device.hpp"

namespace dravik::mirel::cones::cpp {

// Packing multiplies by this double and unpacking divides by it (never
// multiplying by a stored 1/sqrt(2)), so a round trip is exact up to those
// two roundings.
constexpr double kSqrt2 = 1.4142135623730951;

DRAVIK_HD inline uint64_t svec_length(uint64_t n) { return (n + 1) * n / 2; }

// Lower-triangle position (row j, column i <= j) of svec entry k.
struct SvecPosition {
    uint64_t row;
    uint64_t col;
};

// The row is the largest j with j (j + 1) / 2 <= k, the column what is left
// of k: the (j, i) that walking the rows (i = k, j = 0; while j < i:
// i -= j + 1, ++j) ends at. The row is estimated from a square root and then
// corrected, so it is exact for every k and costs O(1) instead of O(j).
DRAVIK_HD inline SvecPosition svec_position(uint64_t k) {
    uint64_t j = static_cast<uint64_t>((sqrt(8.0 * static_cast<double>(k) + 1.0) - 1.0) * 0.5);
    while (j * (j + 1) / 2 > k) --j;
    while ((j + 1) * (j + 2) / 2 <= k) ++j;
    return {j, k - j * (j + 1) / 2};
}

DRAVIK_HD inline uint64_t svec_index(uint64_t row, uint64_t col) {
    return row * (row + 1) / 2 + col;
}

// svec entry k of the row-major n x n matrix m; only the lower triangle is read.
DRAVIK_HD inline double svec_entry(const double* m, uint64_t n, uint64_t k) {
    const SvecPosition at = svec_position(k);
    const double v = m[at.row * n + at.col];
    return at.col < at.row ? v * kSqrt2 : v;
}

// Entry (r, c) of the symmetric matrix whose svec is x.
DRAVIK_HD inline double smat_entry(const double* x, uint64_t r, uint64_t c) {
    const uint64_t row = r > c ? r : c;
    const uint64_t col = r > c ? c : r;
    const double v = x[svec_index(row, col)];
    return r == c ? v : v / kSqrt2;
}

// Writes the n(n+1)/2 svec entries of m (lower triangle only) into x.
DRAVIK_HD inline void svec_pack(const double* m, uint64_t n, double* x) {
    uint64_t k = 0;
    for (uint64_t j = 0; j < n; ++j) {
        for (uint64_t i = 0; i <= j; ++i) {
            const double v = m[j * n + i];
            x[k++] = i < j ? v * kSqrt2 : v;
        }
    }
}

// Writes both triangles of the n x n matrix whose svec is x into m, so the
// result is exactly symmetric.
DRAVIK_HD inline void smat_unpack_into(const double* x, uint64_t n, double* m) {
    uint64_t k = 0;
    for (uint64_t j = 0; j < n; ++j) {
        for (uint64_t i = 0; i <= j; ++i) {
            const double v = i < j ? x[k] / kSqrt2 : x[k];
            m[j * n + i] = v;
            m[i * n + j] = v;
            ++k;
        }
    }
}

// Refuses a matrix order whose dense size n * n (and so its svec length)
// would wrap 64 bits.
inline void require_psd_order(uint64_t n) {
    checked_product(n, n, "PSD matrix order", "dim * dim");
}

inline std::vector<double> smat_unpack(const double* x, uint64_t n) {
    std::vector<double> m(n * n, 0.0);
    smat_unpack_into(x, n, m.data());
    return m;
}

}  // namespace dravik::mirel::cones::cpp
