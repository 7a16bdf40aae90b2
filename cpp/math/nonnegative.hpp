// Per-element rules of the nonnegative orthant, shared by the host loops and
// the CUDA kernels.
#pragma once

#include "math/host_device.hpp"

namespace dravik::mirel::cones::cpp {

// The entry if it is positive, else +0.0: -0.0 and NaN both become +0.0.
DRAVIK_HD inline double nonnegative_clip(double x) { return x > 0.0 ? x : 0.0; }

// Squared distance of one entry to [0, inf); NaN adds nothing.
DRAVIK_HD inline double nonnegative_violation_term(double x) { return x < 0.0 ? x * x : 0.0; }

// Membership failure of one entry: strictly below -atol (NaN never fails).
DRAVIK_HD inline bool nonnegative_below(double x, double atol) { return -atol > x; }

}  // namespace dravik::mirel::cones::cpp
