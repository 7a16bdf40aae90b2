// The exponential cone's per-block interior-point mathematics
// (math/exponential_kit.hpp, math/exponential_projection.hpp) for the tests,
// block by block over runs of 3-blocks on host arrays. Blocks an operation
// refuses come out NaN (and, for the scaling, with their status).
#pragma once

#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "core/errors.hpp"
#include "math/exponential_kit.hpp"
#include "math/exponential_projection.hpp"

namespace exp_kit_hooks {

namespace nb = nanobind;
namespace cones = dravik::mirel::cones::cpp;
using ExpInput = nb::ndarray<const double, nb::ndim<1>, nb::c_contig, nb::device::cpu>;

inline nb::ndarray<nb::numpy, double> exp_owned(std::vector<double> values,
                                                std::initializer_list<size_t> shape) {
    auto* held = new std::vector<double>(std::move(values));
    nb::capsule owner(held, [](void* p) noexcept { delete static_cast<std::vector<double>*>(p); });
    return nb::ndarray<nb::numpy, double>(held->data(), shape, owner);
}

inline uint64_t exp_blocks_of(const ExpInput& a, const char* name) {
    if (a.shape(0) % 3 != 0) {
        cones::fail(std::string(name) + " must hold whole 3-blocks, got " +
                    std::to_string(a.shape(0)) + " entries");
    }
    return a.shape(0) / 3;
}

// out = f(block k) for every block, 3 values each; a false return gives NaN.
template <class F>
nb::ndarray<nb::numpy, double> exp_per_block(const ExpInput& x, F&& f) {
    const uint64_t blocks = exp_blocks_of(x, "x");
    std::vector<double> out(3 * blocks);
    for (uint64_t k = 0; k < blocks; ++k) {
        if (!f(x.data() + 3 * k, out.data() + 3 * k)) {
            for (int i = 0; i < 3; ++i) out[3 * k + i] = NAN;
        }
    }
    return exp_owned(std::move(out), {3 * blocks});
}

inline void register_exp_kit_hooks(nb::module_& m) {
    using namespace nb::literals;
    m.def("exp_central", [] {
        return exp_owned({cones::exp_central(0), cones::exp_central(1), cones::exp_central(2)},
                         {3});
    });
    m.def(
        "exp_gradient", [](ExpInput x) { return exp_per_block(x, cones::exp_barrier_gradient); },
        "x"_a.noconvert());
    m.def(
        "exp_conjugate_point",
        [](ExpInput z) { return exp_per_block(z, cones::exp_conjugate_point); },
        "z"_a.noconvert());
    m.def(
        "exp_hessian",
        [](ExpInput x) {
            const uint64_t blocks = exp_blocks_of(x, "x");
            std::vector<double> out(9 * blocks, NAN);
            for (uint64_t k = 0; k < blocks; ++k) {
                double h[6];
                if (!cones::exp_barrier_hessian(x.data() + 3 * k, h)) continue;
                const int at[9] = {0, 1, 2, 1, 3, 4, 2, 4, 5};
                for (int e = 0; e < 9; ++e) out[9 * k + e] = h[at[e]];
            }
            return exp_owned(std::move(out), {blocks, 3, 3});
        },
        "x"_a.noconvert());
    // Membership of the closed cone (dual: K*) or of its interior, per block.
    m.def(
        "exp_membership",
        [](ExpInput x, bool dual, bool interior) {
            const uint64_t blocks = exp_blocks_of(x, "x");
            nb::list out;
            for (uint64_t k = 0; k < blocks; ++k) {
                const double* b = x.data() + 3 * k;
                out.append(dual ? (interior ? cones::exp_in_dual_interior(b)
                                            : cones::exp_in_dual_cone(b))
                                : (interior ? cones::exp_in_interior(b) : cones::exp_in_cone(b)));
            }
            return out;
        },
        "x"_a.noconvert(), "dual"_a, "interior"_a);
    // Per-block step lengths (NaN where x is outside the closed cone).
    m.def(
        "exp_max_step",
        [](ExpInput x, ExpInput dx, bool dual) {
            const uint64_t blocks = exp_blocks_of(x, "x");
            if (dx.shape(0) != x.shape(0)) cones::fail("dx must match x");
            std::vector<double> out(blocks);
            for (uint64_t k = 0; k < blocks; ++k) {
                double a;
                out[k] = cones::exp_max_step(x.data() + 3 * k, dx.data() + 3 * k, dual, &a)
                             ? a
                             : NAN;
            }
            return exp_owned(std::move(out), {blocks});
        },
        "x"_a.noconvert(), "dx"_a.noconvert(), "dual"_a);
    // (H, H^-1 as blocks x 3 x 3, status per block, fall-back used per block).
    m.def(
        "exp_nt_scaling",
        [](ExpInput s, ExpInput z, double mu) {
            const uint64_t blocks = exp_blocks_of(s, "s");
            if (z.shape(0) != s.shape(0)) cones::fail("z must match s");
            std::vector<double> h(9 * blocks, NAN), hi(9 * blocks, NAN);
            nb::list status, fell;
            for (uint64_t k = 0; k < blocks; ++k) {
                double w[cones::kExpScalingLength];
                bool fb = false;
                const cones::KitStatus st =
                    cones::exp_nt_scaling(s.data() + 3 * k, z.data() + 3 * k, mu, w, &fb);
                status.append(static_cast<int>(st));
                fell.append(fb);
                if (st != cones::KitStatus::Ok) continue;
                const int at[9] = {0, 1, 2, 1, 3, 4, 2, 4, 5};
                for (int e = 0; e < 9; ++e) {
                    h[9 * k + e] = w[at[e]];
                    hi[9 * k + e] = w[6 + at[e]];
                }
            }
            return nb::make_tuple(exp_owned(std::move(h), {blocks, 3, 3}),
                                  exp_owned(std::move(hi), {blocks, 3, 3}), status, fell);
        },
        "s"_a.noconvert(), "z"_a.noconvert(), "mu"_a = 0.0);
    m.def(
        "exp_project_euclidean",
        [](ExpInput x) {
            return exp_per_block(x, [](const double* v, double* o) {
                cones::exp_project_euclidean_block(v, o);
                return true;
            });
        },
        "x"_a.noconvert());
}

}  // namespace exp_kit_hooks
