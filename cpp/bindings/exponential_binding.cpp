#include "bindings/cone_class.hpp"
#include "bindings/registration.hpp"
#include "cones/exponential_cone.hpp"

namespace dravik::mirel::cones::cpp {
namespace {

// The shared cone methods plus the dual cone's projection, violation and
// membership, and the kit's exponential-only methods (barrier gradients, the
// dual step length, the scaling with mu).
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

    void barrier_gradient_into(ReadVector x, WriteVector out, uint64_t batch,
                               uint64_t stream) const {
        ExponentialConeCpp::barrier_gradient_into(array_ref(x), array_ref(out), batch, stream);
    }
    void barrier_gradient_dual_into(ReadVector z, WriteVector out, uint64_t batch,
                                    uint64_t stream) const {
        ExponentialConeCpp::barrier_gradient_dual_into(array_ref(z), array_ref(out), batch,
                                                       stream);
    }
    double max_step_dual(ReadVector x, ReadVector dx, uint64_t batch, uint64_t stream) const {
        return ExponentialConeCpp::max_step_dual(array_ref(x), array_ref(dx), batch, stream);
    }
    void nt_scaling_into(ReadVector s, ReadVector z, WriteVector scaling, uint64_t batch, double mu,
                         uint64_t stream) const {
        ExponentialConeCpp::nt_scaling_into(array_ref(s), array_ref(z), array_ref(scaling), batch,
                                            mu, stream);
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
    register_kit_basics(cls);
    using Bound = BoundExponentialConeCpp;
    cls.def("barrier_gradient_into", &Bound::barrier_gradient_into, "x"_a.noconvert(),
            "out"_a.noconvert(), "batch"_a.noconvert() = 1, "stream"_a.noconvert() = 0)
        .def("barrier_gradient_dual_into", &Bound::barrier_gradient_dual_into, "z"_a.noconvert(),
             "out"_a.noconvert(), "batch"_a.noconvert() = 1, "stream"_a.noconvert() = 0)
        .def("max_step_dual", &Bound::max_step_dual, "x"_a.noconvert(), "dx"_a.noconvert(),
             "batch"_a.noconvert() = 1, "stream"_a.noconvert() = 0)
        .def("nt_scaling_into", &Bound::nt_scaling_into, "s"_a.noconvert(), "z"_a.noconvert(),
             "scaling"_a.noconvert(), "batch"_a.noconvert() = 1, "mu"_a = 0.0,
             "stream"_a.noconvert() = 0);
    register_kit_hessian(cls);
}

}  // namespace dravik::mirel::cones::cpp
