// The solver kit of one second-order cone {x : x0 >= |x1..x(n-1)|}, with
// J = diag(1, -1, ..., -1) and det x = x0^2 - |xbar|^2.
//
// NT scaling, in a normalised form that cancels nothing: s^ = s / sqrt(det s),
// z^ = z / sqrt(det z) (each vector first scaled by a power of two, exactly,
// so that no square overflows and nothing depends on the inputs' scale;
// det in double-double next to the boundary, where it cancels),
// gamma = sqrt((1 + s^'z^) / 2), w^ = (s^ + J z^) / (2 gamma) (det w^ = 1),
// beta = (det s / det z)^(1/4). The factor is W = beta (2 v v' - J) with
// v = (w^ + e) / sqrt(2 (w^0 + 1)), symmetric positive definite with
// W z = W^-1 s = lam; H = W^-2 = beta^-2 (2 u u' - J) with u = J w^, and
// H^-1 = W^2 = beta^2 (2 w^ w^' - J). W is applied in O(n) as a rank-one
// update; nothing n x n is formed.
//
// Compact scaling of one cone (3 n + 3 doubles): beta, beta^2, beta^-2, then
// w^, v and lam, n each.
#pragma once

#include <float.h>
#include <math.h>
#include <string.h>

#include <cstddef>
#include <cstdint>

#include "math/double_double.hpp"
#include "math/host_device.hpp"
#include "math/kit.hpp"

namespace dravik::mirel::cones::cpp {

// The power of two a vector is scaled by before its squares are formed:
// factor = 2^-exponent brings its largest magnitude into [0.5, 1) (below
// 2^-1000 the vector is scaled by 2^1000 only, which is as safe). Products
// with a power of two are exact (short of underflow far below the largest
// entry), so every result equals that of the unscaled arithmetic wherever
// the latter does not overflow. `finite` is false on a NaN or inf entry.
struct SocNormal {
    int exponent;
    double factor;
    bool finite;
};

// e with |v| in [2^(e-1), 2^e) for a finite v != 0, read off the bits.
DRAVIK_HD inline int binary_exponent(double v) {
    uint64_t bits = 0;
    memcpy(&bits, &v, sizeof bits);
    const int biased = static_cast<int>((bits >> 52) & 0x7ff);
    if (biased != 0) return biased - 1022;
    int e = 0;
    frexp(v, &e);  // subnormal
    return e;
}

// 2^k for -1022 <= k <= 1023, built from its bits (no library call).
DRAVIK_HD inline double power_of_two(int k) {
    const uint64_t bits = static_cast<uint64_t>(1023 + k) << 52;
    double v = 0.0;
    memcpy(&v, &bits, sizeof v);
    return v;
}

// x 2^k, correctly rounded (a product with an exact power of two).
DRAVIK_HD inline double times_power_of_two(double x, int k) {
    return k >= -1022 && k <= 1023 ? x * power_of_two(k) : ldexp(x, k);
}

DRAVIK_HD inline SocNormal soc_normal(const double* x, size_t n) {
    double largest = 0.0;
    for (size_t i = 0; i < n; ++i) {
        const double a = fabs(x[i]);
        largest = a > largest ? a : largest;
        if (!(a <= DBL_MAX)) return {0, 1.0, false};
    }
    int exponent = largest > 0.0 ? binary_exponent(largest) : 0;
    if (exponent < -1000) exponent = -1000;
    return {exponent, power_of_two(-exponent), true};
}

// sqrt(x) * 2^(k / 2) for any integer k, the half power of two taken exactly
// when k is even and through sqrt(2 x) when it is odd.
DRAVIK_HD inline double sqrt_times_half_power(double x, int k) {
    const int floor_half = k >= 0 ? k / 2 : -((1 - k) / 2);
    return times_power_of_two(sqrt(k - 2 * floor_half == 0 ? x : 2.0 * x), floor_half);
}

// det of x scaled by `factor`, as x0^2 - |xbar|^2 summed in double-double.
DRAVIK_HD inline Dd soc_det_dd(const double* x, size_t n, double factor) {
    const double head = x[0] * factor;
    Dd det = two_prod(head, head);
    for (size_t i = 1; i < n; ++i) {
        const double xi = x[i] * factor;
        det = dd_add(det, dd_neg(two_prod(xi, xi)));
    }
    return det;
}

// sqrt(det) of x scaled by `factor`, 0 when x is not strictly interior.
// det is x0^2 - |xbar|^2 when that keeps most of its digits; next to the
// boundary, where it cancels, it is summed in double-double, so that
// sqrt(det), and everything normalised by it, stays accurate to rounding.
DRAVIK_HD inline double soc_scaled_root(const double* x, size_t n, double factor) {
    const double head = x[0] * factor;
    double tail = 0.0;
    for (size_t i = 1; i < n; ++i) {
        const double xi = x[i] * factor;
        tail += xi * xi;
    }
    const double square = head * head;
    if (!(head > 0.0) || square < tail * (1.0 - 0x1p-40)) return 0.0;
    if (square - tail > 0x1p-10 * square) return sqrt(square - tail);
    const double det = dd_value(soc_det_dd(x, n, factor));
    return det > 0.0 ? sqrt(det) : 0.0;
}

struct SocKit {
    size_t n;

