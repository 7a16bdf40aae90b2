#include "bindings/cone_class.hpp"
#include "bindings/registration.hpp"
#include "cones/exponential_cone.hpp"

namespace dravik::mirel::cones::cpp {
namespace {
using BoundExponentialConeCpp = BoundCone<ExponentialConeCpp>;
}  // namespace

void register_exponential_cone(nb::module_& m) {
    using namespace nb::literals;
    auto cls =
        register_cone_basics<BoundExponentialConeCpp>(m, "ExponentialConeCpp", "blocks"_a = 1);
    register_nt_scaling_forms(cls);
    register_hmatrix_forms(cls);
}

}  // namespace dravik::mirel::cones::cpp
