// PsdConeCpp and the module's svec/smat packing functions.
#include "bindings/cone_class.hpp"
#include "bindings/registration.hpp"
#include "cones/psd_cone.hpp"
#include "cones/psd_packing.hpp"

namespace dravik::mirel::cones::cpp {
namespace {
using BoundPsdConeCpp = BoundNtFamilyCone<PsdConeCpp>;
}  // namespace

void register_psd_cone(nb::module_& m) {
    using namespace nb::literals;
    auto cls = register_cone_basics<BoundPsdConeCpp>(m, "PsdConeCpp", "dim"_a);
    register_nt_scaling_forms(cls);
    register_nt_method_family(cls);
    register_hmatrix_forms(cls);
}

// The matrix order is the Python parameter `dim`.
void register_psd_functions(nb::module_& m) {
    using namespace nb::literals;
    m.def(
        "psd_smat",
        [](ReadVector svec, uint64_t order) {
            return to_numpy(psd_smat_array(array_ref(svec), order));
        },
        "svec"_a.noconvert(), "dim"_a);
    m.def(
        "psd_svec",
        [](ReadVector matrix, uint64_t order) {
            return to_numpy(psd_svec_array(array_ref(matrix), order));
        },
        "matrix"_a.noconvert(), "dim"_a);
    m.def(
        "psd_smat_into",
        [](ReadVector svec, WriteVector output, uint64_t order, uint64_t stream) {
            psd_smat_into(array_ref(svec), array_ref(output), order, stream);
        },
        "svec"_a.noconvert(), "output"_a.noconvert(), "dim"_a, "stream"_a = 0);
    m.def(
        "psd_svec_into",
        [](ReadVector matrix, WriteVector output, uint64_t order, uint64_t stream) {
            psd_svec_into(array_ref(matrix), array_ref(output), order, stream);
        },
        "matrix"_a.noconvert(), "output"_a.noconvert(), "dim"_a, "stream"_a = 0);
}

}  // namespace dravik::mirel::cones::cpp
