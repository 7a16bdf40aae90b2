// Internal entry points for tests and benchmarks only (leading underscore):
// the two Jacobi pivot searches and the 2 x 2 closed forms that the device
// kernels run, reachable from Python on host arrays.
#include <nanobind/nanobind.h>

#include <vector>

#include "bindings/arrays.hpp"
#include "bindings/registration.hpp"
#include "cones/jacobi.hpp"
#include "cones/math/psd2.hpp"
#include "cones/math/svec.hpp"

namespace dravik::mirel::cones::cpp {
namespace {

using JacobiFn = void (*)(std::vector<double>&, std::vector<double>&, uint64_t);

// (eigenvalues, eigenvectors as columns of an n x n array) of a row-major matrix.
nb::tuple decompose(JacobiFn jacobi, ReadVector matrix, uint64_t n) {
    require_psd_order(n);
    VectorView in = dense_input_view(array_ref(matrix), n * n, "matrix");
    std::vector<double> a(in.data, in.data + n * n);
    std::vector<double> v;
    jacobi(a, v, n);
    OwnedArray values = make_owned_vector(n, "eigenvalues");
    for (uint64_t i = 0; i < n; ++i) values.data()[i] = a[i * n + i];
    OwnedArray vectors = make_owned_matrix(n, "eigenvectors");
    for (uint64_t i = 0; i < n * n; ++i) vectors.data()[i] = v[i];
    return nb::make_tuple(to_numpy(std::move(values)), to_numpy(std::move(vectors)));
}

}  // namespace

void register_psd_test_hooks(nb::module_& m) {
    using namespace nb::literals;
    m.def(
        "_jacobi_eigh",
        [](ReadVector matrix, uint64_t dim) { return decompose(jacobi_eigh, matrix, dim); },
        "matrix"_a.noconvert(), "dim"_a);
    m.def(
        "_jacobi_eigh_reference",
        [](ReadVector matrix, uint64_t dim) {
            return decompose(jacobi_eigh_full_scan, matrix, dim);
        },
        "matrix"_a.noconvert(), "dim"_a);
    // (projection, violation) of a 2 x 2 svec by the device's closed forms.
    m.def(
        "_psd2_closed_form",
        [](ReadVector svec) {
            VectorView in = dense_input_view(array_ref(svec), 3, "svec");
            OwnedArray out = make_owned_vector(3, "projection");
            psd2_project(in.data, out.data());
            return nb::make_tuple(to_numpy(std::move(out)), psd2_violation(in.data));
        },
        "svec"_a.noconvert());
}

}  // namespace dravik::mirel::cones::cpp
