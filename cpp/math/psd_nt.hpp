// PSD Nesterov-Todd scaling, the pieces written once for the host and the
// kernels. The congruence matrix of a pair of positive definite matrices
// S, Z is
//   R = S^-1/2 (S^1/2 Z S^1/2)^1/2 S^-1/2   (R S R = Z),
// and the scaling matrix H is the map X -> R X R in svec coordinates.
// Dense matrices are row-major n x n. Every expression is written in the
// order the host evaluates it, products and sums rounded one at a time.
//
// Where the host raises on an input that is not positive definite, these
// pieces mark it with NaN instead: a non-positive eigenvalue becomes NaN
// before its power, so the whole power, and with it the whole R and H of the
// block, come out NaN. The host tests positivity first and raises; the
// kernels, which have no error channel, write the NaN.
#pragma once

#include <math.h>

#include <cstdint>

#include "math/host_device.hpp"
#include "math/jacobi.hpp"
#include "math/positivity.hpp"
#include "math/psd2.hpp"
#include "math/svec.hpp"

namespace dravik::mirel::cones::cpp {

// ------------------------------------------------------------ the operator

// H[row][col], the svec-space matrix of X -> R X R at svec positions row
// and col, from the row-major n x n congruence matrix r. With row at (j, i)
// and col at (l, k) of the lower triangle:
// (R[i][k] R[j][l] + R[j][k] R[i][l]) / sqrt(2) when k != l, else
// R[j][l] R[i][l]; then times sqrt(2) when i != j (both, in that order,
// when both positions are off the diagonal). Loops over many entries pass
// the decoded positions.
DRAVIK_HD inline double psd_nt_operator_entry_at(const double* r, uint64_t n, SvecPosition row,
                                                 SvecPosition col) {
    const uint64_t j = row.row, i = row.col, l = col.row, k = col.col;
    double v = 0.0;
    if (k != l) {
        v = (r[i * n + k] * r[j * n + l] + r[j * n + k] * r[i * n + l]) / kSqrt2;
    } else {
        v = r[j * n + l] * r[i * n + l];
    }
    if (i != j) v = v * kSqrt2;
    return v;
}

DRAVIK_HD inline double psd_nt_operator_entry(const double* r, uint64_t n, uint64_t row,
                                              uint64_t col) {
    return psd_nt_operator_entry_at(r, n, svec_position(row), svec_position(col));
}

// ------------------------------------------------- dense products and powers

// C = A B: each C[i][j] adds B[k][j] A[i][k] to a sum starting at 0, k
// ascending (the bits of the i, k, j loop nest that accumulates into C).
DRAVIK_HD inline void dense_matmul_into(const double* a, const double* b, double* c, uint64_t n) {
    for (uint64_t i = 0; i < n; ++i) {
        for (uint64_t j = 0; j < n; ++j) {
            double sum = 0.0;
            for (uint64_t k = 0; k < n; ++k) sum = b[k * n + j] * a[i * n + k] + sum;
            c[i * n + j] = sum;
        }
    }
}

// pow(lambda, p) for an eigenvalue that passes lambda > 0 (NaN passes), the
// NaN mark for one that does not.
DRAVIK_HD inline double psd_eigen_power(double lambda, double p) {
    return positive_or_nan(lambda) ? pow(lambda, p) : not_positive_mark();
}

// Entry (i, j) of V diag(mu) V^T: (V[i][k] mu[k]) V[j][k] added to a sum
// starting at 0, k ascending, where V[i][k] is v[i * row_step + k * col_step]
// (V itself: steps n and 1; its transpose V^T: steps 1 and n).
DRAVIK_HD inline double psd_power_entry(const double* v, uint64_t row_step, uint64_t col_step,
                                        const double* mu, uint64_t n, uint64_t i, uint64_t j) {
    double sum = 0.0;
    for (uint64_t k = 0; k < n; ++k) {
        sum = (v[i * row_step + k * col_step] * mu[k]) * v[j * row_step + k * col_step] + sum;
    }
    return sum;
}

// mu[k] = psd_eigen_power(a[k][k], p) for a decomposed a.
DRAVIK_HD inline void psd_eigen_powers(const double* a, uint64_t n, double p, double* mu) {
    for (uint64_t k = 0; k < n; ++k) mu[k] = psd_eigen_power(a[k * n + k], p);
}

// out = V diag(mu) V^T, V^T given.
DRAVIK_HD inline void psd_power_from_vt(const double* vt, const double* mu, uint64_t n,
                                        double* out) {
    for (uint64_t i = 0; i < n; ++i) {
        for (uint64_t j = 0; j < n; ++j) out[i * n + j] = psd_power_entry(vt, 1, n, mu, n, i, j);
    }
}

// ------------------------------------------- one block in private arrays

// Order capacity of the kernels' private matrices.
constexpr uint64_t kPsdPrivateOrder = 32;
constexpr uint64_t kPsdPrivateEntries = kPsdPrivateOrder * kPsdPrivateOrder;

// out = m^p for the n x n matrix m, decomposed by the full-scan Jacobi method
// in the work arrays a and vt (m is read only); mu holds n powers.
DRAVIK_HD inline void psd_matrix_power_private(const double* m, uint64_t n, double p, double* a,
                                               double* vt, double* mu, double* out) {
    for (uint64_t e = 0; e < n * n; ++e) a[e] = m[e];
    jacobi_eigh_full_scan_into(a, vt, n);
    psd_eigen_powers(a, n, p, mu);
    psd_power_from_vt(vt, mu, n, out);
}

// S^1/2 and S^-1/2 of the matrix whose svec is s, from one decomposition of
// S (deterministic, so the bits of two separate decompositions).
DRAVIK_HD inline void psd_sqrt_pair_private(const double* s, uint64_t n, double* a, double* vt,
                                            double* mu, double* half, double* inv_half) {
    smat_unpack_into(s, n, a);
    jacobi_eigh_full_scan_into(a, vt, n);
    psd_eigen_powers(a, n, 0.5, mu);
    psd_power_from_vt(vt, mu, n, half);
    psd_eigen_powers(a, n, -0.5, mu);
    psd_power_from_vt(vt, mu, n, inv_half);
}

// The congruence matrix R of one block (n <= 32) by the host's steps, in
// seven private matrices: S^1/2 Z first, then times S^1/2; S^-1/2 M^1/2
// first, then times S^-1/2. Neither M nor R is symmetrised. r is written
// entry by entry.
DRAVIK_HD inline void psd_nt_congruence_private(const double* s, const double* z, uint64_t n,
                                                double* r) {
    double a[kPsdPrivateEntries], vt[kPsdPrivateEntries], zm[kPsdPrivateEntries];
    double half[kPsdPrivateEntries], inv_half[kPsdPrivateEntries];
    double t[kPsdPrivateEntries], m[kPsdPrivateEntries];
    double mu[kPsdPrivateOrder];
    psd_sqrt_pair_private(s, n, a, vt, mu, half, inv_half);
    smat_unpack_into(z, n, zm);
    dense_matmul_into(half, zm, t, n);
    dense_matmul_into(t, half, m, n);
    psd_matrix_power_private(m, n, 0.5, a, vt, mu, half);  // M^1/2, S^1/2 no longer needed
    dense_matmul_into(inv_half, half, t, n);
    dense_matmul_into(t, inv_half, r, n);
}

// ------------------------------------------------------ closed forms, n <= 2

// n = 1: H = z / s, or the NaN mark unless s > 0 and z > 0 (NaN passes).
DRAVIK_HD inline bool psd1_positive(double s, double z) {
    return positive_or_nan(s) && positive_or_nan(z);
}
DRAVIK_HD inline double psd1_nt_scaling_entry(double s, double z) {
    return psd1_positive(s, z) ? z / s : not_positive_mark();
}

// n = 2: R = [[a, b], [b, c]] of one block from its svec s and z, and
// whether every power met positive eigenvalues. M and R are symmetrised.
struct Psd2NtCongruence {
    Psd2Matrix r;
    bool positive;
};

DRAVIK_HD inline Psd2NtCongruence psd2_nt_congruence(const double* s, const double* z) {
    const double a = s[0], bs = s[1] / kSqrt2, c = s[2];
    const double z0 = z[0], zb = z[1] / kSqrt2, z2 = z[2];
    const Psd2Power ph = psd2_matrix_power(a, bs, c, 0.5);
    const Psd2Power qh = psd2_matrix_power(a, bs, c, -0.5);
    const double pa = ph.value.a, pb = ph.value.b, pc = ph.value.c;
    const double qa = qh.value.a, qb = qh.value.b, qc = qh.value.c;
    // Y = Z P, then M = P Y.
    const double y00 = z0 * pa + zb * pb;
    const double y10 = zb * pa + z2 * pb;
    const double y01 = z0 * pb + zb * pc;
    const double y11 = z2 * pc + zb * pb;
    const double m00 = pa * y00 + pb * y10;
    const double m11 = pc * y11 + pb * y01;
    const double m01 = ((pb * y00 + pc * y10) + (y01 * pa + y11 * pb)) * 0.5;
    const Psd2Power mh = psd2_matrix_power(m00, m01, m11, 0.5);
    const double ma = mh.value.a, mb = mh.value.b, mc = mh.value.c;
    // K = Q M^1/2, then R = K Q.
    const double k00 = qa * ma + qb * mb;
    const double k01 = qa * mb + qb * mc;
    const double k10 = ma * qb + mb * qc;
    const double k11 = mc * qc + qb * mb;
    const double r00 = qa * k00 + qb * k01;
    const double r11 = qb * k10 + qc * k11;
    const double r01 = 0.5 * ((k00 * qb + qc * k01) + (qa * k10 + qb * k11));
    return {{r00, r01, r11}, ph.positive && qh.positive && mh.positive};
}

// The 3 x 3 H of a 2 x 2 congruence matrix R, row-major into h.
DRAVIK_HD inline void psd2_nt_operator(const Psd2Matrix& r, double* h) {
    const double e = r.b * r.b;
    const double f = (r.a * kSqrt2) * r.b;
    const double g = (r.b * kSqrt2) * r.c;
    h[0] = r.a * r.a;
    h[1] = f;
    h[2] = e;
    h[3] = f;
    h[4] = r.a * r.c + e;
    h[5] = g;
    h[6] = e;
    h[7] = g;
    h[8] = r.c * r.c;
}

}  // namespace dravik::mirel::cones::cpp
