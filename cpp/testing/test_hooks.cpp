// _cpp_cuda_test_hooks: a test-only extension, built beside _cpp_cuda by the
// same project and never shipped with the package. It reaches internals
// that the module's documented surface does not show: the two Jacobi pivot
// searches (whose results must agree to the bit), the 2 x 2 closed forms
// and the guarded sparse-fill traversals that the device kernels run, on
// host arrays. It compiles the host sources
// it needs with the module's floating-point flags, so the bits are the same.
#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>

#include <cstdint>
#include <string>
#include <vector>

#include "cones/errors.hpp"
#include "cones/jacobi.hpp"
#include "cones/math/hmatrix.hpp"
#include "cones/math/psd2.hpp"
#include "cones/math/svec.hpp"

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
    // The direct fill kernels' traversal (no checks, every position bounded
    // by nnz) run on the host, its work split into `workers` row or entry
    // strides (CSR rows also into `lanes`) as a launch splits it.
    m.def(
        "hmatrix_direct_device_fill",
        [](bool csr, int kind, Input s, Input z, Index first, Index second, Output values,
           uint64_t rows, uint64_t row_offset, uint64_t workers, uint64_t lanes) {
            const cones::HmatrixDirect h{kind, s.data(), z.data()};
            for (uint64_t w = 0; w < workers; ++w) {
                if (!csr) {
                    cones::hmatrix_coo_entries_guarded(first.data(), second.data(), values.data(),
                                                       values.shape(0), rows, row_offset, h, w,
                                                       workers);
                    continue;
                }
                for (uint64_t lane = 0; lane < lanes; ++lane) {
                    cones::hmatrix_csr_rows_guarded(first.data(), second.data(), values.data(),
                                                    values.shape(0), rows, row_offset, h, w,
                                                    workers, lane, lanes);
                }
            }
        },
        "csr"_a, "kind"_a, "s"_a.noconvert(), "z"_a.noconvert(), "first"_a.noconvert(),
        "second"_a.noconvert(), "values"_a.noconvert(), "rows"_a, "row_offset"_a, "workers"_a,
        "lanes"_a);
}
