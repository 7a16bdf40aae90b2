// The strict positivity test of the NT scaling inputs, shared by the host
// checks (which raise on failure) and the kernels (which write NaN instead).
#pragma once

#include <math.h>

#include "math/host_device.hpp"

namespace dravik::mirel::cones::cpp {

// Fails unless 0 < v; written as !(0 >= v) so that NaN passes.
DRAVIK_HD inline bool positive_or_nan(double v) { return !(0.0 >= v); }

// A quiet NaN, the kernels' mark of a block that is not positive definite.
DRAVIK_HD inline double not_positive_mark() { return nan(""); }

}  // namespace dravik::mirel::cones::cpp
