// The binding side of a cone: BoundCone<Core> adds to a core cone class only
// the array-taking methods (nanobind arrays in, views built by the core); the
// register_* templates register the methods every cone shares, in order.
#pragma once

#include <nanobind/nanobind.h>

#include "bindings/arrays.hpp"
#include "cones/frame/dense_builders.hpp"

namespace dravik::mirel::cones::cpp {

template <class Core>
class BoundCone : public Core {
public:
    using Core::Core;

    void project_into(ReadVector input, WriteVector output, uint64_t stream) const {
        Core::project_into(array_ref(input), array_ref(output), stream);
    }
    double violation(ReadVector input) const { return Core::violation(array_ref(input)); }
    bool contains(ReadVector input, double atol) const {
        return Core::contains(array_ref(input), atol);
    }

    FloatList unit_vector(uint64_t index) const {
        return to_list(UnitVectors::list(this->rows(), index));
    }
    Float64Array unit_vector_array(uint64_t index) const {
        return to_numpy(UnitVectors::array(this->rows(), index));
    }
    void unit_vector_into(uint64_t index, WriteVector output) const {
        UnitVectors::into(this->rows(), index, array_ref(output));
    }

    FloatList nt_scaling_matrix(ReadVector s, ReadVector z) const {
        return to_list(Core::nt_scaling_matrix(array_ref(s), array_ref(z)));
    }
    Float64Array nt_scaling_matrix_array(ReadVector s, ReadVector z) const {
        return to_numpy(Core::nt_scaling_matrix_array(array_ref(s), array_ref(z)));
    }
    // Exactly the batch of one: same checks, messages and device path.
    void nt_scaling_matrix_into(ReadVector s, ReadVector z, WriteVector output,
                                uint64_t stream) const {
        Core::nt_scaling_matrix_batch_into(array_ref(s), array_ref(z), array_ref(output), 1,
                                           stream);
    }
    void nt_scaling_matrix_batch_into(ReadVector s, ReadVector z, WriteVector output,
                                      uint64_t batch, uint64_t stream) const {
        Core::nt_scaling_matrix_batch_into(array_ref(s), array_ref(z), array_ref(output), batch,
                                           stream);
    }

    void hmatrix_csr_values_into(ReadVector s, ReadVector z, IndexVector indptr,
                                 IndexVector indices, WriteVector values, uint64_t row_offset,
                                 uint64_t stream) const {
        Core::hmatrix_values_into(
            SparseLayout::Csr, {array_ref(s), array_ref(z), array_ref(indptr), array_ref(indices),
                                array_ref(values), row_offset, stream});
    }
    void hmatrix_coo_values_into(ReadVector s, ReadVector z, IndexVector row_indices,
                                 IndexVector col_indices, WriteVector values, uint64_t row_offset,
                                 uint64_t stream) const {
        Core::hmatrix_values_into(SparseLayout::Coo,
                                  {array_ref(s), array_ref(z), array_ref(row_indices),
                                   array_ref(col_indices), array_ref(values), row_offset, stream});
    }

    // The solver kit (cones/frame/kit_forms.hpp); a cone registers the
    // methods it has.
    void identity_into(WriteVector out, uint64_t batch, uint64_t stream) const {
        Core::identity_into(array_ref(out), batch, stream);
    }
    double max_step(ReadVector x, ReadVector dx, uint64_t batch, uint64_t stream) const {
        return Core::max_step(array_ref(x), array_ref(dx), batch, stream);
    }
    void nt_scaling_into(ReadVector s, ReadVector z, WriteVector scaling, uint64_t batch,
                         uint64_t stream) const {
        Core::nt_scaling_into(array_ref(s), array_ref(z), array_ref(scaling), batch, 0.0, stream);
    }
    void nt_scaled_point_into(ReadVector scaling, WriteVector lam, uint64_t batch,
                              uint64_t stream) const {
        Core::nt_scaled_point_into(array_ref(scaling), array_ref(lam), batch, stream);
    }
    void nt_apply_into(ReadVector scaling, ReadVector x, WriteVector out, uint64_t batch,
                       bool inverse, uint64_t stream) const {
        Core::nt_apply_into(array_ref(scaling), array_ref(x), array_ref(out), batch, inverse,
                            stream);
    }
    void nt_hessian_into(ReadVector scaling, WriteVector out, uint64_t batch, bool inverse,
                         uint64_t stream) const {
        Core::nt_hessian_into(array_ref(scaling), array_ref(out), batch, inverse, stream);
    }
    void nt_hessian_csr_values_into(ReadVector scaling, IndexVector indptr, IndexVector indices,
                                    WriteVector values, uint64_t row_offset, uint64_t batch,
                                    bool inverse, double scale, uint64_t stream) const {
        Core::nt_hessian_values_into(SparseLayout::Csr,
                                     {array_ref(scaling), array_ref(indptr), array_ref(indices),
                                      array_ref(values), row_offset, batch, inverse, scale,
                                      stream});
    }
    void nt_hessian_coo_values_into(ReadVector scaling, IndexVector row_indices,
                                    IndexVector col_indices, WriteVector values,
                                    uint64_t row_offset, uint64_t batch, bool inverse,
                                    double scale, uint64_t stream) const {
        Core::nt_hessian_values_into(SparseLayout::Coo,
                                     {array_ref(scaling), array_ref(row_indices),
                                      array_ref(col_indices), array_ref(values), row_offset, batch,
                                      inverse, scale, stream});
    }
    void jordan_product_into(ReadVector x, ReadVector y, WriteVector out, uint64_t batch,
                             uint64_t stream) const {
        Core::jordan_product_into(array_ref(x), array_ref(y), array_ref(out), batch, stream);
    }
    void jordan_divide_into(ReadVector lam, ReadVector v, WriteVector out, uint64_t batch,
                            uint64_t stream) const {
        Core::jordan_divide_into(array_ref(lam), array_ref(v), array_ref(out), batch, stream);
    }
};

// The cones whose batch NT scaling has a method family add the two forced
// forms; the core class provides them and the method query.
template <class Core>
class BoundNtFamilyCone : public BoundCone<Core> {
public:
    using BoundCone<Core>::BoundCone;

