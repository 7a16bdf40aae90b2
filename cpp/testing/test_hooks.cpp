// _cpp_cuda_test_hooks: a test-only extension, built beside _cpp_cuda by the
// same project and never shipped with the package. It reaches internals
// that the module's documented surface does not show: the two Jacobi pivot
// searches (whose results must agree to the bit), the 2 x 2 closed forms,
// the PSD NT scaling formulas and the guarded sparse-fill traversals that
// the device kernels run, on host arrays, the host's PSD congruence matrix
// R, the PSD device entry points' routes, and the exponential cone's
// per-block barrier Hessian, Euclidean projection onto K, membership tests
// and scaling with its fall-back flag (exp_kit_hooks.hpp). It compiles the
// host sources it
// needs with the module's floating-point flags, so the bits are the same.
#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>
#include <nanobind/stl/string.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "cones/host_loops.hpp"
#include "cones/jacobi_eigh.hpp"
#include "cones/psd_nt_host.hpp"
#include "cones/second_order_nt.hpp"
#include "core/errors.hpp"
#include "cuda/psd_routes.hpp"
#include "math/hmatrix.hpp"
#include "math/sparse_fill.hpp"
#include "math/psd2.hpp"
#include "math/psd_nt.hpp"
#include "math/svec.hpp"
#include "testing/exp_kit_hooks.hpp"

namespace nb = nanobind;
using namespace nb::literals;
namespace cones = dravik::mirel::cones::cpp;

