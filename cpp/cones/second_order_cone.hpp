// One second-order (Lorentz) cone {x : x[0] >= |x[1..rows-1]|} of fixed
// rows.
#pragma once

#include <cstdint>

#include "cones/frame/dense_scaling.hpp"
#include "cones/frame/kit_forms.hpp"
#include "cones/frame/nt_methods.hpp"
#include "core/owned_array.hpp"
#include "core/views.hpp"
#include "math/second_order_kit.hpp"

namespace dravik::mirel::cones::cpp {

class SecondOrderConeCpp : public DenseScalingForms<SecondOrderConeCpp>,
                           public NtMethodForms<SecondOrderConeCpp>,
                           public KitForms<SecondOrderConeCpp> {
public:
    explicit SecondOrderConeCpp(uint64_t rows);

    uint64_t dim() const { return rows_; }  // the Python-visible size: rows
    uint64_t rows() const { return rows_; }
    uint64_t device_size() const { return rows_; }  // what the device entry points take

    void project_into(const ArrayRef& input, const ArrayRef& output, uint64_t stream) const;
    double violation(const ArrayRef& input) const;
    bool contains(const ArrayRef& input, double atol) const;

    // H = P(s^1/2) P(G) P(s^-1/2): the list and array forms come from
    // DenseScalingForms, the batch forms from NtMethodForms.
    static const NtMethodFamily& nt_methods();

    // The cone's H block into a caller's CSR or COO value array.
    void hmatrix_values_into(SparseLayout layout, const SparseFillArgs& args) const;

    // The solver kit (KitForms), with the true NT scaling: W symmetric, H = W^-2.
    uint64_t degree() const { return 1; }
    static constexpr bool kEntrywise = false;
    SocKit kit() const { return {rows_}; }
    uint64_t kit_size() const { return rows_; }
    static const char* kit_label() { return "SOC"; }
    static const KitDeviceFns& kit_device();

private:
    friend class DenseScalingForms<SecondOrderConeCpp>;
    friend class NtMethodForms<SecondOrderConeCpp>;
    OwnedArray dense_scaling(const double* s, const double* z) const;
    void scale_batch(const ArrayRef& s, const ArrayRef& z, const ArrayRef& output, uint64_t batch,
                     uint64_t stream, NtMethod method) const;

    uint64_t rows_;
};

}  // namespace dravik::mirel::cones::cpp
