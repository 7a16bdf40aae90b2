// Euclidean projections onto the exponential cone K and its dual K*, one
// 3-block at a time, for the host loops and the CUDA kernels.
//
// Moreau's decomposition: every v is Pi_K(v) - Pi_K*(-v) with the two parts
// orthogonal, so one computation gives both projections. For v = (r, s, t):
//   1. v in K: Pi_K(v) = v.             2. -v in K*: Pi_K(v) = 0.
//   3. r <= 0 and s <= 0: Pi_K(v) = (r, 0, max(t, 0)) (a point of the ray
//      set), Pi_K*(-v) = (0, -s, max(-t, 0)).
//   4. Otherwise the parts lie on the two smooth boundaries:
//      Pi_K(v) = y (rho, 1, e^rho) and Pi_K*(-v) = a (-1, rho - 1, e^-rho),
//      y, a > 0 (the two generators are orthogonal for every rho). Writing v
//      as their difference leaves one equation in rho,
//        h(rho) = ((rho - 1) r + s) e^rho - (r - rho s) e^-rho
//                 - (rho^2 - rho + 1) t = 0,
//      on the interval where y = ((rho - 1) r + s) / (rho^2 - rho + 1) and
//      a = (r - rho s) / (rho^2 - rho + 1) are positive; h changes sign once
//      there. It is solved by Newton's method kept inside a bracket (a
//      bisection step whenever Newton's would leave it or would not halve
//      the step before last), on h times e^-|rho|
//      so that nothing overflows; then y and a are recomputed as the
//      projections of v onto the two generators.
// The input is scaled by a power of two first (the projections are
// positively homogeneous) and the results back.
#pragma once

#include <float.h>
#include <math.h>

#include "math/exponential_kit.hpp"
#include "math/host_device.hpp"