    void nt_scaling_matrix_batch_custom_into(ReadVector s, ReadVector z, WriteVector output,
                                             uint64_t batch, uint64_t stream) const {
        Core::nt_scaling_matrix_batch_custom_into(array_ref(s), array_ref(z), array_ref(output),
                                                  batch, stream);
    }
    void nt_scaling_matrix_batch_cublas_into(ReadVector s, ReadVector z, WriteVector output,
                                             uint64_t batch, uint64_t stream) const {
        Core::nt_scaling_matrix_batch_cublas_into(array_ref(s), array_ref(z), array_ref(output),
                                                  batch, stream);
    }
};

// Creates the class with its constructor (parameter `ctor_arg`), the `dim`
// and `rows` properties and the methods from project_into through
// unit_vector_into, in registration order.
template <class Bound, class CtorArg>
nb::class_<Bound> register_cone_basics(nb::module_& m, const char* name, CtorArg ctor_arg) {
    using namespace nb::literals;
    nb::class_<Bound> cls(m, name);
    cls.def(nb::init<uint64_t>(), ctor_arg)
        .def_prop_ro("dim", [](const Bound& c) { return c.dim(); })
        .def_prop_ro("rows", [](const Bound& c) { return c.rows(); })
        .def("project_into", &Bound::project_into, "input"_a.noconvert(), "output"_a.noconvert(),
             "stream"_a = 0)
        .def("violation", &Bound::violation, "input"_a.noconvert())
        .def("contains", &Bound::contains, "input"_a.noconvert(), "atol"_a = 1e-8)
        .def("unit_vector", &Bound::unit_vector, "index"_a)
        .def("unit_vector_array", &Bound::unit_vector_array, "index"_a)
        .def("unit_vector_into", &Bound::unit_vector_into, "index"_a, "output"_a.noconvert());
    return cls;
}

// The four NT scaling forms every cone has, after the unit vectors.
template <class Bound>
void register_nt_scaling_forms(nb::class_<Bound>& cls) {
    using namespace nb::literals;
    cls.def("nt_scaling_matrix", &Bound::nt_scaling_matrix, "s"_a.noconvert(), "z"_a.noconvert())
        .def("nt_scaling_matrix_array", &Bound::nt_scaling_matrix_array, "s"_a.noconvert(),
             "z"_a.noconvert())
        .def("nt_scaling_matrix_into", &Bound::nt_scaling_matrix_into, "s"_a.noconvert(),
             "z"_a.noconvert(), "output"_a.noconvert(), "stream"_a = 0)
        .def("nt_scaling_matrix_batch_into", &Bound::nt_scaling_matrix_batch_into,
             "s"_a.noconvert(), "z"_a.noconvert(), "output"_a.noconvert(), "batch"_a,
             "stream"_a = 0);
}

// The method query and the two forced batch forms, registered right after
// nt_scaling_matrix_batch_into.
template <class Bound>
void register_nt_method_family(nb::class_<Bound>& cls) {
    using namespace nb::literals;
    cls.def("nt_scaling_matrix_default_method", &Bound::nt_scaling_matrix_default_method,
            "batch"_a = 1)
        .def("nt_scaling_matrix_batch_custom_into", &Bound::nt_scaling_matrix_batch_custom_into,
             "s"_a.noconvert(), "z"_a.noconvert(), "output"_a.noconvert(), "batch"_a,
             "stream"_a = 0)
        .def("nt_scaling_matrix_batch_cublas_into", &Bound::nt_scaling_matrix_batch_cublas_into,
             "s"_a.noconvert(), "z"_a.noconvert(), "output"_a.noconvert(), "batch"_a,
             "stream"_a = 0);
}

// The two sparse Hessian fills, registered last on every cone.
template <class Bound>
void register_hmatrix_forms(nb::class_<Bound>& cls) {
    using namespace nb::literals;
    cls.def("hmatrix_csr_values_into", &Bound::hmatrix_csr_values_into, "s"_a.noconvert(),
            "z"_a.noconvert(), "indptr"_a.noconvert(), "indices"_a.noconvert(),
            "values"_a.noconvert(), "row_offset"_a = 0, "stream"_a = 0)
        .def("hmatrix_coo_values_into", &Bound::hmatrix_coo_values_into, "s"_a.noconvert(),
             "z"_a.noconvert(), "row_indices"_a.noconvert(), "col_indices"_a.noconvert(),
             "values"_a.noconvert(), "row_offset"_a = 0, "stream"_a = 0);
}

}  // namespace dravik::mirel::cones::cpp

