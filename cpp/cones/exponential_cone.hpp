// A product of `blocks` three-dimensional exponential cones; block k of a
// vector is (x, y, z) = entries 3k, 3k + 1, 3k + 2.
#pragma once

#include <cstdint>

#include "cones/frame/dense_scaling.hpp"
#include "core/owned_array.hpp"
#include "core/views.hpp"

namespace dravik::mirel::cones::cpp {

class ExponentialConeCpp : public DenseScalingForms<ExponentialConeCpp> {
public:
    explicit ExponentialConeCpp(uint64_t blocks);

    uint64_t dim() const { return 3; }  // the Python-visible size: the rows of one block
    uint64_t rows() const { return 3 * blocks_; }
    uint64_t blocks() const { return blocks_; }

    void project_into(const ArrayRef& input, const ArrayRef& output, uint64_t stream) const;
    double violation(const ArrayRef& input) const;
    bool contains(const ArrayRef& input, double atol) const;

    // Block-diagonal scaling: block k maps the s-block onto the z-block. The
    // list and array forms come from DenseScalingForms.
    void nt_scaling_matrix_batch_into(const ArrayRef& s, const ArrayRef& z, const ArrayRef& output,
                                      uint64_t batch, uint64_t stream) const;

    // The cone's H block into a caller's CSR or COO value array.
    void hmatrix_values_into(SparseLayout layout, const SparseFillArgs& args) const;

private:
    friend class DenseScalingForms<ExponentialConeCpp>;
    OwnedArray dense_scaling(const double* s, const double* z) const;

    uint64_t blocks_;
};

}  // namespace dravik::mirel::cones::cpp