    DRAVIK_HD size_t rows() const { return n; }
    DRAVIK_HD size_t scaling_length() const { return 3 * n + 3; }
    DRAVIK_HD size_t scratch_length() const { return 0; }

    DRAVIK_HD void identity(double* e) const {
        e[0] = 1.0;
        for (size_t i = 1; i < n; ++i) e[i] = 0.0;
    }

    // The boundary crossing of x + a dx: the least positive root of
    // det(x + a dx) = A a^2 + 2 B a + C (C = det x >= 0), where the path
    // leaves the cone. The coefficients and the root are formed in double
    // precision (the cancellation-free quadratic formula) and, when the
    // root's condition says that may be off by more than 2^-45 relative
    // (x next to the boundary, a path nearly tangent to it), again in
    // double-double; the root is then shrunk by 2^-44 so that what rounding
    // is left cannot put it beyond the boundary. A NaN or infinite dx gives
    // NaN.
    DRAVIK_HD bool max_step(const double* x, const double* dx, double*, double* alpha) const {
        const SocNormal nx = soc_normal(x, n);
        if (!nx.finite) return false;
        const SocNormal nd = soc_normal(dx, n);
        if (!nd.finite) {
            *alpha = kit_refused();
            return true;
        }
        SocPath p{x[0] * nx.factor, dx[0] * nd.factor, 0.0, 0.0, 0.0};
        for (size_t i = 1; i < n; ++i) {
            const double xi = x[i] * nx.factor;
            const double di = dx[i] * nd.factor;
            p.xt += xi * xi;
            p.dt += di * di;
            p.cross += xi * di;
        }
        const double square = p.x0 * p.x0;
        const bool close = fabs(square - p.xt) <= 0x1p-40 * square;
        if (!close && !(p.x0 >= 0.0 && square >= p.xt)) return false;
        double root = 0.0;
        if (close || !soc_root_in_double(p, &root)) {
            const SocPathDd exact = soc_path_dd(x, dx, nx.factor, nd.factor);
            if (exact.c.hi < -exact.c_noise) return false;
            root = soc_root_dd(exact, p.x0, p.d0);
        }
        // Steps are in units of the scaled dx: undo the two scalings.
        *alpha = root == INFINITY
                     ? root
                     : times_power_of_two(root * (1.0 - 0x1p-44), nx.exponent - nd.exponent);
        return true;
    }

    DRAVIK_HD KitStatus nt_scaling(const double* s, const double* z, double, double*,
                                   double* scaling) const {
        const SocNormal ns = soc_normal(s, n);
        const double rs = ns.finite ? soc_scaled_root(s, n, ns.factor) : 0.0;
        if (!(rs > 0.0)) return KitStatus::FirstNotInterior;
        const SocNormal nz = soc_normal(z, n);
        const double rz = nz.finite ? soc_scaled_root(z, n, nz.factor) : 0.0;
        if (!(rz > 0.0)) return KitStatus::SecondNotInterior;
        // s^ = s f_s / r_s and z^ = z f_z / r_z entry by entry.
        const double ks = ns.factor / rs, kz = nz.factor / rz;
        double dot = 0.0;
        for (size_t i = 0; i < n; ++i) dot += (s[i] * ks) * (z[i] * kz);
        const double gamma = sqrt((1.0 + dot) * 0.5);
        double* w = scaling + 3;
        double* v = w + n;
        double* lam = v + n;
        const double half_over_gamma = 0.5 / gamma;
        double tail_dot = 0.0;  // w^bar' z^bar
        w[0] = (s[0] * ks + z[0] * kz) * half_over_gamma;
        for (size_t i = 1; i < n; ++i) {
            const double zi = z[i] * kz;
            w[i] = (s[i] * ks - zi) * half_over_gamma;
            tail_dot += w[i] * zi;
        }
        const double v_norm = sqrt(2.0 * (w[0] + 1.0));
        v[0] = (w[0] + 1.0) / v_norm;
        for (size_t i = 1; i < n; ++i) v[i] = w[i] / v_norm;
        const double beta = sqrt_times_half_power(rs / rz, ns.exponent - nz.exponent);
        scaling[0] = beta;
        scaling[1] = beta * beta;
        scaling[2] = 1.0 / (beta * beta);
        // lam = (det s det z)^(1/4) lam^ with lam^0 = gamma and
        // lam^bar = z^bar + w^bar (z^0 + w^bar'z^bar / (w^0 + 1)).
        const double size = sqrt_times_half_power(rs * rz, ns.exponent + nz.exponent);
        const double along = z[0] * kz + tail_dot / (w[0] + 1.0);
        lam[0] = size * gamma;
        for (size_t i = 1; i < n; ++i) lam[i] = size * (z[i] * kz + w[i] * along);
        return KitStatus::Ok;
    }

