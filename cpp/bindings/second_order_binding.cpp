#include "bindings/cone_class.hpp"
#include "bindings/registration.hpp"
#include "cones/second_order_cone.hpp"

namespace dravik::mirel::cones::cpp {
namespace {
using BoundSecondOrderConeCpp = BoundNtFamilyCone<SecondOrderConeCpp>;
}  // namespace

void register_second_order_cone(nb::module_& m) {
    using namespace nb::literals;
    auto cls = register_cone_basics<BoundSecondOrderConeCpp>(m, "SecondOrderConeCpp", "dim"_a);
    register_nt_scaling_forms(cls);
    register_nt_method_family(cls);
    register_hmatrix_forms(cls);
    register_symmetric_kit(cls);
}

}  // namespace dravik::mirel::cones::cpp