namespace {

using Input = nb::ndarray<const double, nb::ndim<1>, nb::c_contig, nb::device::cpu>;
using Output = nb::ndarray<double, nb::ndim<1>, nb::c_contig, nb::device::cpu>;
using Index = nb::ndarray<const int64_t, nb::ndim<1>, nb::c_contig, nb::device::cpu>;
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

// The n x n matrix `values` as a NumPy array.
nb::ndarray<nb::numpy, double> square(std::vector<double> values, uint64_t n) {
    return owned(std::move(values), {n, n});
}

// One block's NT scaling as the kernels compute it (z / s, the 2 x 2 closed
// form, or the congruence matrix R in private arrays and then the operator
// entries), NaN where the block is not positive definite.
std::vector<double> device_block(const double* s, const double* z, uint64_t n) {
    const uint64_t rows = cones::svec_length(n);
    std::vector<double> h(rows * rows);
    if (n == 1) {
        h[0] = cones::psd1_nt_scaling_entry(s[0], z[0]);
    } else if (n == 2) {
        cones::psd2_nt_operator(cones::psd2_nt_congruence(s, z).r, h.data());
    } else {
        std::vector<double> r(n * n);
        cones::psd_nt_congruence_private(s, z, n, r.data());
        for (uint64_t e = 0; e < rows * rows; ++e) {
            h[e] = cones::psd_nt_operator_entry(r.data(), n, e / rows, e % rows);
        }
    }
    return h;
}

const char* route_name(dravik::cuda::PsdNtRoute route) {
    using dravik::cuda::PsdNtRoute;
    switch (route) {
        case PsdNtRoute::Nothing: return "nothing";
        case PsdNtRoute::Order1: return "order1";
        case PsdNtRoute::Order2: return "order2";
        case PsdNtRoute::Custom: return "custom";
        case PsdNtRoute::Library: return "library";
    }
    return "";
}

dravik::cuda::PsdNtEntry entry_named(const std::string& name) {
    using dravik::cuda::PsdNtEntry;
    if (name == "batch") return PsdNtEntry::Batch;
    if (name == "custom") return PsdNtEntry::Custom;
    if (name == "cublas") return PsdNtEntry::Cublas;
    if (name == "w") return PsdNtEntry::Congruence;
    cones::fail("unknown entry point " + name);
}

void require_private_order(uint64_t n) {
    if (n == 0 || n > cones::kPsdPrivateOrder) cones::fail("order must be 1 to 32");
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

// A batch of second-order H by one build of the column loops, on the OpenMP
// team from n = 256 on as in the module.
nb::ndarray<nb::numpy, double> soc_nt_scaling_batch(const std::string& build, Input s, Input z,
                                                    uint64_t n, uint64_t batch) {
    require_length(s, n * batch, "s");
    require_length(z, n * batch, "z");
    std::vector<double> h(n * n * batch, 0.0);
    cones::SocNtScaling(n, cones::kSocNtNotInterior, cones::SocColumnThreads::TeamForLargeRows,
                        loops_named(build))
        .write_batch(s.data(), z.data(), h.data(), batch);
    return owned(std::move(h), {batch, n, n});
}

}  // namespace

NB_MODULE(_cpp_cuda_test_hooks, m) {
    m.def(
        "jacobi_eigh",
        [](Input matrix, uint64_t order) { return decompose(cones::jacobi_eigh, matrix, order); },
        "matrix"_a.noconvert(), "order"_a);
    m.def(
        "jacobi_eigh_reference",
        [](Input matrix, uint64_t order) {
            return decompose(cones::jacobi_eigh_full_scan, matrix, order);
        },
        "matrix"_a.noconvert(), "order"_a);
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
    // The host's congruence matrix R (raises the "matrices" message).
    m.def(
        "psd_nt_congruence",
        [](Input s, Input z, uint64_t order) {
            cones::require_psd_order(order);
            require_length(s, cones::svec_length(order), "s");
            require_length(z, cones::svec_length(order), "z");
            return square(cones::psd_nt_congruence(s.data(), z.data(), order), order);
        },
        "s"_a.noconvert(), "z"_a.noconvert(), "order"_a);
    // R as the custom kernel computes it, in its private arrays (order <= 32).
    m.def(
        "psd_nt_congruence_private",
        [](Input s, Input z, uint64_t order) {
            require_private_order(order);
            require_length(s, cones::svec_length(order), "s");
            require_length(z, cones::svec_length(order), "z");
            std::vector<double> r(order * order);
            cones::psd_nt_congruence_private(s.data(), z.data(), order, r.data());
            return square(std::move(r), order);
        },
        "s"_a.noconvert(), "z"_a.noconvert(), "order"_a);
    // One block's H as the kernels compute it (order <= 32), rows x rows.
    m.def(
        "psd_nt_block_device",
        [](Input s, Input z, uint64_t order) {
            require_private_order(order);
            require_length(s, cones::svec_length(order), "s");
            require_length(z, cones::svec_length(order), "z");
            return square(device_block(s.data(), z.data(), order), cones::svec_length(order));
        },
        "s"_a.noconvert(), "z"_a.noconvert(), "order"_a);
    // V diag(pow(lambda, p)) V^T as the reconstruction after cuSOLVER forms
    // it: eigenvector k is the k-th run of `order` values of `vectors`.
    m.def(
        "psd_power_from_eigenpairs",
        [](Input vectors, Input values, uint64_t order, double p) {
            cones::require_psd_order(order);
            require_length(vectors, order * order, "vectors");
            require_length(values, order, "values");
            std::vector<double> mu(order);
            for (uint64_t k = 0; k < order; ++k) {
                mu[k] = cones::psd_eigen_power(values.data()[k], p);
            }
            std::vector<double> out(order * order);
            for (uint64_t e = 0; e < order * order; ++e) {
                out[e] = cones::psd_power_entry(vectors.data(), 1, order, mu.data(), order,
                                                e / order, e % order);
            }
            return square(std::move(out), order);
        },
        "vectors"_a.noconvert(), "values"_a.noconvert(), "order"_a, "p"_a);
    // The route a PSD device entry point ("batch", "custom", "cublas", or "w"
    // for the congruence output) takes for (order, batch), or its size
    // refusal.
    m.def(
        "psd_nt_route",
        [](const std::string& entry, uint64_t order, uint64_t batch) {
            return route_name(dravik::cuda::psd_nt_route(entry_named(entry), order, batch));
        },
        "entry"_a, "order"_a, "batch"_a);
    m.def(
        "svec_position",
        [](uint64_t k) {
            const cones::SvecPosition at = cones::svec_position(k);
            return nb::make_tuple(at.row, at.col);
        },
        "k"_a);
    // The direct fill kernels' traversal (no checks, every position bounded
    // by nnz) run on the host, its work split into `workers` row or entry
    // strides (CSR rows also into `lanes`) as a launch splits it.
    m.def(
        "hmatrix_direct_device_fill",
        [](bool csr, int kind, Input s, Input z, Index first, Index second, Output values,
           uint64_t rows, uint64_t row_offset, uint64_t workers, uint64_t lanes) {
            const auto h = cones::one_item(cones::HmatrixDirect{kind, s.data(), z.data()});
            const cones::FillGrid grid{row_offset, rows, 1};
            const uint64_t nnz = values.shape(0);
            for (uint64_t w = 0; w < workers; ++w) {
                if (!csr) {
                    cones::fill_coo_entries(grid, first.data(), second.data(), values.data(), nnz,
                                            cones::SkipBadPattern{}, h, cones::OffBlock::Zero, w,
                                            workers);
                    continue;
                }
                for (uint64_t lane = 0; lane < lanes; ++lane) {
                    cones::fill_csr_rows(grid, first.data(), second.data(), values.data(), nnz,
                                         cones::SkipBadPattern{}, h, cones::OffBlock::Zero, w,
                                         workers, lane, lanes);
                }
            }
        },
        "csr"_a, "kind"_a, "s"_a.noconvert(), "z"_a.noconvert(), "first"_a.noconvert(),
        "second"_a.noconvert(), "values"_a.noconvert(), "rows"_a, "row_offset"_a, "workers"_a,
        "lanes"_a);
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
    exp_kit_hooks::register_exp_kit_hooks(m);
}
