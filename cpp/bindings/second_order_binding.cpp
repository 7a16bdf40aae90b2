#include "bindings/cone_class.hpp"
#include "bindings/registration.hpp"
#include "cones/second_order_cone.hpp"

namespace dravik::mirel::cones::cpp {
namespace {

// The shared methods plus the method query and the two forced batch paths.
class BoundSecondOrderConeCpp : public BoundCone<SecondOrderConeCpp> {
public:
    using BoundCone<SecondOrderConeCpp>::BoundCone;

    void nt_scaling_matrix_batch_custom_into(ReadVector s, ReadVector z, WriteVector output,
                                             uint64_t batch, uint64_t stream) const {
        SecondOrderConeCpp::nt_scaling_matrix_batch_custom_into(
            array_ref(s), array_ref(z), array_ref(output), batch, stream);
    }
    void nt_scaling_matrix_batch_cublas_into(ReadVector s, ReadVector z, WriteVector output,
                                             uint64_t batch, uint64_t stream) const {
        SecondOrderConeCpp::nt_scaling_matrix_batch_cublas_into(
            array_ref(s), array_ref(z), array_ref(output), batch, stream);
    }
};

}  // namespace

void register_second_order_cone(nb::module_& m) {
    using namespace nb::literals;
    using Bound = BoundSecondOrderConeCpp;
    auto cls = register_cone_basics<Bound>(m, "SecondOrderConeCpp", "dim"_a);
    register_nt_scaling_forms(cls);
    cls.def("nt_scaling_matrix_default_method", &Bound::nt_scaling_matrix_default_method,
            "batch"_a = 1)
        .def("nt_scaling_matrix_batch_custom_into", &Bound::nt_scaling_matrix_batch_custom_into,
             "s"_a.noconvert(), "z"_a.noconvert(), "output"_a.noconvert(), "batch"_a,
             "stream"_a = 0)
        .def("nt_scaling_matrix_batch_cublas_into", &Bound::nt_scaling_matrix_batch_cublas_into,
             "s"_a.noconvert(), "z"_a.noconvert(), "output"_a.noconvert(), "batch"_a,
             "stream"_a = 0);
}

}  // namespace dravik::mirel::cones::cpp
