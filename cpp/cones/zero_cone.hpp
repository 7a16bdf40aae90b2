// The zero cone {0}^n of equality constraints.
#pragma once

#include <cstdint>

#include "cones/frame/dense_scaling.hpp"
#include "cones/frame/kit_forms.hpp"
#include "core/owned_array.hpp"
#include "core/views.hpp"
#include "math/zero_kit.hpp"

namespace dravik::mirel::cones::cpp {

class ZeroConeCpp : public DenseScalingForms<ZeroConeCpp>, public KitForms<ZeroConeCpp> {
public:
    explicit ZeroConeCpp(uint64_t rows) : rows_(rows) {}

    uint64_t dim() const { return rows_; }  // the Python-visible size: rows
    uint64_t rows() const { return rows_; }

    void project_into(const ArrayRef& input, const ArrayRef& output, uint64_t stream) const;
    double violation(const ArrayRef& input) const;
    bool contains(const ArrayRef& input, double atol) const;

    // The identity, for s and z that pass the zero test. The list and array
    // forms come from DenseScalingForms.
    void nt_scaling_matrix_batch_into(const ArrayRef& s, const ArrayRef& z, const ArrayRef& output,
                                      uint64_t batch, uint64_t stream) const;

    // The cone's H block into a caller's CSR or COO value array.
    void hmatrix_values_into(SparseLayout layout, const SparseFillArgs& args) const;

    // The solver kit's trivial answers (KitForms): degree 0, zeros for the
    // identity and H, an unbounded step, an empty scaling.
    uint64_t degree() const { return 0; }
    static constexpr bool kEntrywise = false;
    ZeroKit kit() const { return {rows_}; }
    uint64_t kit_size() const { return rows_; }
    static const char* kit_label() { return "zero"; }
    static const KitDeviceFns& kit_device();

private:
    friend class DenseScalingForms<ZeroConeCpp>;
    OwnedArray dense_scaling(const double* s, const double* z) const;
    void require_zero_pair(const double* s, const double* z, uint64_t n) const;

    uint64_t rows_;
};

}  // namespace dravik::mirel::cones::cpp
