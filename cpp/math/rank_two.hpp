// The symmetric rank-two map M = I + (d a^T + a d^T) / q - c a a^T / q^2
// that takes a source vector a onto a target b (d = b - a, q = |a|^2,
// c = d . a): M a = b, and directions orthogonal to a and d stay fixed.
// One formula for the dense builder and the exponential scaling kernel; the
// host batch of exponential blocks adds the same terms left to right.
#pragma once

#include <cstddef>

#include "math/host_device.hpp"

namespace dravik::mirel::cones::cpp {

// q = sum a[i]^2, in index order.
DRAVIK_HD inline double rank_two_q(const double* a, size_t n) {
    double q = 0.0;
    for (size_t i = 0; i < n; ++i) q += a[i] * a[i];
    return q;
}

// c = sum (b[i] - a[i]) * a[i], in index order.
DRAVIK_HD inline double rank_two_c(const double* a, const double* b, size_t n) {
    double c = 0.0;
    for (size_t i = 0; i < n; ++i) c += (b[i] - a[i]) * a[i];
    return c;
}

// Entry (r, k) of M; identity is 1.0 on the diagonal and 0.0 elsewhere,
// q2 = q * q. The grouping fixes the last bits.
DRAVIK_HD inline double rank_two_entry(double identity, double a_r, double a_k, double d_r,
                                       double d_k, double q, double c, double q2) {
    return identity + ((d_k * a_r / q + a_k * d_r / q) - a_k * (a_r * c) / q2);
}

// The same entry with the terms added left to right,
// ((identity + d_k a_r / q) + a_k d_r / q) - a_k (a_r c) / q2: the grouping of
// the exponential scaling written entry by entry in host batches. It agrees
// with rank_two_entry up to the last bits.
DRAVIK_HD inline double rank_two_entry_left_to_right(double identity, double a_r, double a_k,
                                                     double d_r, double d_k, double q, double c,
                                                     double q2) {
    return ((identity + d_k * a_r / q) + a_k * d_r / q) - a_k * (a_r * c) / q2;
}

}  // namespace dravik::mirel::cones::cpp
