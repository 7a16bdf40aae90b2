// One second-order (Lorentz) cone {x : x[0] >= |x[1..dim-1]|} of fixed dim.
#pragma once

#include <cstdint>
#include <vector>

#include "cones/frame/kit_forms.hpp"
#include "cones/frame/nt_methods.hpp"
#include "core/owned_array.hpp"
#include "core/views.hpp"
#include "math/second_order_kit.hpp"

namespace dravik::mirel::cones::cpp {

class SecondOrderConeCpp : public NtMethodForms<SecondOrderConeCpp>,
                           public KitForms<SecondOrderConeCpp> {
public:
    explicit SecondOrderConeCpp(uint64_t dim);

    uint64_t dim() const { return dim_; }
    uint64_t rows() const { return dim_; }

    void project_into(const ArrayRef& input, const ArrayRef& output, uint64_t stream) const;
    double violation(const ArrayRef& input) const;
    bool contains(const ArrayRef& input, double atol) const;

    std::vector<double> nt_scaling_matrix(const ArrayRef& s, const ArrayRef& z) const;
    OwnedArray nt_scaling_matrix_array(const ArrayRef& s, const ArrayRef& z) const;

    // The batch forms come from NtMethodForms.
    static const NtMethodFamily& nt_methods();

    // The cone's H block into a caller's CSR or COO value array.
    void hmatrix_values_into(SparseLayout layout, const SparseFillArgs& args) const;

    // The solver kit (KitForms), with the true NT scaling: W symmetric, H = W^-2.
    uint64_t degree() const { return 1; }
    static constexpr bool kEntrywise = false;
    SocKit kit() const { return {dim_}; }
    uint64_t kit_size() const { return dim_; }
    static const char* kit_label() { return "SOC"; }
    static const KitDeviceFns& kit_device();

private:
    friend class NtMethodForms<SecondOrderConeCpp>;
    void scale_batch(const ArrayRef& s, const ArrayRef& z, const ArrayRef& output, uint64_t batch,
                     uint64_t stream, NtMethod method) const;

    uint64_t dim_;
};

}  // namespace dravik::mirel::cones::cpp
