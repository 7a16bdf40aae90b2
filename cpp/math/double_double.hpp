// Double-double arithmetic: a value hi + lo carried in two doubles, for the
// few places where a result must be accurate although its inputs cancel
// (the determinant of a second-order point next to the boundary). Every
// step is plain IEEE arithmetic (Dekker's product split, Knuth's sum), so
// the host and the kernels give the same bits, with no fused multiply-add.
#pragma once

#include <math.h>

#include "math/host_device.hpp"

namespace dravik::mirel::cones::cpp {

struct Dd {
    double hi;
    double lo;
};

// a + b exactly, as a rounded sum and its error.
DRAVIK_HD inline Dd two_sum(double a, double b) {
    const double s = a + b;
    const double v = s - a;
    return {s, (a - (s - v)) + (b - v)};
}

DRAVIK_HD inline Dd quick_two_sum(double a, double b) {  // |a| >= |b|
    const double s = a + b;
    return {s, b - (s - a)};
}

// a * b exactly (short of overflow), by Dekker's splitting.
DRAVIK_HD inline Dd two_prod(double a, double b) {
    constexpr double kSplit = 134217729.0;  // 2^27 + 1
    const double p = a * b;
    const double ca = kSplit * a, cb = kSplit * b;
    const double ah = ca - (ca - a), bh = cb - (cb - b);
    const double al = a - ah, bl = b - bh;
    return {p, ((ah * bh - p) + ah * bl + al * bh) + al * bl};
}

DRAVIK_HD inline Dd dd_add(Dd a, Dd b) {
    const Dd s = two_sum(a.hi, b.hi);
    const Dd t = two_sum(a.lo, b.lo);
    Dd r = quick_two_sum(s.hi, s.lo + t.hi);
    return quick_two_sum(r.hi, r.lo + t.lo);
}

DRAVIK_HD inline Dd dd_neg(Dd a) { return {-a.hi, -a.lo}; }

DRAVIK_HD inline Dd dd_mul(Dd a, Dd b) {
    const Dd p = two_prod(a.hi, b.hi);
    return quick_two_sum(p.hi, p.lo + (a.hi * b.lo + a.lo * b.hi));
}

DRAVIK_HD inline Dd dd_div(Dd a, Dd b) {
    const double q1 = a.hi / b.hi;
    const Dd r = dd_add(a, dd_neg(dd_mul({q1, 0.0}, b)));
    const double q2 = r.hi / b.hi;
    return quick_two_sum(q1, q2);
}

// sqrt(a) for a >= 0: one Newton step from the double root.
DRAVIK_HD inline Dd dd_sqrt(Dd a) {
    if (!(a.hi > 0.0)) return {0.0, 0.0};
    const double x = sqrt(a.hi);
    const Dd r = dd_add(a, dd_neg(two_prod(x, x)));
    return quick_two_sum(x, r.hi / (2.0 * x));
}

DRAVIK_HD inline double dd_value(Dd a) { return a.hi + a.lo; }

}  // namespace dravik::mirel::cones::cpp