namespace dravik::mirel::cones::cpp {

// The solver kit's methods every cone has: degree, identity, step length,
// the scaling's length, the dense H and the two coupling-safe fills. Counts
// and flags take no conversion (a string or float is a TypeError).
template <class Bound>
void register_kit_basics(nb::class_<Bound>& cls) {
    using namespace nb::literals;
    cls.def("degree", &Bound::degree)
        .def("identity_into", &Bound::identity_into, "out"_a.noconvert(),
             "batch"_a.noconvert() = 1, "stream"_a.noconvert() = 0)
        .def("max_step", &Bound::max_step, "x"_a.noconvert(), "dx"_a.noconvert(),
             "batch"_a.noconvert() = 1, "stream"_a.noconvert() = 0)
        .def("scaling_length", &Bound::scaling_length, "batch"_a.noconvert() = 1);
}

// nt_scaling_into as the symmetric cones have it (no mu).
template <class Bound>
void register_kit_nt_scaling(nb::class_<Bound>& cls) {
    using namespace nb::literals;
    cls.def("nt_scaling_into", &Bound::nt_scaling_into, "s"_a.noconvert(), "z"_a.noconvert(),
            "scaling"_a.noconvert(), "batch"_a.noconvert() = 1, "stream"_a.noconvert() = 0);
}

// The scaled point and the factor W of the symmetric cones.
template <class Bound>
void register_kit_factor(nb::class_<Bound>& cls) {
    using namespace nb::literals;
    cls.def("nt_scaled_point_into", &Bound::nt_scaled_point_into, "scaling"_a.noconvert(),
            "lam"_a.noconvert(), "batch"_a.noconvert() = 1, "stream"_a.noconvert() = 0)
        .def("nt_apply_into", &Bound::nt_apply_into, "scaling"_a.noconvert(), "x"_a.noconvert(),
             "out"_a.noconvert(), "batch"_a.noconvert() = 1, "inverse"_a.noconvert() = false,
             "stream"_a.noconvert() = 0);
}

// The dense H and the coupling-safe fills.
template <class Bound>
void register_kit_hessian(nb::class_<Bound>& cls) {
    using namespace nb::literals;
    cls.def("nt_hessian_into", &Bound::nt_hessian_into, "scaling"_a.noconvert(),
            "out"_a.noconvert(), "batch"_a.noconvert() = 1, "inverse"_a.noconvert() = false,
            "stream"_a.noconvert() = 0)
        .def("nt_hessian_csr_values_into", &Bound::nt_hessian_csr_values_into,
             "scaling"_a.noconvert(), "indptr"_a.noconvert(), "indices"_a.noconvert(),
             "values"_a.noconvert(), "row_offset"_a.noconvert() = 0, "batch"_a.noconvert() = 1,
             "inverse"_a.noconvert() = false, "scale"_a = 1.0, "stream"_a.noconvert() = 0)
        .def("nt_hessian_coo_values_into", &Bound::nt_hessian_coo_values_into,
             "scaling"_a.noconvert(), "row_indices"_a.noconvert(), "col_indices"_a.noconvert(),
             "values"_a.noconvert(), "row_offset"_a.noconvert() = 0, "batch"_a.noconvert() = 1,
             "inverse"_a.noconvert() = false, "scale"_a = 1.0, "stream"_a.noconvert() = 0);
}

// The Jordan product and division of the symmetric cones.
template <class Bound>
void register_kit_jordan(nb::class_<Bound>& cls) {
    using namespace nb::literals;
    cls.def("jordan_product_into", &Bound::jordan_product_into, "x"_a.noconvert(),
            "y"_a.noconvert(), "out"_a.noconvert(), "batch"_a.noconvert() = 1,
            "stream"_a.noconvert() = 0)
        .def("jordan_divide_into", &Bound::jordan_divide_into, "lam"_a.noconvert(),
             "v"_a.noconvert(), "out"_a.noconvert(), "batch"_a.noconvert() = 1,
             "stream"_a.noconvert() = 0);
}

// Every kit method of a symmetric cone, in one order.
template <class Bound>
void register_symmetric_kit(nb::class_<Bound>& cls) {
    register_kit_basics(cls);
    register_kit_nt_scaling(cls);
    register_kit_factor(cls);
    register_kit_hessian(cls);
    register_kit_jordan(cls);
}

}  // namespace dravik::mirel::cones::cpp
