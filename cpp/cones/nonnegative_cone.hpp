// The nonnegative orthant R^n_+ of linear inequality constraints.
#pragma once

#include <cstdint>

#include "cones/frame/dense_scaling.hpp"
#include "cones/frame/kit_forms.hpp"
#include "core/owned_array.hpp"
#include "core/views.hpp"
#include "math/nonnegative_kit.hpp"

namespace dravik::mirel::cones::cpp {

class NonnegativeConeCpp : public DenseScalingForms<NonnegativeConeCpp>,
                           public KitForms<NonnegativeConeCpp> {
public:
    explicit NonnegativeConeCpp(uint64_t rows) : rows_(rows) {}

    uint64_t dim() const { return rows_; }  // the Python-visible size: rows
    uint64_t rows() const { return rows_; }

    void project_into(const ArrayRef& input, const ArrayRef& output, uint64_t stream) const;
    double violation(const ArrayRef& input) const;
    bool contains(const ArrayRef& input, double atol) const;

    // diag(z[i] / s[i]) for strictly positive s and z. The list and array
    // forms come from DenseScalingForms.
    void nt_scaling_matrix_batch_into(const ArrayRef& s, const ArrayRef& z, const ArrayRef& output,
                                      uint64_t batch, uint64_t stream) const;

    // The cone's H block into a caller's CSR or COO value array.
    void hmatrix_values_into(SparseLayout layout, const SparseFillArgs& args) const;

    // The solver kit (KitForms), entrywise.
    static constexpr bool kEntrywise = true;
    static constexpr uint64_t kUnitRows = 1;
    uint64_t degree() const { return rows_; }
    NonnegativeKit kit() const { return {rows_}; }
    static NonnegativeKit kit_of(uint64_t entries) { return {entries}; }
    uint64_t kit_size() const { return rows_; }
    static const char* kit_label() { return "nonnegative"; }
    static const KitDeviceFns& kit_device();

private:
    friend class DenseScalingForms<NonnegativeConeCpp>;
    OwnedArray dense_scaling(const double* s, const double* z) const;

    uint64_t rows_;
};

}  // namespace dravik::mirel::cones::cpp
