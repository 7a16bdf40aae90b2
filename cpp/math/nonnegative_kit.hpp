// The solver kit of the nonnegative orthant (n entries per item). The NT
// scaling is diagonal: W = diag(w) with w = sqrt(s / z), lam = W z =
// sqrt(s z), H = W^-2 = diag(z / s). The compact scaling holds the pairs
// (w_i, lam_i) interleaved, so that an item of n entries is n items of one
// entry: the frame runs the entrywise operations over single entries.
#pragma once

#include <math.h>

#include <cstddef>

#include "math/host_device.hpp"
#include "math/kit.hpp"

namespace dravik::mirel::cones::cpp {

// Strictly inside (0, inf); false on NaN.
DRAVIK_HD inline bool positive_finite(double v) { return v > 0.0 && v < INFINITY; }

struct NonnegativeKit {
    size_t n;

    DRAVIK_HD size_t rows() const { return n; }
    DRAVIK_HD size_t scaling_length() const { return 2 * n; }
    DRAVIK_HD size_t scratch_length() const { return 0; }

    DRAVIK_HD void identity(double* e) const {
        for (size_t i = 0; i < n; ++i) e[i] = 1.0;
    }

    // The smallest x_i / -dx_i over dx_i < 0, stepped down once (stepping
    // down is monotone, so the least quotient's step is the least step);
    // NaN when a dx_i is NaN.
    DRAVIK_HD bool max_step(const double* x, const double* dx, double*, double* alpha) const {
        double best = INFINITY;
        bool outside = false, nan_direction = false;
        for (size_t i = 0; i < n; ++i) {  // no early exit: the loop vectorises
            outside |= !(x[i] >= 0.0);
            nan_direction |= dx[i] != dx[i];
            const double quotient = dx[i] < 0.0 ? x[i] / -dx[i] : INFINITY;
            best = quotient < best ? quotient : best;
        }
        if (outside) return false;
        *alpha = nan_direction ? kit_refused() : step_down(best);
        return true;
    }

    DRAVIK_HD KitStatus nt_scaling(const double* s, const double* z, double, double*,
                                   double* scaling) const {
        for (size_t i = 0; i < n; ++i) {
            if (!positive_finite(s[i])) return KitStatus::FirstNotInterior;
        }
        for (size_t i = 0; i < n; ++i) {
            if (!positive_finite(z[i])) return KitStatus::SecondNotInterior;
        }
        for (size_t i = 0; i < n; ++i) {
            const double rs = sqrt(s[i]);
            const double rz = sqrt(z[i]);
            scaling[2 * i] = rs / rz;
            scaling[2 * i + 1] = rs * rz;
        }
        return KitStatus::Ok;
    }

    DRAVIK_HD void scaled_point(const double* scaling, double* lam) const {
        for (size_t i = 0; i < n; ++i) lam[i] = scaling[2 * i + 1];
    }

    DRAVIK_HD void apply(const double* scaling, const double* x, bool inverse, double*,
                         double* out) const {
        for (size_t i = 0; i < n; ++i) {
            const double w = scaling[2 * i];
            out[i] = inverse ? x[i] / w : w * x[i];
        }
    }

    DRAVIK_HD double hessian_entry(const double* scaling, size_t i, size_t j, bool inverse) const {
        if (i != j) return 0.0;
        const double w = scaling[2 * i];
        return inverse ? w * w : 1.0 / (w * w);
    }

    DRAVIK_HD void jordan_product(const double* x, const double* y, double*, double* out) const {
        for (size_t i = 0; i < n; ++i) out[i] = x[i] * y[i];
    }

    DRAVIK_HD bool jordan_divide(const double* lam, const double* v, double*, double* out) const {
        for (size_t i = 0; i < n; ++i) {
            if (!positive_finite(lam[i])) return false;
        }
        for (size_t i = 0; i < n; ++i) out[i] = v[i] / lam[i];
        return true;
    }
};

}  // namespace dravik::mirel::cones::cpp
