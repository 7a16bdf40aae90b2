// What every cone's solver-kit math shares. A cone's kit is a small struct
// (math/<cone>_kit.hpp) whose members work on one item of the cone, on the
// host and in the kernels alike; the host frame (cones/frame/kit_forms.hpp)
// and the device drivers (cuda/kit_kernels.cuh) loop over items. Its
// members: rows(), scaling_length(), scratch_length() (work space of one
// call, in doubles), identity(e), max_step(x, dx, scratch, &alpha) (false
// when x is outside the closed cone), nt_scaling(s, z, mu, scratch,
// scaling) -> KitStatus (writes only when Ok), scaled_point(scaling, lam),
// apply(scaling, x, inverse, scratch, out) (out may be x), hessian_entry(
// scaling, i, j, inverse) for i <= j, jordan_product(x, y, scratch, out) and
// jordan_divide(lam, v, scratch, out) (false when lam is not strictly
// interior).
#pragma once

#include <math.h>

#include <cstddef>

#include "math/host_device.hpp"

namespace dravik::mirel::cones::cpp {

// Which input of a two-input operation is outside the cone's interior.
enum class KitStatus : int { Ok = 0, FirstNotInterior = 1, SecondNotInterior = 2 };

// Entry (i, j) of H (or H^-1) evaluated on the upper triangle, so that the
// two entries of a mirrored pair are the same double everywhere (dense H,
// the sparse fills, host and device).
template <class Kit>
DRAVIK_HD double kit_symmetric_entry(const Kit& kit, const double* scaling, size_t i, size_t j,
                                     bool inverse) {
    return i <= j ? kit.hessian_entry(scaling, i, j, inverse)
                  : kit.hessian_entry(scaling, j, i, inverse);
}

// scale * H_b(i, j) (or of H^-1) of item b: the value of the kit's fills.
template <class Kit>
struct KitFillValue {
    Kit kit;
    const double* scaling;
    bool inverse;
    double scale;

    struct Row {
        const KitFillValue& fill;
        const double* scaling;  // the item's
        size_t i;
        DRAVIK_HD double operator()(size_t j) const {
            return fill.scale * kit_symmetric_entry(fill.kit, scaling, i, j, fill.inverse);
        }
    };

    DRAVIK_HD Row row(size_t item, size_t i) const {
        return {*this, scaling + item * kit.scaling_length(), i};
    }
};

// The lesser of two steps, NaN once either is NaN (a refused item's mark).
DRAVIK_HD inline double least_of(double a, double b) {
    if (a != a) return a;
    if (b != b) return b;
    return b < a ? b : a;
}

// What a device kernel writes where the host would refuse an item.
DRAVIK_HD inline double kit_refused() { return nan(""); }

// The largest double below a positive step (0 and +inf stay): a step
// computed by one correctly rounded division or root is at most half an ulp
// above the exact boundary, so one step down never crosses it.
DRAVIK_HD inline double step_down(double alpha) {
    return alpha > 0.0 && alpha < INFINITY ? nextafter(alpha, 0.0) : alpha;
}

}  // namespace dravik::mirel::cones::cpp
