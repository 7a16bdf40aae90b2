// A product of `blocks` three-dimensional exponential cones; block k of a
// vector is (x, y, z) = entries 3k, 3k + 1, 3k + 2.
#pragma once

#include <cstdint>
#include <vector>

#include "core/owned_array.hpp"
#include "core/views.hpp"

namespace dravik::mirel::cones::cpp {

class ExponentialConeCpp {
public:
    explicit ExponentialConeCpp(uint64_t blocks);

    uint64_t dim() const { return 3; }  // the size of one block
    uint64_t rows() const { return 3 * blocks_; }
    uint64_t blocks() const { return blocks_; }

    void project_into(const ArrayRef& input, const ArrayRef& output, uint64_t stream) const;
    double violation(const ArrayRef& input) const;
    bool contains(const ArrayRef& input, double atol) const;

    // The dual cone: Euclidean projection, violation measure and membership,
    // with the argument checks and threading of the three above.
    void project_dual_into(const ArrayRef& input, const ArrayRef& output, uint64_t stream) const;
    double violation_dual(const ArrayRef& input) const;
    bool contains_dual(const ArrayRef& input, double atol) const;

    // Block-diagonal scaling: block k maps the s-block onto the z-block.
    std::vector<double> nt_scaling_matrix(const ArrayRef& s, const ArrayRef& z) const;
    OwnedArray nt_scaling_matrix_array(const ArrayRef& s, const ArrayRef& z) const;
    void nt_scaling_matrix_batch_into(const ArrayRef& s, const ArrayRef& z, const ArrayRef& output,
                                      uint64_t batch, uint64_t stream) const;

    // The cone's H block into a caller's CSR or COO value array.
    void hmatrix_values_into(SparseLayout layout, const SparseFillArgs& args) const;

private:
    std::vector<double> dense_scaling(const ArrayRef& s, const ArrayRef& z) const;

    uint64_t blocks_;
};

}  // namespace dravik::mirel::cones::cpp
