// _cpp_cuda_test_hooks: a test-only extension, built beside _cpp_cuda by the
// same project and never shipped with the package. It reaches internals
// that the module's documented surface does not show: the two Jacobi pivot
// searches (whose results must agree to the bit) and the 2 x 2 closed forms
// that the device kernels run, on host arrays. It compiles the host sources
// it needs with the module's floating-point flags, so the bits are the same.
#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>
#include <nanobind/stl/string.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "cones/errors.hpp"
#include "cones/host_loops.hpp"
#include "cones/jacobi.hpp"
#include "cones/math/psd2.hpp"
#include "cones/math/svec.hpp"
#include "cones/second_order_nt.hpp"

namespace nb = nanobind;
using namespace nb::literals;
namespace cones = dravik::mirel::cones::cpp;

namespace {

using Input = nb::ndarray<const double, nb::ndim<1>, nb::c_contig, nb::device::cpu>;
using JacobiFn = void (*)(std::vector<double>&, std::vector<double>&, uint64_t);

// A NumPy array that owns `values` (moved into the capsule that frees it).
nb::ndarray<nb::numpy, double> owned(std::vector<double> values,
                                     std::initializer_list<size_t> shape) {
    auto* held = new std::vector<double>(std::move(values));
    nb::capsule owner(held, [](void* p) noexcept { delete static_cast<std::vector<double>*>(p); });
    return nb::ndarray<nb::numpy, double>(held->data(), shape, owner);
}

void require_length(const Input& a, uint64_t expected, const char* name) {
    if (a.shape(0) != expected) {
        cones::fail(std::string(name) + " expected " + std::to_string(expected) + " entries, got " +
                    std::to_string(a.shape(0)));
    }
}

// (eigenvalues, eigenvectors as the columns of an n x n array).
nb::tuple decompose(JacobiFn jacobi, Input matrix, uint64_t n) {
    cones::require_psd_order(n);
    require_length(matrix, n * n, "matrix");
    std::vector<double> a(matrix.data(), matrix.data() + n * n);
    std::vector<double> v;
    jacobi(a, v, n);
    std::vector<double> values(n);
    for (uint64_t i = 0; i < n; ++i) values[i] = a[i * n + i];
    return nb::make_tuple(owned(std::move(values), {n}), owned(std::move(v), {n, n}));
}

// The two builds of the host loops (AVX2 and baseline x86-64) must agree to
// the bit; these run either one by name.
const cones::HostLoops& loops_named(const std::string& build) {
    const cones::HostLoops* loops = cones::host_loops_named(build.c_str());
    if (loops == nullptr) cones::fail("no host loop build " + build + " on this CPU");
    return *loops;
}

// Every vector loop of one build over x (y = the reversed x for the paired
// sums), with `bound` for the membership tests and k for the scaled ones.
nb::dict host_loop_results(const std::string& build, Input input, double bound, double k) {
    const cones::HostLoops& loops = loops_named(build);
    const uint64_t n = input.shape(0);
    const double* x = input.data();
    std::vector<double> y(x, x + n), clipped(n), scaled(n);
    std::reverse(y.begin(), y.end());
    loops.clip_nonnegative(x, clipped.data(), n);
    loops.scale(x, scaled.data(), n, k);
    double sum_x = 0.0, sum_y = 0.0;
    loops.sum_sq_pair(x, y.data(), n, &sum_x, &sum_y);
    nb::dict out;
    out["clip"] = owned(std::move(clipped), {n});
    out["scale"] = owned(std::move(scaled), {n});
    out["sum_sq"] = loops.sum_sq(x, n, 0.0);
    out["sum_sq_from_k"] = loops.sum_sq(x, n, k);
    out["sum_sq_pair"] = nb::make_tuple(sum_x, sum_y);
    out["negative_sum_sq"] = loops.negative_sum_sq(x, n);
    out["residual_sum_sq"] = loops.residual_sum_sq(x, n, k, 0.0);
    out["residual_sum_sq_from_k"] = loops.residual_sum_sq(x, n, k, k);
    out["any_below"] = loops.any_below(x, n, bound);
    out["any_abs_above"] = loops.any_abs_above(x, n, bound);
    out["any_at_most"] = loops.any_at_most(x, n, bound);
    return out;
}

// A batch of second-order W by one build of the column loops, on the OpenMP
// team from n = 256 on as in the module.
nb::ndarray<nb::numpy, double> soc_nt_scaling_batch(const std::string& build, Input s, Input z,
                                                    uint64_t n, uint64_t batch) {
    require_length(s, n * batch, "s");
    require_length(z, n * batch, "z");
    std::vector<double> w(n * n * batch, 0.0);
    cones::SocNtScaling(n, cones::kSocNtNotInterior, cones::SocColumnThreads::TeamForLargeDims,
                        loops_named(build))
        .write_batch(s.data(), z.data(), w.data(), batch);
    return owned(std::move(w), {batch, n, n});
}

}  // namespace

NB_MODULE(_cpp_cuda_test_hooks, m) {
    m.def(
        "jacobi_eigh",
        [](Input matrix, uint64_t dim) { return decompose(cones::jacobi_eigh, matrix, dim); },
        "matrix"_a.noconvert(), "dim"_a);
    m.def(
        "jacobi_eigh_reference",
        [](Input matrix, uint64_t dim) {
            return decompose(cones::jacobi_eigh_full_scan, matrix, dim);
        },
        "matrix"_a.noconvert(), "dim"_a);
    // (projection, violation) of a 2 x 2 svec by the device's closed forms.
    m.def(
        "psd2_closed_form",
        [](Input svec) {
            require_length(svec, 3, "svec");
            std::vector<double> out(3);
            cones::psd2_project(svec.data(), out.data());
            return nb::make_tuple(owned(std::move(out), {3}), cones::psd2_violation(svec.data()));
        },
        "svec"_a.noconvert());
    m.def("host_loops_in_use", [] { return std::string(cones::host_loops().name); });
    m.def("host_loop_builds", [] {
        nb::list names;
        for (const char* name : {"baseline", "avx2"}) {
            if (cones::host_loops_named(name) != nullptr) names.append(name);
        }
        return names;
    });
    m.def("host_loop_results", host_loop_results, "build"_a, "x"_a.noconvert(), "bound"_a,
          "k"_a);
    m.def("soc_nt_scaling_batch", soc_nt_scaling_batch, "build"_a, "s"_a.noconvert(),
          "z"_a.noconvert(), "n"_a, "batch"_a);
}
