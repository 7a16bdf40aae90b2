#include "bindings/cone_class.hpp"
#include "bindings/registration.hpp"
#include "cones/nonnegative_cone.hpp"

namespace dravik::mirel::cones::cpp {
namespace {
using BoundNonnegativeConeCpp = BoundCone<NonnegativeConeCpp>;
}  // namespace

void register_nonnegative_cone(nb::module_& m) {
    using namespace nb::literals;
    auto cls = register_cone_basics<BoundNonnegativeConeCpp>(m, "NonnegativeConeCpp", "dim"_a);
    register_nt_scaling_forms(cls);
    register_hmatrix_forms(cls);
    register_symmetric_kit(cls);
}

}  // namespace dravik::mirel::cones::cpp
