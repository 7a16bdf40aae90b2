// One second-order (Lorentz) cone {x : x[0] >= |x[1..dim-1]|} of fixed dim.
#pragma once

#include <cstdint>
#include <vector>

#include "bindings/owned_array.hpp"
#include "bindings/views.hpp"
#include "cones/nt_methods.hpp"

namespace dravik::mirel::cones::cpp {

class SecondOrderConeCpp {
public:
    explicit SecondOrderConeCpp(uint64_t dim);

    uint64_t dim() const { return dim_; }
    uint64_t rows() const { return dim_; }

    void project_into(const ArrayRef& input, const ArrayRef& output, uint64_t stream) const;
    double violation(const ArrayRef& input) const;
    bool contains(const ArrayRef& input, double atol) const;

    std::vector<double> nt_scaling_matrix(const ArrayRef& s, const ArrayRef& z) const;
    OwnedArray nt_scaling_matrix_array(const ArrayRef& s, const ArrayRef& z) const;
    void nt_scaling_matrix_batch_into(const ArrayRef& s, const ArrayRef& z, const ArrayRef& output,
                                      uint64_t batch, uint64_t stream) const;

    // The device method the batch form picks for this dim and batch size.
    const char* nt_scaling_matrix_default_method(uint64_t batch) const;
    void nt_scaling_matrix_batch_custom_into(const ArrayRef& s, const ArrayRef& z,
                                             const ArrayRef& output, uint64_t batch,
                                             uint64_t stream) const;
    void nt_scaling_matrix_batch_cublas_into(const ArrayRef& s, const ArrayRef& z,
                                             const ArrayRef& output, uint64_t batch,
                                             uint64_t stream) const;

    // The cone's H block into a caller's CSR or COO value array.
    void hmatrix_values_into(SparseLayout layout, const SparseFillArgs& args) const;

private:
    void scale_batch(const ArrayRef& s, const ArrayRef& z, const ArrayRef& output, uint64_t batch,
                     uint64_t stream, NtMethod method) const;

    uint64_t dim_;
};

}  // namespace dravik::mirel::cones::cpp