namespace dravik::mirel::cones::cpp {

// h(rho) e^-|rho| and its derivative.
DRAVIK_HD inline double exp_projection_equation(double r, double s, double t, double rho,
                                                double* slope) {
    const double A = (rho - 1.0) * r + s;
    const double B = r - rho * s;
    const double Q = (rho * rho - rho) + 1.0;
    const double dA = rho * r + s;           // d/drho (A e^rho) = dA e^rho
    const double dB = (r - rho * s) + s;     // d/drho (-B e^-rho) = dB e^-rho
    const double dQ = (2.0 * rho - 1.0) * t;  // d/drho (Q t)
    if (rho >= 0.0) {
        const double E = exp(-rho);
        const double f = (A - B * E * E) - Q * t * E;
        *slope = ((dA + dB * E * E) - dQ * E) - f;
        return f;
    }
    const double E = exp(rho);
    const double f = (A * E * E - B) - Q * t * E;
    *slope = ((dA * E * E + dB) - dQ * E) + f;
    return f;
}

// The root of case 4 for the scaled v = (r, s, t).
DRAVIK_HD inline double exp_projection_root(double r, double s, double t) {
    double lo, hi;
    if (r > 0.0 && s > 0.0) {
        lo = 1.0 - s / r;
        hi = r / s;
    } else if (r > 0.0) {
        lo = 1.0 - s / r;
        hi = INFINITY;
    } else {
        lo = -INFINITY;
        hi = r / s;
    }
    double slope;
    // Unbounded ends: step out by 1, 2, 4, ... until the sign is right (far
    // out the scaled equation tends to A > 0, resp. -B < 0).
    if (!(hi <= DBL_MAX)) {
        double step = 1.0;
        hi = lo + step;
        while (exp_projection_equation(r, s, t, hi, &slope) < 0.0 && step < 4096.0) {
            lo = hi;
            step *= 2.0;
            hi = lo + step;
        }
    } else if (!(lo >= -DBL_MAX)) {
        double step = 1.0;
        lo = hi - step;
        while (exp_projection_equation(r, s, t, lo, &slope) > 0.0 && step < 4096.0) {
            hi = lo;
            step *= 2.0;
            lo = hi - step;
        }
    }
    const double flo = exp_projection_equation(r, s, t, lo, &slope);
    const double fhi = exp_projection_equation(r, s, t, hi, &slope);
    if (!(flo < 0.0)) return lo;
    if (!(fhi > 0.0)) return hi;
    // Newton's step when it stays inside the bracket and at least halves the
    // step before last; a bisection step otherwise.
    double rho = 0.5 * (lo + hi);
    double step = hi - lo, last = step;
    for (int it = 0; it < 200; ++it) {
        const double f = exp_projection_equation(r, s, t, rho, &slope);
        if (f == 0.0) return rho;
        if (f < 0.0) {
            lo = rho;
        } else {
            hi = rho;
        }
        if (!(hi - lo > 2.0 * DBL_EPSILON * fmax(fabs(lo), fabs(hi)))) break;
        const double next = rho - f / slope;
        if (next > lo && next < hi && fabs(2.0 * f) <= fabs(last * slope)) {
            last = step;
            step = rho - next;
            rho = next;
        } else {
            last = step;
            step = 0.5 * (hi - lo);
            rho = lo + step;
        }
    }
    return rho;
}

// Writes the projection of v onto the ray of g: max(<v, g>, 0) / |g|^2 g.
DRAVIK_HD inline void exp_ray_projection(const double* v, const double* g, double* out) {
    const double c = fmax(exp_dot(v, g), 0.0) / exp_dot(g, g);
    for (int i = 0; i < 3; ++i) out[i] = c * g[i];
}

// pk = Pi_K(v) and pd = Pi_K*(-v), so that v = pk - pd; both may be null.
DRAVIK_HD inline void exp_moreau_parts(const double* v, double* pk, double* pd) {
    double kpart[3], dpart[3];
    const double minus[3] = {-v[0], -v[1], -v[2]};
    const bool nan = v[0] != v[0] || v[1] != v[1] || v[2] != v[2];
    if (nan) {
        for (int i = 0; i < 3; ++i) kpart[i] = dpart[i] = NAN;
    } else if (exp_in_cone(v)) {
        for (int i = 0; i < 3; ++i) {
            kpart[i] = v[i];
            dpart[i] = 0.0;
        }
    } else if (exp_in_dual_cone(minus)) {
        for (int i = 0; i < 3; ++i) {
            kpart[i] = 0.0;
            dpart[i] = minus[i];
        }
    } else if (v[0] <= 0.0 && v[1] <= 0.0) {
        kpart[0] = v[0];
        kpart[1] = 0.0;
        kpart[2] = fmax(v[2], 0.0);
        dpart[0] = 0.0;
        dpart[1] = -v[1];
        dpart[2] = fmax(-v[2], 0.0);
    } else {
        const int e = exp_scale_exponent(v);
        double q[3];
        exp_scale_by(v, -e, q);
        const double rho = exp_projection_root(q[0], q[1], q[2]);
        double P[3], D[3];
        if (rho > 0.0) {
            const double E = exp(-rho);
            P[0] = rho * E;
            P[1] = E;
            P[2] = 1.0;
            D[0] = -1.0;
            D[1] = rho - 1.0;
            D[2] = E;
        } else {
            const double E = exp(rho);
            P[0] = rho;
            P[1] = 1.0;
            P[2] = E;
            D[0] = -E;
            D[1] = (rho - 1.0) * E;
            D[2] = 1.0;
        }
        const double mq[3] = {-q[0], -q[1], -q[2]};
        exp_ray_projection(q, P, kpart);
        exp_ray_projection(mq, D, dpart);
        exp_scale_by(kpart, e, kpart);
        exp_scale_by(dpart, e, dpart);
    }
    for (int i = 0; i < 3; ++i) {
        if (pk) pk[i] = kpart[i];
        if (pd) pd[i] = dpart[i];
    }
}

// Pi_K*(v) = the K*-part of -v. v may be out.
DRAVIK_HD inline void exp_project_dual_block(const double* v, double* out) {
    const double minus[3] = {-v[0], -v[1], -v[2]};
    exp_moreau_parts(minus, nullptr, out);
}

// Pi_K(v), the Euclidean projection onto K. v may be out.
DRAVIK_HD inline void exp_project_euclidean_block(const double* v, double* out) {
    exp_moreau_parts(v, out, nullptr);
}

}  // namespace dravik::mirel::cones::cpp
