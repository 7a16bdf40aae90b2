// Closed forms for one symmetric 2 x 2 matrix [[a, b], [b, c]] given as its
// svec (a, sqrt(2) b, c): eigenvalues mean +- half_gap, the projection onto
// the PSD cone and the distance to it, and matrix powers. The device runs the
// projection and distance in its one-thread 2 x 2 kernels, where the host runs
// the general Jacobi path instead, which agrees to rounding; the powers serve
// the 2 x 2 NT scaling of both.
#pragma once

#include <cmath>

#include "math/host_device.hpp"
#include "math/positivity.hpp"
#include "math/svec.hpp"

namespace dravik::mirel::cones::cpp {

// Below this half-gap the matrix is treated as a multiple of the identity.
constexpr double kPsd2TinyGap = 1e-14;

struct Psd2Spectrum {
    double a, b, c;    // the matrix entries
    double mean;       // (a + c) / 2
    double half_gap;   // sqrt(((a - c) / 2)^2 + b^2)
    double upper;      // mean + half_gap
    double lower;      // mean - half_gap
};

DRAVIK_HD inline Psd2Spectrum psd2_spectrum(double a, double b, double c) {
    const double mean = (a + c) * 0.5;
    const double half_gap = sqrt((0.25 * (a - c)) * (a - c) + b * b);
    return {a, b, c, mean, half_gap, mean + half_gap, mean - half_gap};
}

DRAVIK_HD inline Psd2Spectrum psd2_spectrum_of_svec(const double* x) {
    return psd2_spectrum(x[0], x[1] / kSqrt2, x[2]);
}

// max(lambda, 0), letting NaN through.
DRAVIK_HD inline double psd2_clip(double lambda) { return lambda < 0.0 ? 0.0 : lambda; }

// min(lambda, 0), letting NaN through.
DRAVIK_HD inline double psd2_negative_part(double lambda) { return lambda >= 0.0 ? 0.0 : lambda; }

// The projection in svec form; out may be x. The clipped matrix is
// alpha A + beta I with alpha, beta interpolating the clipped eigenvalues.
DRAVIK_HD inline void psd2_project(const double* x, double* out) {
    const Psd2Spectrum e = psd2_spectrum_of_svec(x);
    if (e.half_gap <= kPsd2TinyGap) {
        const double v = psd2_clip(e.mean);
        out[0] = v;
        out[1] = 0.0;
        out[2] = v;
        return;
    }
    const double fu = psd2_clip(e.upper);
    const double fl = psd2_clip(e.lower);
    const double gap = e.upper - e.lower;
    const double alpha = (fu - fl) / gap;
    const double beta = (e.upper * fl - e.lower * fu) / gap;
    out[0] = e.a * alpha + beta;
    out[1] = (e.b * alpha) * kSqrt2;
    out[2] = e.c * alpha + beta;
}

// A symmetric 2 x 2 matrix [[a, b], [b, c]].
struct Psd2Matrix {
    double a, b, c;
};

// [[a, b], [b, c]]^p, and whether both eigenvalues passed the test
// lambda > 0 (NaN passes, as in every positivity test). A matrix that fails
// comes back as NaN throughout: the host raises, the kernels pass it on.
struct Psd2Power {
    Psd2Matrix value;
    bool positive;
};

// The power through the two eigenvalues: alpha A + beta I interpolating
// pow(lambda, p), or pow(upper, p) I when the half-gap is below 1e-14.
DRAVIK_HD inline Psd2Power psd2_matrix_power(double a, double b, double c, double p) {
    const Psd2Spectrum e = psd2_spectrum(a, b, c);
    if (e.upper <= 0.0 || e.lower <= 0.0) {
        const double mark = not_positive_mark();
        return {{mark, mark, mark}, false};
    }
    const double pu = pow(e.upper, p);
    const double pl = pow(e.lower, p);
    if (e.half_gap <= kPsd2TinyGap) return {{pu, 0.0, pu}, true};
    const double gap = e.upper - e.lower;
    const double alpha = (pu - pl) / gap;
    const double beta = (e.upper * pl - e.lower * pu) / gap;
    return {{a * alpha + beta, b * alpha, c * alpha + beta}, true};
}

// Frobenius (svec) distance to the cone: the norm of the negative eigenvalues.
DRAVIK_HD inline double psd2_violation(const double* x) {
    const Psd2Spectrum e = psd2_spectrum_of_svec(x);
    const double nu = psd2_negative_part(e.upper);
    const double nl = psd2_negative_part(e.lower);
    return sqrt(nu * nu + nl * nl);
}

}  // namespace dravik::mirel::cones::cpp
