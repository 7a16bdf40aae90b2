// The solver kit of the zero cone.
#pragma once

#include <math.h>

#include <cstddef>

#include "math/host_device.hpp"
#include "math/kit.hpp"

namespace dravik::mirel::cones::cpp {

// The zero cone {0}^n: every item's scaling is empty and its H is 0, so a
// solver can treat its rows like any other cone's; max_step is unbounded.
struct ZeroKit {
    size_t n;

    DRAVIK_HD size_t rows() const { return n; }
    DRAVIK_HD size_t scaling_length() const { return 0; }
    DRAVIK_HD size_t scratch_length() const { return 0; }
    DRAVIK_HD void identity(double* e) const {
        for (size_t i = 0; i < n; ++i) e[i] = 0.0;
    }
    DRAVIK_HD bool max_step(const double*, const double*, double*, double* alpha) const {
        *alpha = INFINITY;
        return true;
    }
    DRAVIK_HD KitStatus nt_scaling(const double*, const double*, double, double*, double*) const {
        return KitStatus::Ok;
    }
    DRAVIK_HD double hessian_entry(const double*, size_t, size_t, bool) const { return 0.0; }
};

}  // namespace dravik::mirel::cones::cpp
