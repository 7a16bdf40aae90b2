// Interior-point mathematics of the exponential cone, one 3-block at a time,
// shared by the host and the CUDA kernels (no exceptions, no allocation).
//
//   K  = closure{ (x, y, z) : y > 0, y exp(x / y) <= z }
//   K* = closure{ (u, v, w) : u < 0, -u exp(v / u) <= e w }
//
// Barrier (3-self-concordant, nu = 3): f(x, y, z) = -log(psi) - log y - log z
// with psi = y log(z / y) - x. The conjugate barrier f* has no closed form;
// -grad f*(d) is the interior point p with -grad f(p) = d, found by Newton's
// method on one scalar equation. Membership of K* is read from
// delta = log(w / -u) + v / -u + 1 (-u delta is K*'s defining function).
//
// Every routine first scales its inputs by powers of two (exact) so that
// their largest entry lies in [0.5, 1), and scales its results back by the
// matching power of two: psi, the gradient, the Hessian, the conjugate point,
// step lengths and the scaling are homogeneous, so this changes no value and
// keeps large and small inputs away from overflow.
#pragma once

#include <float.h>
#include <math.h>

#include <cstddef>

#include "math/host_device.hpp"
#include "math/kit.hpp"

namespace dravik::mirel::cones::cpp {

// ------------------------------------------------------------ 3-vectors

DRAVIK_HD inline double exp_dot(const double* a, const double* b) {
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

DRAVIK_HD inline void exp_cross(const double* a, const double* b, double* out) {
    const double c0 = a[1] * b[2] - a[2] * b[1];
    const double c1 = a[2] * b[0] - a[0] * b[2];
    const double c2 = a[0] * b[1] - a[1] * b[0];
    out[0] = c0;
    out[1] = c1;
    out[2] = c2;
}

DRAVIK_HD inline double exp_norm(const double* a) { return sqrt(exp_dot(a, a)); }

// The exponent e with max |v_i| * 2^-e in [0.5, 1); 0 when every entry is 0
// or one is not finite (such inputs fail the tests that follow).
DRAVIK_HD inline int exp_scale_exponent(const double* v) {
    const double m = fmax(fabs(v[0]), fmax(fabs(v[1]), fabs(v[2])));
    if (!(m > 0.0) || !(m <= DBL_MAX)) return 0;
    int e = 0;
    frexp(m, &e);
    return e;
}

DRAVIK_HD inline void exp_scale_by(const double* v, int e, double* out) {
    for (int i = 0; i < 3; ++i) out[i] = ldexp(v[i], e);
}

// log(num / den) for num, den > 0; from the two logarithms when the ratio
// would overflow or lose bits below the normal range.
DRAVIK_HD inline double exp_log_ratio(double num, double den) {
    const double r = num / den;
    if (r >= DBL_MIN && r <= DBL_MAX) return log(r);
    return log(num) - log(den);
}

// ------------------------------------------------------------ membership

// A point of K with its barrier quantities: l = log(z / y), psi = y l - x.
struct ExpPrimalPoint {
    double x, y, z, l, psi;
};

DRAVIK_HD inline ExpPrimalPoint exp_primal_point(const double* p) {
    ExpPrimalPoint q{p[0], p[1], p[2], 0.0, 0.0};
    if (q.y > 0.0 && q.z > 0.0) {
        q.l = exp_log_ratio(q.z, q.y);
        q.psi = q.y * q.l - q.x;
    } else {
        q.psi = NAN;
    }
    return q;
}

// delta of a dual point (NaN unless u < 0 and w > 0).
DRAVIK_HD inline double exp_dual_delta(const double* d) {
    const double a = -d[0];
    if (!(a > 0.0 && d[2] > 0.0)) return NAN;
    return exp_log_ratio(d[2], a) + d[1] / a + 1.0;
}

// Exact tests of the closed cones and their interiors (NaN fails). The
// defining functions' signs do not change under the power-of-two scaling.
DRAVIK_HD inline bool exp_in_cone(const double* p) {
    double q[3];
    exp_scale_by(p, -exp_scale_exponent(p), q);
    if (q[1] > 0.0) return q[2] > 0.0 && exp_primal_point(q).psi >= 0.0;
    return q[1] == 0.0 && q[0] <= 0.0 && q[2] >= 0.0;
}

DRAVIK_HD inline bool exp_in_interior(const double* p) {
    double q[3];
    exp_scale_by(p, -exp_scale_exponent(p), q);
    return exp_primal_point(q).psi > 0.0;
}

DRAVIK_HD inline bool exp_in_dual_cone(const double* d) {
    double q[3];
    exp_scale_by(d, -exp_scale_exponent(d), q);
    if (q[0] < 0.0) return q[2] > 0.0 && exp_dual_delta(q) >= 0.0;
    return q[0] == 0.0 && q[1] >= 0.0 && q[2] >= 0.0;
}

DRAVIK_HD inline bool exp_in_dual_interior(const double* d) {
    double q[3];
    exp_scale_by(d, -exp_scale_exponent(d), q);
    return exp_dual_delta(q) > 0.0;
}

// ------------------------------------------------------------ barrier

// The central point: the one interior point with p = -grad f(p); also K*'s
// (it is its own shadow), so it serves as the identity of both.
DRAVIK_HD inline double exp_central(int i) {
    return i == 0 ? -0.8278383990656786 : (i == 1 ? 0.8051020015847954 : 1.2909277098569580);
}

DRAVIK_HD inline void exp_gradient_at(const ExpPrimalPoint& q, double* g) {
    g[0] = 1.0 / q.psi;
    g[1] = -((q.l - 1.0) / q.psi + 1.0 / q.y);
    g[2] = -((q.y / q.z) / q.psi + 1.0 / q.z);
}

// grad f(p); false (nothing written) unless p is interior.
DRAVIK_HD inline bool exp_barrier_gradient(const double* p, double* g) {
    const int e = exp_scale_exponent(p);
    double q[3];
    exp_scale_by(p, -e, q);
    const ExpPrimalPoint pt = exp_primal_point(q);
    if (!(pt.psi > 0.0)) return false;
    double r[3];
    exp_gradient_at(pt, r);
    exp_scale_by(r, -e, g);
    return true;
}

// The Hessian as 6 entries (00, 01, 02, 11, 12, 22) from its sum of
// positive semidefinite terms
//   grad^2 f = a a^T / psi^2 + b b^T / (psi y) + diag(0, 1 / y^2, 1 / z^2),
//   a = (-1, l - 1, y / z), b = (0, 1, -y / z).
DRAVIK_HD inline void exp_hessian_at(const ExpPrimalPoint& q, double* h) {
    const double a[3] = {-1.0, q.l - 1.0, q.y / q.z};
    const double b1 = 1.0, b2 = -(q.y / q.z);
    const double pp = q.psi * q.psi, py = q.psi * q.y;
    h[0] = a[0] * a[0] / pp;
    h[1] = a[0] * a[1] / pp;
    h[2] = a[0] * a[2] / pp;
    h[3] = a[1] * a[1] / pp + b1 * b1 / py + 1.0 / (q.y * q.y);
    h[4] = a[1] * a[2] / pp + b1 * b2 / py;
    h[5] = a[2] * a[2] / pp + b2 * b2 / py + 1.0 / (q.z * q.z);
}

DRAVIK_HD inline bool exp_barrier_hessian(const double* p, double* h) {
    const int e = exp_scale_exponent(p);
    double q[3];
    exp_scale_by(p, -e, q);
    const ExpPrimalPoint pt = exp_primal_point(q);
    if (!(pt.psi > 0.0)) return false;
    exp_hessian_at(pt, h);
    for (int i = 0; i < 6; ++i) h[i] = ldexp(h[i], -2 * e);
    return true;
}

// H t and t^T H t for the Hessian at q, from the same terms.
DRAVIK_HD inline double exp_hessian_times(const ExpPrimalPoint& q, const double* t, double* ht) {
    const double a[3] = {-1.0, q.l - 1.0, q.y / q.z};
    const double at = exp_dot(a, t);
    const double bt = t[1] - (q.y / q.z) * t[2];
    const double ca = at / (q.psi * q.psi), cb = bt / (q.psi * q.y);
    ht[0] = a[0] * ca;
    ht[1] = a[1] * ca + cb + t[1] / (q.y * q.y);
    ht[2] = a[2] * ca - (q.y / q.z) * cb + t[2] / (q.z * q.z);
    return at * ca + bt * cb + t[1] * t[1] / (q.y * q.y) + t[2] * t[2] / (q.z * q.z);
}

// n^T (grad^2 f)^-1 n in closed form, a sum of nonnegative terms: with
// P = y (n1 + n0 (l - 1)) and Q = z n2 + y n0,
//   n0^2 psi^2 + (psi (P^2 + Q^2) + y (P + Q)^2) / (psi + 2 y).
DRAVIK_HD inline double exp_inverse_hessian_form(const ExpPrimalPoint& q, const double* n) {
    const double P = q.y * (n[1] + n[0] * (q.l - 1.0));
    const double Q = q.z * n[2] + q.y * n[0];
    const double S = P + Q;
    return n[0] * n[0] * (q.psi * q.psi) +
           (q.psi * (P * P + Q * Q) + q.y * (S * S)) / (q.psi + 2.0 * q.y);
}

// p = -grad f*(d) at an interior dual point d (scaled: largest entry in
// [0.5, 1)); false unless d is interior and p is finite.
//
// With a = -u, the three equations -grad f(p) = d reduce to one in
// sigma = log(1 + 1 / (a y)):
//   expm1(sigma) + sigma = delta,
// strictly increasing and convex in sigma. Newton's method starts right of
// the root (delta / 2 for delta <= e, else log delta), so its iterates
// decrease monotonically; it stops when they stop decreasing. Then, with
// m = expm1(sigma):
//   y = 1 / (a m),  z = e^sigma / (m w),  x = y (log(a / w) + sigma) - 1 / a.
DRAVIK_HD inline bool exp_conjugate_scaled(const double* d, double* p) {
    const double delta = exp_dual_delta(d);
    if (!(delta > 0.0 && delta <= DBL_MAX)) return false;
    const double a = -d[0], w = d[2];
    double sigma = delta <= 2.718281828459045 ? 0.5 * delta : log(delta);
    for (int k = 0; k < 100; ++k) {
        const double q = expm1(sigma) + sigma - delta;
        if (!(q > 0.0)) break;
        const double next = sigma - q / (exp(sigma) + 1.0);
        if (!(next < sigma)) break;
        sigma = next;
    }
    const double m = expm1(sigma);
    const double y = 1.0 / (a * m);
    const double z = exp(sigma) / (m * w);
    const double x = y * (exp_log_ratio(a, w) + sigma) - 1.0 / a;
    if (!(fabs(x) <= DBL_MAX && y > 0.0 && y <= DBL_MAX && z > 0.0 && z <= DBL_MAX)) return false;
    p[0] = x;
    p[1] = y;
    p[2] = z;
    return true;
}

DRAVIK_HD inline bool exp_conjugate_point(const double* d, double* p) {
    const int e = exp_scale_exponent(d);
    double q[3], r[3];
    exp_scale_by(d, -e, q);
    if (!exp_conjugate_scaled(q, r)) return false;
    exp_scale_by(r, -e, p);
    return true;
}

// ------------------------------------------------------------ step lengths

// A segment a -> (Y, Z, lin) + a (dY, dZ, dlin) on which the cone's defining
// function is phi(a) = Y (log(Z / Y) + c) + lin, concave where Y, Z > 0; the
// cone is {Y > 0, Z > 0, phi >= 0} plus the ray {Y = 0, Z >= 0, lin >= 0}.
//   K:  (Y, Z, lin) = (y, z, -x), c = 0;   K*: (Y, Z, lin) = (-u, w, v), c = 1.
struct ExpSegment {
    double y0, dy, z0, dz, l0, dl, c;

    DRAVIK_HD double lin(double a) const { return l0 + a * dl; }
    // phi(a) and phi'(a); false when Y(a) or Z(a) is not positive.
    DRAVIK_HD bool eval(double a, double* f, double* df) const {
        const double y = y0 + a * dy, z = z0 + a * dz;
        if (!(y > 0.0 && z > 0.0)) return false;
        const double l = exp_log_ratio(z, y) + c;
        *f = y * l + lin(a);
        *df = dy * (l - 1.0) + y * dz / z + dl;
        return true;
    }
    // A bound on the rounding error of phi(a) as eval computes it (Y, Z and
    // lin formed with two roundings each, the logarithm, the products).
    DRAVIK_HD double error_bound(double a) const {
        const double y = y0 + a * dy, z = z0 + a * dz;
        const double l = exp_log_ratio(z, y) + c;
        const double sy = fabs(y0) + fabs(a * dy), sz = fabs(z0) + fabs(a * dz);
        return 2.0 * DBL_EPSILON * ((fabs(l) + 1.0) * sy + y * (sz / z) + fabs(l0) + fabs(a * dl));
    }
};

// Relative margin taken off every step length (four units in the last
// place): covers the rounding of the ratios and of the final shift.
constexpr double kExpStepMargin = 1.0 - 4.0 * DBL_EPSILON;

// sup{a in [lo, hi) : phi(a) >= 0} for concave phi with phi(lo) >= 0 (value
// flo, slope dlo) and the root at most hi (+inf allowed). Two bounds close in
// on the root: Newton's step from a point right of it stays right of it
// (phi concave, decreasing there) and the chord from lo to such a point
// lands left of it; the tangent at lo bounds it from the right. When neither
// applies the interval is halved, or, unbounded, lo grows sixteenfold.
DRAVIK_HD inline double exp_segment_root(const ExpSegment& g, double lo, double flo, double dlo,
                                         double hi) {
    if (flo == 0.0 && dlo < 0.0) return lo;
    bool right = false;  // fhi, dhi hold phi(hi) < 0 and phi'(hi)
    double fhi = 0.0, dhi = 0.0;
    for (int it = 0; it < 200; ++it) {
        if (right && !(hi - lo > 4.0 * DBL_EPSILON * hi)) break;
        double cand[2];
        int nc = 0;
        if (right) {
            if (dhi < 0.0) cand[nc++] = hi - fhi / dhi;
            cand[nc++] = lo + flo * ((hi - lo) / (flo - fhi));
        } else if (dlo < 0.0) {
            cand[nc++] = lo - flo / dlo;
        }
        bool moved = false;
        for (int k = 0; k <= nc; ++k) {
            double a;
            if (k < nc) {
                a = cand[k];
            } else {
                if (moved) break;
                a = hi <= DBL_MAX ? lo + 0.5 * (hi - lo) : (lo > 0.0 ? 16.0 * lo : 1.0);
            }
            if (!(a > lo && a < hi)) continue;
            double f, df;
            if (g.eval(a, &f, &df) && f >= 0.0) {
                lo = a;
                flo = f;
                dlo = df;
            } else {
                hi = a;
                right = g.eval(a, &fhi, &dhi);
                if (!right) fhi = dhi = 0.0;
            }
            moved = true;
        }
        if (!moved) break;
    }
    return lo;
}

// Largest a >= 0 with x + a dx in the closed cone of the segment (x there):
// +inf when dx is in it too; the ray end when Y reaches 0 first with lin >= 0
// there; otherwise the root of phi, moved left by twice its uncertainty
// (the rounding bound of phi over |phi'|; phi is concave, so the exact root
// lies within it to first order). Rounded down by kExpStepMargin.
DRAVIK_HD inline double exp_segment_max_step(const ExpSegment& g, bool direction_in_cone) {
    if (direction_in_cone) return INFINITY;
    const double ay = g.dy < 0.0 ? -g.y0 / g.dy : INFINITY;
    const double az = g.dz < 0.0 ? -g.z0 / g.dz : INFINITY;
    const double alin = fmin(ay, az);
    if (ay <= az && ay <= DBL_MAX && g.lin(ay) >= 0.0) return ay * kExpStepMargin;
    double f0, d0;
    if (g.y0 > 0.0) {
        g.eval(0.0, &f0, &d0);
    } else if (g.dy == 0.0) {
        // On the ray plane Y = 0 throughout: lin and Z must stay >= 0.
        const double al = g.dl < 0.0 ? -g.l0 / g.dl : INFINITY;
        return fmin(al, az) * kExpStepMargin;
    } else {
        f0 = g.l0;  // the limit of phi at a ray point
        d0 = INFINITY;
    }
    double a = exp_segment_root(g, 0.0, f0, d0, alin);
    double f, df;
    if (a > 0.0 && g.eval(a, &f, &df)) {
        const double shift = df < 0.0 ? 2.0 * g.error_bound(a) / -df : 0.0;
        a = shift < a ? a - shift : 0.0;
    }
    return a * kExpStepMargin;
}

// Step lengths on K and on K*: false when x is not in the closed cone (NaN
// counts as outside); else *alpha as above. Inputs are scaled by powers of
// two first (x and dx separately), the result back.
DRAVIK_HD inline bool exp_max_step(const double* x, const double* dx, bool dual, double* alpha) {
    if (!(dual ? exp_in_dual_cone(x) : exp_in_cone(x))) return false;
    const bool unbounded = dual ? exp_in_dual_cone(dx) : exp_in_cone(dx);
    if (unbounded) {
        *alpha = INFINITY;
        return true;
    }
    const int ex = exp_scale_exponent(x), ed = exp_scale_exponent(dx);
    double p[3], q[3];
    exp_scale_by(x, -ex, p);
    exp_scale_by(dx, -ed, q);
    ExpSegment g;
    if (dual) {
        g = {-p[0], -q[0], p[2], q[2], p[1], q[1], 1.0};
    } else {
        g = {p[1], q[1], p[2], q[2], -p[0], -q[0], 0.0};
    }
    *alpha = ldexp(exp_segment_max_step(g, false), ex - ed);
    return true;
}

// ------------------------------------------------------------ scaling

// The compact scaling of one block: H (6 entries 00, 01, 02, 11, 12, 22),
// then H^-1 (same order).
constexpr size_t kExpScalingLength = 12;

// Threshold below which the update's curvature term counts as lost in
// rounding: d < kExpCurvatureFloor * mu |dz| |s~| (a cosine below 1e-10).
constexpr double kExpCurvatureFloor = 1e-10;

// H = sum c_i c_i^T D_i over the columns c_i, and H^-1 = sum b_i b_i^T / D_i
// over the dual basis b_i (b_i^T c_j = [i == j]). b_0 is given, b_1 too when
// `b1_dir` is (a vector orthogonal to c_0 and c_2, scaled here); the others
// are cross products.
DRAVIK_HD inline void exp_write_scaling(const double* const* c, const double* D, const double* b0,
                                        const double* b1_dir, int e, double* out) {
    double b1[3], b2[3];
    if (b1_dir) {
        for (int i = 0; i < 3; ++i) b1[i] = b1_dir[i];
    } else {
        exp_cross(c[2], c[0], b1);
    }
    exp_cross(c[0], c[1], b2);
    const double n1 = exp_dot(b1, c[1]), n2 = exp_dot(b2, c[2]);
    for (int i = 0; i < 3; ++i) {
        b1[i] /= n1;
        b2[i] /= n2;
    }
    const double* b[3] = {b0, b1, b2};
    int k = 0;
    for (int i = 0; i < 3; ++i) {
        for (int j = i; j < 3; ++j, ++k) {
            const double h = c[0][i] * c[0][j] * D[0] + c[1][i] * c[1][j] * D[1] +
                             c[2][i] * c[2][j] * D[2];
            const double hi = b[0][i] * b[0][j] / D[0] + b[1][i] * b[1][j] / D[1] +
                              b[2][i] * b[2][j] / D[2];
            out[k] = ldexp(h, e);
            out[6 + k] = ldexp(hi, -e);
        }
    }
}

// The primal-dual scaling of one block pair (s in int K, z in int K*): a
// symmetric positive definite H with H s = z and H s~ = z~ for the shadow
// points s~ = -grad f*(z), z~ = -grad f(s). mu > 0 sets the weight of
// grad^2 f(s) in the update (mu <= 0: the block's own s^T z / 3).
//
// The rank-four update H = Z (Z^T S)^-1 Z^T + Ha - Ha S (S^T Ha S)^-1 S^T Ha
// of Ha = mu grad^2 f(s), S = [s, s~], Z = [z, z~], is formed in a basis
// that keeps it accurate up to the central path: with mu_b = s^T z / 3,
// ds = s - mu_b s~ and dz = z - mu_b z~ (dz made exactly orthogonal to s),
//   H = z z^T / (s^T z) + dz dz^T / d + mu n n^T / (n^T (grad^2 f)^-1 n),
// d = -mu_b dz^T s~ = 3 mu_b (mu_b mu~ - 1) > 0 off the central path and
// n orthogonal to s and s~. Each term is positive semidefinite.
// When d is lost in rounding (the pair is on the central path to working
// precision) the fall-back is
//   H = z z^T / (s^T z) + mu (grad^2 f(s) - z~ z~^T / 3),
// which maps s to z and equals mu_b grad^2 f(s) on the central path (where
// it maps s~ to z~); its second term is formed as two positive semidefinite
// terms. Writes `out` only when it returns Ok.
// *fell_back (when given) tells which form was used.
DRAVIK_HD inline KitStatus exp_nt_scaling(const double* s, const double* z, double mu,
                                          double* out, bool* fell_back = nullptr) {
    const int es = exp_scale_exponent(s), ez = exp_scale_exponent(z);
    double sp[3], zp[3];
    exp_scale_by(s, -es, sp);
    exp_scale_by(z, -ez, zp);
    const ExpPrimalPoint q = exp_primal_point(sp);
    if (!(q.psi > 0.0)) return KitStatus::FirstNotInterior;
    double st[3], zt[3];
    if (!exp_conjugate_scaled(zp, st)) return KitStatus::SecondNotInterior;
    exp_gradient_at(q, zt);
    for (int i = 0; i < 3; ++i) zt[i] = -zt[i];

    const double sz = exp_dot(sp, zp);
    const double mub = sz / 3.0;
    const double mua = mu > 0.0 ? ldexp(mu, -(es + ez)) : mub;
    double ds[3], dz[3], n[3];
    for (int i = 0; i < 3; ++i) {
        ds[i] = sp[i] - mub * st[i];
        dz[i] = zp[i] - mub * zt[i];
    }
    const double off = exp_dot(dz, sp) / exp_dot(zt, sp);
    for (int i = 0; i < 3; ++i) dz[i] -= zt[i] * off;
    exp_cross(sp, ds, n);
    const double d = -mub * exp_dot(dz, st);
    const double nfn = exp_inverse_hessian_form(q, n);

    const double* c[3];
    double D[3] = {1.0 / sz, 0.0, 0.0};
    double t[3], ht[3];
    const double* b1_dir = nullptr;
    if (d > kExpCurvatureFloor * mub * exp_norm(dz) * exp_norm(st) && d <= DBL_MAX &&
        nfn > 0.0 && nfn <= DBL_MAX) {
        // ds made exactly orthogonal to z: the inverse's counterpart of dz.
        const double back = exp_dot(ds, zp) / exp_dot(st, zp);
        for (int i = 0; i < 3; ++i) ds[i] -= st[i] * back;
        b1_dir = ds;
        c[1] = dz;
        D[1] = 1.0 / d;
        D[2] = mua / nfn;
        if (fell_back) *fell_back = false;
    } else {
        if (fell_back) *fell_back = true;
        // t orthogonal to z~ (so H t-terms leave s alone), n = s x t.
        int j = 0;
        for (int i = 1; i < 3; ++i) {
            if (fabs(zt[i]) < fabs(zt[j])) j = i;
        }
        const double ej[3] = {j == 0 ? 1.0 : 0.0, j == 1 ? 1.0 : 0.0, j == 2 ? 1.0 : 0.0};
        exp_cross(zt, ej, t);
        exp_cross(sp, t, n);
        const double tht = exp_hessian_times(q, t, ht);
        c[1] = ht;
        D[1] = mua / tht;
        D[2] = mua / exp_inverse_hessian_form(q, n);
    }
    c[0] = zp;
    c[2] = n;
    double b0[3];
    for (int i = 0; i < 3; ++i) b0[i] = sp[i] / sz;
    exp_write_scaling(c, D, b0, b1_dir, ez - es, out);
    return KitStatus::Ok;
}

// ------------------------------------------------------------ the kit

// The kit over one item of `blocks` 3-blocks (rows = 3 blocks).
struct ExponentialKit {
    size_t blocks;

    DRAVIK_HD size_t rows() const { return 3 * blocks; }
    DRAVIK_HD size_t scaling_length() const { return kExpScalingLength * blocks; }
    DRAVIK_HD size_t scratch_length() const { return 0; }
    DRAVIK_HD size_t degree() const { return 3 * blocks; }

    DRAVIK_HD void identity(double* e) const {
        for (size_t k = 0; k < blocks; ++k) {
            for (int i = 0; i < 3; ++i) e[3 * k + i] = exp_central(i);
        }
    }

    // grad f (dual: grad f* = -(-grad f*)) block by block; false at the
    // first block that is not interior (out is then partly written).
    DRAVIK_HD bool barrier_gradient(const double* x, double* out) const {
        for (size_t k = 0; k < blocks; ++k) {
            if (!exp_barrier_gradient(x + 3 * k, out + 3 * k)) return false;
        }
        return true;
    }
    DRAVIK_HD bool barrier_gradient_dual(const double* z, double* out) const {
        for (size_t k = 0; k < blocks; ++k) {
            double p[3];
            if (!exp_conjugate_point(z + 3 * k, p)) return false;
            for (int i = 0; i < 3; ++i) out[3 * k + i] = -p[i];
        }
        return true;
    }

    DRAVIK_HD bool max_step(const double* x, const double* dx, double*, double* alpha) const {
        return min_step(x, dx, false, alpha);
    }
    DRAVIK_HD bool max_step_dual(const double* x, const double* dx, double*, double* alpha) const {
        return min_step(x, dx, true, alpha);
    }

    // Checks every s block, then every z block, before writing anything.
    DRAVIK_HD KitStatus nt_scaling(const double* s, const double* z, double mu, double*,
                                   double* scaling) const {
        for (size_t k = 0; k < blocks; ++k) {
            if (!exp_in_interior(s + 3 * k)) return KitStatus::FirstNotInterior;
        }
        for (size_t k = 0; k < blocks; ++k) {
            if (!exp_in_dual_interior(z + 3 * k)) return KitStatus::SecondNotInterior;
        }
        for (size_t k = 0; k < blocks; ++k) {
            const KitStatus st =
                exp_nt_scaling(s + 3 * k, z + 3 * k, mu, scaling + kExpScalingLength * k);
            if (st != KitStatus::Ok) return st;
        }
        return KitStatus::Ok;
    }

    // Entry (i, j) of H (or H^-1): zero unless both lie in one block.
    DRAVIK_HD double hessian_entry(const double* scaling, size_t i, size_t j, bool inverse) const {
        const size_t k = i / 3;
        if (j / 3 != k) return 0.0;
        size_t a = i % 3, b = j % 3;
        if (a > b) {
            const size_t t = a;
            a = b;
            b = t;
        }
        const size_t at = a == 0 ? b : (a == 1 ? 2 + b : 5);
        return scaling[kExpScalingLength * k + (inverse ? 6 : 0) + at];
    }

private:
    DRAVIK_HD bool min_step(const double* x, const double* dx, bool dual, double* alpha) const {
        double best = INFINITY;
        for (size_t k = 0; k < blocks; ++k) {
            double a;
            if (!exp_max_step(x + 3 * k, dx + 3 * k, dual, &a)) return false;
            best = fmin(best, a);
        }
        *alpha = best;
        return true;
    }
};

}  // namespace dravik::mirel::cones::cpp
