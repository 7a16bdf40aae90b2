// The classical Jacobi eigen-method on a dense row-major n x n matrix, the
// pieces written once for the host solver (cones/jacobi_eigh.cpp, which adds a
// faster pivot search giving the same pivots) and for the PSD kernels, which
// run the whole method below on their private arrays.
//
// Each rotation annihilates the largest off-diagonal entry of the upper
// triangle: the first in row-major order with the largest magnitude (strictly
// greater wins, NaN is never chosen). Iteration stops when that magnitude is
// below 1e-12 or after 32 n^2 rotations, without error.
#pragma once

#include <math.h>

#include <cstdint>

#include "math/host_device.hpp"

namespace dravik::mirel::cones::cpp {

// Off-diagonal magnitudes below this count as zero.
constexpr double kJacobiThreshold = 1e-12;

DRAVIK_HD inline uint64_t jacobi_rotation_limit(uint64_t n) { return 32 * n * n; }

struct JacobiPivot {
    double magnitude;
    uint64_t p;
    uint64_t q;
};

// The plane rotation [[c, -s], [s, c]] on coordinates p < q.
struct JacobiRotation {
    uint64_t p;
    uint64_t q;
    double c;
    double s;
};

// The pivot by a scan of the whole upper triangle; (0, 1) with magnitude 0
// when no entry is positive in magnitude.
DRAVIK_HD inline JacobiPivot jacobi_full_scan_pivot(const double* a, uint64_t n) {
    JacobiPivot best{0.0, 0, 1};
    for (uint64_t i = 0; i + 1 < n; ++i) {
        const double* row = a + i * n;
        for (uint64_t j = i + 1; j < n; ++j) {
            const double v = fabs(row[j]);
            if (v > best.magnitude) best = {v, i, j};
        }
    }
    return best;
}

// The rotation that annihilates A[p][q]: theta = atan2(2 A[p][q],
// A[q][q] - A[p][p]) / 2, with its sine and cosine from one sincos.
DRAVIK_HD inline JacobiRotation jacobi_rotation(const double* a, uint64_t n, uint64_t p,
                                                uint64_t q) {
    const double theta = 0.5 * atan2(2.0 * a[p * n + q], a[q * n + q] - a[p * n + p]);
    double s = 0.0;
    double c = 0.0;
    ::sincos(theta, &s, &c);
    return {p, q, c, s};
}

// x[k] <- c x[k] - s y[k] and y[k] <- s x[k] + c y[k], both from the old values.
DRAVIK_HD inline void jacobi_rotate_pair(double* __restrict__ x, double* __restrict__ y, uint64_t n,
                                         double c, double s) {
    for (uint64_t k = 0; k < n; ++k) {
        const double u = x[k];
        const double w = y[k];
        x[k] = c * u - s * w;
        y[k] = s * u + c * w;
    }
}

// The same on entries p and q of row k of a; returns the row.
DRAVIK_HD inline double* jacobi_rotate_columns(double* a, uint64_t n, uint64_t k,
                                               const JacobiRotation& r) {
    double* row = a + k * n;
    const double u = row[r.p];
    const double w = row[r.q];
    row[r.p] = r.c * u - r.s * w;
    row[r.q] = r.s * u + r.c * w;
    return row;
}

// The whole method with the full-scan pivot search. a is overwritten (its
// diagonal ends as the eigenvalues); vt receives V^T, so that row k of vt is
// the unit eigenvector of a[k][k] and each rotation updates two contiguous
// rows. A <- R A R^T rotates rows p and q first, then columns p and q of the
// result; V^T <- R V^T.
DRAVIK_HD inline void jacobi_eigh_full_scan_into(double* a, double* vt, uint64_t n) {
    for (uint64_t i = 0; i < n * n; ++i) vt[i] = 0.0;
    for (uint64_t i = 0; i < n; ++i) vt[i * n + i] = 1.0;
    if (n <= 1) return;
    const uint64_t limit = jacobi_rotation_limit(n);
    for (uint64_t t = 0; t < limit; ++t) {
        const JacobiPivot pivot = jacobi_full_scan_pivot(a, n);
        if (pivot.magnitude < kJacobiThreshold) break;
        const JacobiRotation rot = jacobi_rotation(a, n, pivot.p, pivot.q);
        jacobi_rotate_pair(a + rot.p * n, a + rot.q * n, n, rot.c, rot.s);
        for (uint64_t k = 0; k < n; ++k) jacobi_rotate_columns(a, n, k, rot);
        jacobi_rotate_pair(vt + rot.p * n, vt + rot.q * n, n, rot.c, rot.s);
    }
}

}  // namespace dravik::mirel::cones::cpp