    DRAVIK_HD void scaled_point(const double* scaling, double* lam) const {
        const double* stored = scaling + 3 + 2 * n;
        for (size_t i = 0; i < n; ++i) lam[i] = stored[i];
    }

    // W x = beta (2 v (v'x) - J x); W^-1 x = beta^-1 (2 J v (v'J x) - J x).
    DRAVIK_HD void apply(const double* scaling, const double* x, bool inverse, double*,
                         double* out) const {
        const double* v = scaling + 3 + n;
        double d = v[0] * x[0];
        for (size_t i = 1; i < n; ++i) d += (inverse ? -v[i] : v[i]) * x[i];
        const double k = inverse ? 1.0 / scaling[0] : scaling[0];
        const double x0 = x[0];
        out[0] = k * (2.0 * v[0] * d - x0);
        for (size_t i = 1; i < n; ++i) out[i] = k * (2.0 * (inverse ? -v[i] : v[i]) * d + x[i]);
    }

    DRAVIK_HD double hessian_entry(const double* scaling, size_t i, size_t j, bool inverse) const {
        const double* w = scaling + 3;
        double product = 2.0 * w[i] * w[j];
        if (!inverse && (i == 0) != (j == 0)) product = -product;  // u = J w^
        const double jij = i != j ? 0.0 : (i == 0 ? 1.0 : -1.0);
        return (inverse ? scaling[1] : scaling[2]) * (product - jij);
    }

    // x o y = (x'y, x0 ybar + y0 xbar); out may be x or y.
    DRAVIK_HD void jordan_product(const double* x, const double* y, double*, double* out) const {
        const double x0 = x[0], y0 = y[0];
        double dot = x0 * y0;
        for (size_t i = 1; i < n; ++i) dot += x[i] * y[i];
        out[0] = dot;
        for (size_t i = 1; i < n; ++i) out[i] = x0 * y[i] + y0 * x[i];
    }

    // lam o x = v: x0 = (lam0 v0 - lambar'vbar) / det lam, xbar = (vbar - x0
    // lambar) / lam0; out may be lam or v.
    DRAVIK_HD bool jordan_divide(const double* lam, const double* v, double*, double* out) const {
        const SocNormal nl = soc_normal(lam, n);
        const double root = nl.finite ? soc_scaled_root(lam, n, nl.factor) : 0.0;
        if (!(root > 0.0)) return false;
        const double l0 = lam[0];
        double cross = l0 * v[0];
        for (size_t i = 1; i < n; ++i) cross -= lam[i] * v[i];
        // det lam = (root 2^exponent)^2.
        const double x0 = times_power_of_two(cross * nl.factor / root / root, -nl.exponent);
        out[0] = x0;
        for (size_t i = 1; i < n; ++i) out[i] = (v[i] - x0 * lam[i]) / l0;
        return true;
    }

private:
    // x and dx scaled by powers of two: heads, tails' sums of squares and
    // the tails' dot product, in double precision.
    struct SocPath {
        double x0, d0, xt, dt, cross;
    };

    // A, B and C in double-double, with the noise level of C (the rounding
    // a sum of n + 1 exact squares in double-double can leave).
    struct SocPathDd {
        Dd a, b, c;
        double c_noise;
        double d_norm_sq;
    };

