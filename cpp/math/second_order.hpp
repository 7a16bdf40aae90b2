// Jordan algebra of the second-order cone, written once for the host loops
// and the CUDA kernels. A vector x of n entries has head x[0] and tail
// x[1..n-1]; the scalar pieces below take the head and the tail's sum of
// squares, so a kernel can feed them block-reduced sums while the host feeds
// sums formed in index order. Every expression is written in the order the
// host must evaluate it (products and sums rounded one at a time).
#pragma once

#include <math.h>

#include <cstddef>

#include "math/host_device.hpp"

namespace dravik::mirel::cones::cpp {

// ---------------------------------------------------------------- projection

enum class SocProjectionCase { Inside, Polar, Between };

// How a vector with head t and tail norm r is projected: copied when t >= r,
// zeroed when -t >= r, otherwise head (t + r) / 2 and tail scaled by
// head / r (0 when r is not positive). A NaN makes both tests fail.
struct SocProjection {
    SocProjectionCase kind;
    double head;
    double scale;
};

DRAVIK_HD inline SocProjection soc_projection(double t, double r) {
    if (t >= r) return {SocProjectionCase::Inside, t, 1.0};
    if (-t >= r) return {SocProjectionCase::Polar, 0.0, 0.0};
    const double a = (t + r) * 0.5;
    return {SocProjectionCase::Between, a, r > 0.0 ? a / r : 0.0};
}

// Entry i of the projection of a vector whose entry i is xi.
DRAVIK_HD inline double soc_projected_entry(const SocProjection& p, size_t i, double xi) {
    switch (p.kind) {
        case SocProjectionCase::Inside: return xi;
        case SocProjectionCase::Polar: return 0.0;
        default: return i == 0 ? p.head : xi * p.scale;
    }
}

// ------------------------------------------------------------ Jordan algebra

// Sum of squares of x[1..n-1] in index order.
DRAVIK_HD inline double soc_tail_sum_sq(const double* x, size_t n) {
    double sum = 0.0;
    for (size_t i = 1; i < n; ++i) sum += x[i] * x[i];
    return sum;
}

// Sum of a[i] * v[i] over i = 1..n-1 in index order.
DRAVIK_HD inline double soc_tail_dot(const double* a, const double* v, size_t n) {
    double sum = 0.0;
    for (size_t i = 1; i < n; ++i) sum += a[i] * v[i];
    return sum;
}

// What the quadratic representation P(a) needs besides a itself:
// q = a0^2 + |tail|^2, det = a0^2 - |tail|^2, t = 2 a0.
struct SocFactors {
    double q;
    double det;
    double t;
};

DRAVIK_HD inline SocFactors soc_factors(double head, double tail_sum_sq) {
    return {head * head + tail_sum_sq, head * head - tail_sum_sq, 2.0 * head};
}

// The Jordan power x^p of x with head x0: head `head`, tail entries k * x[i]
// when the tail norm is positive (a zero or NaN norm leaves the tail at 0).
// `interior` is false when an eigenvalue x0 +- |tail| is not positive; a
// NaN eigenvalue passes that test and flows into the result.
struct SocPowerScalars {
    double head;
    double k;
    bool has_tail;
    bool interior;
};

DRAVIK_HD inline SocPowerScalars soc_power_scalars(double x0, double tail_sum_sq, double p) {
    const double r = sqrt(tail_sum_sq);
    const double l1 = x0 + r;
    const double l2 = x0 - r;
    const double p1 = pow(l1, p);
    const double p2 = pow(l2, p);
    const bool has_tail = r > 0.0;
    const double k = has_tail ? (p1 - p2) * 0.5 / r : 0.0;
    return {(p1 + p2) * 0.5, k, has_tail, !(l1 <= 0.0 || l2 <= 0.0)};
}

// Entry i >= 1 of x^p, given entry i of x.
DRAVIK_HD inline double soc_power_tail_entry(const SocPowerScalars& y, double xi) {
    return y.has_tail ? y.k * xi : 0.0;
}

// Strict interiority: x0 > |tail| (x0 > 0 for n = 1); false on NaN.
DRAVIK_HD inline bool soc_strictly_interior(double x0, double tail_sum_sq, size_t n) {
    return n == 1 ? x0 > 0.0 : x0 > sqrt(tail_sum_sq);
}

// P(a) v = 2 (a.v) a - det_a R v, R = diag(1, -1, ..., -1), entry by entry;
// d is the tail dot product of a and v.
DRAVIK_HD inline double soc_quad_head(const SocFactors& f, double v0, double d) {
    return f.q * v0 + f.t * d;
}

DRAVIK_HD inline double soc_quad_entry(const SocFactors& f, double ai, double vi, double v0,
                                       double d) {
    return f.det * vi + f.t * ai * v0 + 2.0 * ai * d;
}

// Entry (i, j) of the matrix P(a), which is also entry i of P(a) e_j:
// q at (0, 0); t a[i] down column 0; 2 a[i] a[j] elsewhere, plus det on
// the diagonal from (1, 1) on.
DRAVIK_HD inline double soc_quad_matrix_entry(const SocFactors& f, size_t i, size_t j, double ai,
                                              double aj) {
    if (j == 0) return i == 0 ? f.q : f.t * ai;
    double e = 2.0 * ai * aj;
    if (i == j) e += f.det;
    return e;
}

// P(a) e_j into p (n entries): the entries of soc_quad_matrix_entry down
// column j, written without a branch per entry.
DRAVIK_HD inline void soc_quad_unit_column(const double* a, const SocFactors& f, size_t n, size_t j,
                                           double* p) {
    if (j == 0) {
        p[0] = f.q;
        for (size_t i = 1; i < n; ++i) p[i] = f.t * a[i];
        return;
    }
    const double aj = a[j];
    for (size_t i = 0; i < n; ++i) p[i] = 2.0 * a[i] * aj;
    p[j] += f.det;
}

// x^p into y (n entries); returns false, writing nothing, when an
// eigenvalue of x is not positive.
DRAVIK_HD inline bool soc_power(const double* x, size_t n, double p, double* y) {
    const SocPowerScalars power = soc_power_scalars(x[0], soc_tail_sum_sq(x, n), p);
    if (!power.interior) return false;
    y[0] = power.head;
    for (size_t i = 1; i < n; ++i) y[i] = soc_power_tail_entry(power, x[i]);
    return true;
}

// P(a) v into out (n entries, not aliasing v), with f the factors of a.
DRAVIK_HD inline void soc_quad_apply(const double* a, const SocFactors& f, const double* v,
                                     size_t n, double* out) {
    const double d = soc_tail_dot(a, v, n);
    out[0] = soc_quad_head(f, v[0], d);
    for (size_t i = 1; i < n; ++i) out[i] = soc_quad_entry(f, a[i], v[i], v[0], d);
}

DRAVIK_HD inline SocFactors soc_factors_of(const double* a, size_t n) {
    return soc_factors(a[0], soc_tail_sum_sq(a, n));
}

}  // namespace dravik::mirel::cones::cpp
