// Per-block rules of the exponential cone, shared by the host loops and the
// CUDA kernels. A block is (x, y, z); the cone is the closure of
// { y > 0, y * exp(x / y) <= z }. Every exp(x / y) clamps its argument into
// [-745, 709] first, so it neither overflows nor flushes to an exact zero
// earlier than the smallest subnormal.
#pragma once

#include <cmath>

#include "math/host_device.hpp"
#include "math/rank_two.hpp"

namespace dravik::mirel::cones::cpp {

struct ExpBlock {
    double x;
    double y;
    double z;
};

constexpr double kExpProjectTolerance = 1e-8;
constexpr double kExpRatioMin = -745.0;
constexpr double kExpRatioMax = 709.0;

// Clamps into [-745, 709]; NaN stays NaN.
DRAVIK_HD inline double exp_clamp_ratio(double r) {
    if (r < kExpRatioMin) return kExpRatioMin;
    if (r > kExpRatioMax) return kExpRatioMax;
    return r;
}

// y * exp(clamp(x / y)).
DRAVIK_HD inline double exp_perspective(double x, double y) {
    return y * std::exp(exp_clamp_ratio(x / y));
}

// The lifted z: e when e > z, else z (a NaN e keeps z).
DRAVIK_HD inline double exp_lifted_z(double e, double z) { return e > z ? e : z; }

// The projection rule: keeps x and y and lifts z when y > 0 (with literal
// 1e-8 tolerances), otherwise clears y, a positive x and a negative z.
DRAVIK_HD inline ExpBlock exp_project_block(ExpBlock v) {
    const double tol = kExpProjectTolerance;
    if (v.y > 0.0) {
        const double e = exp_perspective(v.x, v.y);
        double z;
        if (v.y > tol) {
            z = v.z + tol >= e ? v.z : exp_lifted_z(e, v.z);
        } else if (v.x > tol) {
            z = exp_lifted_z(e, v.z);
        } else {
            z = v.z >= -tol ? v.z : exp_lifted_z(e, v.z);
        }
        return {v.x, v.y, z};
    }
    return {v.x > 0.0 ? 0.0 : v.x, 0.0, v.z < 0.0 ? 0.0 : v.z};
}

// The block's squared violation: (y exp(x / y) - z)^2 when z falls short and
// y > 0; otherwise the squared distance to (min(x, 0), 0, max(z, 0)), formed
// as the square of its square root.
DRAVIK_HD inline double exp_violation_term(ExpBlock v) {
    if (v.y > 0.0) {
        const double d = exp_perspective(v.x, v.y) - v.z;
        return d > 0.0 ? d * d : 0.0;
    }
    const double sq = (v.x >= 0.0 ? v.x * v.x : 0.0) + v.y * v.y + (v.z <= 0.0 ? v.z * v.z : 0.0);
    const double root = std::sqrt(sq);
    return root * root;
}

// Membership with tolerance atol; any NaN in a tested quantity fails.
DRAVIK_HD inline bool exp_block_contains(ExpBlock v, double atol) {
    if (v.y > atol) return v.z + atol >= exp_perspective(v.x, v.y);
    return v.x <= atol && std::fabs(v.y) <= atol && v.z >= -atol;
}

// Strict interior: y > 0 and z > y exp(x / y); NaN fails.
DRAVIK_HD inline bool exp_block_interior(ExpBlock v) {
    return v.y > 0.0 && v.z > exp_perspective(v.x, v.y);
}

// ---------------------------------------------------------------- dual cone
// The dual cone is the closure of { u < 0, -u * exp(v / u) <= e * w }, whose
// closure adds the ray set { (0, v, w) : v >= 0, w >= 0 }. A block (u, v, w)
// is stored in the x, y, z fields. Its rules mirror the primal ones above:
// -u plays the part of y, and the exponent v / u - 1 is clamped as x / y is.

// -u * exp(clamp(v / u - 1)): the least w with (u, v, w) in the dual cone.
DRAVIK_HD inline double exp_dual_perspective(double u, double v) {
    return -u * std::exp(exp_clamp_ratio(v / u - 1.0));
}

// The block's squared dual violation: (-u exp(v / u - 1) - w)^2 when w falls
// short and u < 0; otherwise the squared distance to (0, max(v, 0),
// max(w, 0)) on the ray set, formed as the square of its square root.
DRAVIK_HD inline double exp_dual_violation_term(ExpBlock d) {
    if (d.x < 0.0) {
        const double gap = exp_dual_perspective(d.x, d.y) - d.z;
        return gap > 0.0 ? gap * gap : 0.0;
    }
    const double sq = d.x * d.x + (d.y <= 0.0 ? d.y * d.y : 0.0) + (d.z <= 0.0 ? d.z * d.z : 0.0);
    const double root = std::sqrt(sq);
    return root * root;
}

// Dual membership with tolerance atol; any NaN in a tested quantity fails.
DRAVIK_HD inline bool exp_dual_block_contains(ExpBlock d, double atol) {
    if (-d.x > atol) return d.z + atol >= exp_dual_perspective(d.x, d.y);
    return std::fabs(d.x) <= atol && d.y >= -atol && d.z >= -atol;
}

DRAVIK_HD inline ExpBlock load_exp_block(const double* p) { return {p[0], p[1], p[2]}; }

DRAVIK_HD inline void store_exp_block(double* p, ExpBlock v) {
    p[0] = v.x;
    p[1] = v.y;
    p[2] = v.z;
}

// The 3 x 3 exponential scaling block: the rank-two map taking the s-block
// onto the z-block, without the norm check of the dense builder.
struct ExpScalingBlock {
    double a[3];
    double d[3];
    double q;
    double c;
    double q2;

    // Grouped as the dense builder groups it (the device kernel's entry).
    DRAVIK_HD double entry(unsigned i, unsigned j) const {
        return rank_two_entry(i == j ? 1.0 : 0.0, a[i], a[j], d[i], d[j], q, c, q2);
    }
    // Added left to right, as the host batch writes it.
    DRAVIK_HD double batch_entry(unsigned i, unsigned j) const {
        return rank_two_entry_left_to_right(i == j ? 1.0 : 0.0, a[i], a[j], d[i], d[j], q, c, q2);
    }
};

DRAVIK_HD inline ExpScalingBlock exp_scaling_block(const double* s, const double* z) {
    ExpScalingBlock m;
    for (unsigned i = 0; i < 3; ++i) {
        m.a[i] = s[i];
        m.d[i] = z[i] - s[i];
    }
    m.q = rank_two_q(s, 3);
    m.c = rank_two_c(s, z, 3);
    m.q2 = m.q * m.q;
    return m;
}

}  // namespace dravik::mirel::cones::cpp
