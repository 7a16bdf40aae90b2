// The nonnegative orthant R^n_+ of linear inequality constraints.
#pragma once

#include <cstdint>
#include <vector>

#include "cones/frame/kit_forms.hpp"
#include "core/owned_array.hpp"
#include "core/views.hpp"
#include "math/nonnegative_kit.hpp"

namespace dravik::mirel::cones::cpp {

class NonnegativeConeCpp : public KitForms<NonnegativeConeCpp> {
public:
    explicit NonnegativeConeCpp(uint64_t dim) : dim_(dim) {}

    uint64_t dim() const { return dim_; }
    uint64_t rows() const { return dim_; }

    void project_into(const ArrayRef& input, const ArrayRef& output, uint64_t stream) const;
    double violation(const ArrayRef& input) const;
    bool contains(const ArrayRef& input, double atol) const;

    // diag(z[i] / s[i]) for strictly positive s and z.
    std::vector<double> nt_scaling_matrix(const ArrayRef& s, const ArrayRef& z) const;
    OwnedArray nt_scaling_matrix_array(const ArrayRef& s, const ArrayRef& z) const;
    void nt_scaling_matrix_batch_into(const ArrayRef& s, const ArrayRef& z, const ArrayRef& output,
                                      uint64_t batch, uint64_t stream) const;

    // The cone's H block into a caller's CSR or COO value array.
    void hmatrix_values_into(SparseLayout layout, const SparseFillArgs& args) const;

    // The solver kit (KitForms), entrywise.
    static constexpr bool kEntrywise = true;
    uint64_t degree() const { return dim_; }
    NonnegativeKit kit() const { return {dim_}; }
    static NonnegativeKit kit_of(uint64_t entries) { return {entries}; }
    uint64_t kit_size() const { return dim_; }
    static const char* kit_label() { return "nonnegative"; }
    static const KitDeviceFns& kit_device();

private:
    uint64_t dim_;
};

}  // namespace dravik::mirel::cones::cpp