    DRAVIK_HD SocPathDd soc_path_dd(const double* x, const double* dx, double fx,
                                    double fd) const {
        const double x0 = x[0] * fx, d0 = dx[0] * fd;
        Dd a = two_prod(d0, d0), b = two_prod(x0, d0), c = two_prod(x0, x0);
        double size = x0 * x0, d_size = d0 * d0;
        for (size_t i = 1; i < n; ++i) {
            const double xi = x[i] * fx, di = dx[i] * fd;
            a = dd_add(a, dd_neg(two_prod(di, di)));
            b = dd_add(b, dd_neg(two_prod(xi, di)));
            c = dd_add(c, dd_neg(two_prod(xi, xi)));
            size += xi * xi;
            d_size += di * di;
        }
        return {a, b, c, 4.0 * static_cast<double>(n + 1) * 0x1p-106 * size, d_size};
    }

    // The crossing in double precision; false when its condition number
    // (|x| + a |dx|)^2 / (a |f'(a)|) may be too large for 2^-45 (bounded
    // above by 2 (|x|^2 + a^2 |dx|^2) here), or when an unbounded answer
    // rests on a nearly vanishing coefficient.
    DRAVIK_HD static bool soc_root_in_double(const SocPath& p, double* root) {
        constexpr double kNear = 0x1p-30;
        const double x_sq = p.x0 * p.x0 + p.xt, d_sq = p.d0 * p.d0 + p.dt;
        const double c = p.x0 * p.x0 - p.xt;
        const double a = p.d0 * p.d0 - p.dt;
        const double b = p.x0 * p.d0 - p.cross;
        const double disc = b * b - a * c;
        if (c <= kNear * x_sq || fabs(a) <= kNear * d_sq || b * b <= kNear * x_sq * d_sq ||
            fabs(disc) <= kNear * (b * b + fabs(a * c))) {
            return false;
        }
        *root = quadratic_first_root(a, b, c, disc);
        if (*root == INFINITY) return true;
        const double slope = fabs(2.0 * (a * *root + b));
        return 2.0 * (x_sq + *root * *root * d_sq) <= 128.0 * *root * slope;
    }

    // The least positive root of A a^2 + 2 B a + C with C > 0 and A != 0, or
    // +inf: the roots are q / A and C / q with q = -(B + sign(B) sqrt(disc)).
    DRAVIK_HD static double quadratic_first_root(double a, double b, double c, double disc) {
        if (disc < 0.0) return INFINITY;  // det stays positive (A > 0 then)
        const double q = -(b + (b >= 0.0 ? sqrt(disc) : -sqrt(disc)));
        const double r1 = q / a;
        const double r2 = q != 0.0 ? c / q : INFINITY;
        double best = INFINITY;
        if (r1 > 0.0) best = r1;
        if (r2 > 0.0 && r2 < best) best = r2;
        return best;
    }

    // The crossing from double-double coefficients. A C within its noise of
    // zero is a point on the boundary: the path leaves at once when the
    // linear term points out (or is zero while A < 0); at the apex it stays
    // exactly when dx is in the cone.
    DRAVIK_HD static double soc_root_dd(const SocPathDd& p, double x0, double d0) {
        const double a = dd_value(p.a), b = dd_value(p.b);
        if (x0 == 0.0) return d0 >= 0.0 && a >= -p.c_noise * p.d_norm_sq ? INFINITY : 0.0;
        if (p.c.hi <= p.c_noise) {
            if (b < 0.0 || (b == 0.0 && a < 0.0)) return 0.0;
            return a < 0.0 ? -2.0 * b / a : INFINITY;
        }
        if (a == 0.0) {
            return b < 0.0 ? dd_value(dd_div(p.c, {-2.0 * p.b.hi, -2.0 * p.b.lo})) : INFINITY;
        }
        const Dd disc = dd_add(dd_mul(p.b, p.b), dd_neg(dd_mul(p.a, p.c)));
        const double noise = 0x1p-100 * (b * b + fabs(a * dd_value(p.c)));
        if (disc.hi < -noise) return INFINITY;  // det stays positive
        if (disc.hi <= noise) {
            // A double root: the path runs through the apex into -K (a path
            // from the interior cannot touch the boundary elsewhere and stay).
            const double r = -b / a;
            return r > 0.0 ? r : INFINITY;
        }
        const Dd root = dd_sqrt(disc);
        const Dd q = dd_neg(dd_add(p.b, b >= 0.0 ? root : dd_neg(root)));
        const double r1 = dd_value(dd_div(q, p.a));
        const double r2 = q.hi != 0.0 ? dd_value(dd_div(p.c, q)) : INFINITY;
        double best = INFINITY;
        if (r1 > 0.0) best = r1;
        if (r2 > 0.0 && r2 < best) best = r2;
        return best;
    }
};

}  // namespace dravik::mirel::cones::cpp
