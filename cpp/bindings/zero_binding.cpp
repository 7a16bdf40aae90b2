#include "bindings/cone_class.hpp"
#include "bindings/registration.hpp"
#include "cones/zero_cone.hpp"

namespace dravik::mirel::cones::cpp {
namespace {
using BoundZeroConeCpp = BoundCone<ZeroConeCpp>;
}  // namespace

void register_zero_cone(nb::module_& m) {
    using namespace nb::literals;
    register_cone_head<BoundZeroConeCpp>(m, "ZeroConeCpp", "dim"_a);
}

}  // namespace dravik::mirel::cones::cpp
