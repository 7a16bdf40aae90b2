#include "bindings/cone_class.hpp"
#include "bindings/registration.hpp"
#include "cones/exponential_cone.hpp"

namespace dravik::mirel::cones::cpp {
namespace {

// The shared cone methods plus the dual cone's projection, violation and
// membership.
class BoundExponentialConeCpp : public BoundCone<ExponentialConeCpp> {
public:
    using BoundCone<ExponentialConeCpp>::BoundCone;

    void project_dual_into(ReadVector input, WriteVector output, uint64_t stream) const {
        ExponentialConeCpp::project_dual_into(array_ref(input), array_ref(output), stream);
    }
    double violation_dual(ReadVector input) const {
        return ExponentialConeCpp::violation_dual(array_ref(input));
    }
    bool contains_dual(ReadVector input, double atol) const {
        return ExponentialConeCpp::contains_dual(array_ref(input), atol);
    }
};

}  // namespace

void register_exponential_cone(nb::module_& m) {
    using namespace nb::literals;
    auto cls =
        register_cone_basics<BoundExponentialConeCpp>(m, "ExponentialConeCpp", "blocks"_a = 1);
    cls.def("project_dual_into", &BoundExponentialConeCpp::project_dual_into,
            "input"_a.noconvert(), "output"_a.noconvert(), "stream"_a = 0)
        .def("violation_dual", &BoundExponentialConeCpp::violation_dual, "input"_a.noconvert())
        .def("contains_dual", &BoundExponentialConeCpp::contains_dual, "input"_a.noconvert(),
             "atol"_a = 1e-8);
    register_nt_scaling_forms(cls);
    register_hmatrix_forms(cls);
}

}  // namespace dravik::mirel::cones::cpp
