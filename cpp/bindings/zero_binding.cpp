#include "bindings/cone_class.hpp"
#include "bindings/registration.hpp"
#include "cones/zero_cone.hpp"

namespace dravik::mirel::cones::cpp {
namespace {
using BoundZeroConeCpp = BoundCone<ZeroConeCpp>;
}  // namespace

void register_zero_cone(nb::module_& m) {
    using namespace nb::literals;
    auto cls = register_cone_basics<BoundZeroConeCpp>(m, "ZeroConeCpp", "dim"_a);
    register_nt_scaling_forms(cls);
    register_hmatrix_forms(cls);
    register_kit_basics(cls);
    register_kit_nt_scaling(cls);
    register_kit_hessian(cls);
}

}  // namespace dravik::mirel::cones::cpp
